#include "protocol.h"

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

constexpr uint8_t no_operation_code = 0x06, parameter_code = 0x07, reset_code = 0x0A, table_code = 0x10;
constexpr uint8_t acknowledge_code = 0x02, parameter_reply_code = 0x08, table_reply_code = 0x11;
constexpr uint8_t diag_reset[] = {0x29, 0x02, 0x00};

// Memory read, request: code, padding, address (4), length. The reply is the same with its own code, then the data; of
// an unframed read all of that outside any frame.
struct MemoryRead {
    uint8_t code, reply_code, first_version;
    size_t padding, length_at, length_size, request_size;
    uint32_t most; // bytes of data; with the header, an unframed reply fills the 4096-byte buffer of a host
};
constexpr MemoryRead framed_read{0x12, 0x13, 0, 0, 5, 2, 7, 2000};
constexpr MemoryRead unframed_read{0x14, 0x15, 7, 3, 8, 4, 12, 4084};

class Dload : public Protocol {
public:
    Dload(const Memory& memory, uint8_t version, std::optional<Bytes> table_reply, const Journal& journal)
        : memory_(memory), version_(version), table_reply_(std::move(table_reply)), journal_(journal)
    {
    }

    Reply answer(View request) override
    {
        for (const MemoryRead& kind : {framed_read, unframed_read})
            if (request.front() == kind.code && version_ >= kind.first_version)
                return read(kind, request);
        if (std::ranges::equal(request, diag_reset))
            return {.packet = copy_of(request), .then = Then::reboot};

        Reply reply = simple(request.front());
        if (reply.packet.empty())
            return nak(nak_unknown_command, "command " + hex(request.first(1)) + " to a modem in DLOAD mode");
        if (request.size() != 1)
            return nak(nak_bad_length, "DLOAD command " + hex(request.first(1)) + " of a wrong length");
        return reply;
    }

    Reply answer_to_damaged_frame(FrameState state) override
    {
        if (state == FrameState::too_long)
            return {.packet = nak_packet(nak_too_large)};
        return {.packet = nak_packet(state == FrameState::aborted ? nak_cut_short : nak_bad_fcs)};
    }

    Bytes refusal(View, uint32_t code) const override { return nak_packet(byte_of(code, 0)); }

private:
    Reply nak(uint8_t reason, const std::string& complaint) const
    {
        journal_.complain(complaint);
        return {.packet = nak_packet(reason)};
    }

    // Requests that are a code and nothing else.
    Reply simple(uint8_t code) const
    {
        switch (code) {
        case no_operation_code:
            return {.packet = {acknowledge_code}};
        case reset_code:
            return {.packet = {acknowledge_code}, .then = Then::reboot};
        case parameter_code:
            // Then the lowest version spoken, the largest write (2), model, device size, device type.
            return {.packet = {parameter_reply_code, version_, 0x02, 0x04, 0x00, 0x00, 0x00, 0x00}};
        case table_code: {
            const Bytes entries = memory_.table();
            Bytes packet{table_reply_code, byte_of(entries.size(), 8), byte_of(entries.size(), 0)};
            add(packet, entries);
            return {.packet = table_reply_.value_or(packet), .length_at = 1, .length_size = 2};
        }
        default:
            return {};
        }
    }

    Reply read(const MemoryRead& kind, View request) const
    {
        if (request.size() != kind.request_size)
            return nak(nak_bad_length, "memory read of a wrong length");
        if (std::ranges::any_of(request.subspan(1, kind.padding), [](uint8_t byte) { return byte != 0; }))
            return nak(nak_failed, "memory read with padding that is not zero");
        const uint32_t length =
            kind.length_size == 2 ? get_be16(request, kind.length_at) : get_be32(request, kind.length_at);
        if (length == 0 || length > kind.most)
            return nak(nak_bad_length, "memory read for " + std::to_string(length) + " bytes");
        const auto data = memory_.read(get_be32(request, 1 + kind.padding), length);
        if (!data)
            return nak(nak_bad_address, "memory read outside the regions");

        Bytes packet = with_code(kind.reply_code, request.subspan(1));
        add(packet, *data);
        return {packet, Then::stay, kind.code == framed_read.code, kind.length_at, kind.length_size};
    }

    const Memory& memory_;
    uint8_t version_;
    std::optional<Bytes> table_reply_;
    const Journal& journal_;
};

} // namespace

std::unique_ptr<Protocol> make_dload(const Memory& memory, uint8_t version, std::optional<Bytes> table_reply,
                                     const Journal& journal)
{
    return std::make_unique<Dload>(memory, version, std::move(table_reply), journal);
}

} // namespace sim
