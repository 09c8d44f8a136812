#include "framing.h"

#include <array>

namespace sim {

namespace {

constexpr uint8_t escape_byte = 0x7D, escape_bit = 0x20;
constexpr size_t fcs_size = 2;

uint16_t fcs_of(View packet)
{
    static constexpr auto table = [] {
        std::array<uint16_t, 256> rows{};
        for (unsigned i = 0; i < rows.size(); ++i) {
            unsigned row = i;
            for (int bit = 0; bit < 8; ++bit)
                row = (row & 1) != 0 ? row >> 1 ^ 0x8408 : row >> 1;
            rows[i] = static_cast<uint16_t>(row);
        }
        return rows;
    }();

    unsigned crc = 0xFFFF;
    for (const uint8_t byte : packet)
        crc = crc >> 8 ^ table[(crc ^ byte) & 0xFF];
    return static_cast<uint16_t>(~crc);
}

} // namespace

Bytes frame(View packet, bool spoil_fcs)
{
    const unsigned fcs = fcs_of(packet) ^ (spoil_fcs ? 0x0101U : 0U);
    Bytes wire;
    wire.reserve(packet.size() + packet.size() / 8 + 8);
    const auto stuff = [&wire](uint8_t byte) {
        const bool special = byte == flag_byte || byte == escape_byte;
        if (special)
            wire.push_back(escape_byte);
        wire.push_back(special ? byte ^ escape_bit : byte);
    };
    for (const uint8_t byte : packet)
        stuff(byte);
    stuff(byte_of(fcs, 0));
    stuff(byte_of(fcs, 8));
    wire.push_back(flag_byte);
    return wire;
}

std::optional<Frame> Deframer::take(View& input)
{
    while (!input.empty()) {
        const uint8_t byte = input.front();
        input = input.subspan(1);
        if (byte == flag_byte) {
            if (bytes_.empty() && !escaped_ && !too_long_)
                continue;
            return finish();
        }
        if (byte == escape_byte && !escaped_) {
            escaped_ = true;
            continue;
        }
        if (bytes_.size() == longest_packet + fcs_size)
            too_long_ = true;
        else
            bytes_.push_back(escaped_ ? byte ^ escape_bit : byte);
        escaped_ = false;
    }
    return std::nullopt;
}

Frame Deframer::finish()
{
    Frame result;
    const View all(bytes_);
    const View packet = all.first(all.size() - std::min(all.size(), fcs_size));
    if (too_long_)
        result.state = FrameState::too_long;
    else if (escaped_)
        result.state = FrameState::aborted;
    else if (packet.empty() || fcs_of(packet) != get_le16(all, packet.size()))
        result.state = FrameState::bad_fcs;
    else
        result.packet = copy_of(packet);
    bytes_.clear();
    escaped_ = too_long_ = false;
    return result;
}

} // namespace sim
