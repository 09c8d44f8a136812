#include "dload_port.h"

#include "text.h"

#include <array>

namespace sim {

namespace {

enum NakReason : uint8_t {
    nak_bad_fcs = 0x01,
    nak_bad_length = 0x03,
    nak_cut_short = 0x04,
    nak_too_large = 0x05,
    nak_unknown_command = 0x06,
    nak_failed = 0x07,
    nak_bad_address = 0x0F,
};

constexpr uint8_t nak_code = 0x03, acknowledge_code = 0x02;
constexpr uint8_t no_operation_code = 0x06, parameter_code = 0x07, reset_code = 0x0A, table_code = 0x10;
constexpr uint8_t parameter_reply_code = 0x08, table_reply_code = 0x11;
constexpr std::array<uint8_t, 3> diag_reset{0x29, 0x02, 0x00};

// Request: code, address (4), length (2). Reply: the same, then the data.
namespace framed_read {
constexpr uint8_t request_code = 0x12, reply_code = 0x13;
constexpr size_t address_at = 1, length_at = 5, request_size = 7;
constexpr uint32_t most = 2000;
} // namespace framed_read

// Request: code, padding (3), address (4), length (4). Reply: the same, then the data, all of it outside any frame.
namespace unframed_read {
constexpr uint8_t request_code = 0x14, reply_code = 0x15;
constexpr uint8_t first_version = 7;
constexpr size_t address_at = 4, length_at = 8, request_size = 12;
constexpr uint32_t most = 4084; // with the header, what the buffer of a host takes
} // namespace unframed_read

} // namespace

Bytes nak_packet(uint8_t reason)
{
    return {nak_code, 0x00, reason};
}

Reply DloadPort::answer(View request)
{
    const uint8_t code = request.front();
    if (starts_with(request, diag_reset) && request.size() == diag_reset.size())
        return {.packet = Bytes(request.begin(), request.end()), .then = Then::reboot};
    if (code == framed_read::request_code)
        return read_framed(request);
    if (code == unframed_read::request_code && version_ >= unframed_read::first_version)
        return read_unframed(request);

    const bool known = code == no_operation_code || code == parameter_code || code == reset_code || code == table_code;
    if (!known)
        return nak(nak_unknown_command, "command " + hex(request, 4) + " to a modem in DLOAD mode");
    if (request.size() != 1)
        return nak(nak_bad_length, "DLOAD command " + hex(request.first(1)) + " of a wrong length");
    if (code == no_operation_code)
        return {.packet = {acknowledge_code}};
    if (code == reset_code)
        return {.packet = {acknowledge_code}, .then = Then::reboot};
    if (code == table_code)
        return region_table();

    // Behind the version: the lowest version spoken, the largest write (2), model, device size, device type.
    return {.packet = {parameter_reply_code, version_, 0x02, 0x04, 0x00, 0x00, 0x00, 0x00}};
}

Reply DloadPort::answer_to_damaged_frame(FrameState state)
{
    if (state == FrameState::too_long)
        return {.packet = nak_packet(nak_too_large)};
    return {.packet = nak_packet(state == FrameState::aborted ? nak_cut_short : nak_bad_fcs)};
}

Bytes DloadPort::refusal(View, uint8_t code) const
{
    return nak_packet(code);
}

Reply DloadPort::nak(uint8_t reason, const std::string& complaint) const
{
    journal_.complain(complaint);
    return {.packet = nak_packet(reason)};
}

Reply DloadPort::region_table() const
{
    if (table_reply_)
        return {.packet = *table_reply_, .length_at = 1, .length_size = 2};
    const Bytes entries = memory_.table();
    const auto size = static_cast<uint32_t>(entries.size());
    Bytes packet{table_reply_code, byte_of(size, 8), byte_of(size, 0)};
    add(packet, entries);
    return {.packet = packet, .length_at = 1, .length_size = 2};
}

Reply DloadPort::read_framed(View request) const
{
    using namespace framed_read;
    if (request.size() != request_size)
        return nak(nak_bad_length, "memory read of a wrong length");
    const uint16_t length = get_be16(request, length_at);
    if (length == 0 || length > most)
        return nak(nak_bad_length, "memory read for " + std::to_string(length) + " bytes");
    const auto data = memory_.read(get_be32(request, address_at), length);
    if (!data)
        return nak(nak_bad_address, "memory read outside the regions");

    Bytes packet(request.begin(), request.end());
    packet.front() = reply_code;
    add(packet, *data);
    return {.packet = packet, .length_at = length_at, .length_size = 2};
}

Reply DloadPort::read_unframed(View request) const
{
    using namespace unframed_read;
    if (request.size() != request_size)
        return nak(nak_bad_length, "unframed memory read of a wrong length");
    if (request[1] != 0 || request[2] != 0 || request[3] != 0)
        return nak(nak_failed, "unframed memory read with padding that is not zero");
    const uint32_t length = get_be32(request, length_at);
    if (length == 0 || length > most)
        return nak(nak_bad_length, "unframed memory read for " + std::to_string(length) + " bytes");
    const auto data = memory_.read(get_be32(request, address_at), length);
    if (!data)
        return nak(nak_bad_address, "unframed memory read outside the regions");

    Bytes packet(request.begin(), request.end());
    packet.front() = reply_code;
    add(packet, *data);
    return {.packet = packet, .framed = false, .length_at = length_at, .length_size = 4};
}

} // namespace sim
