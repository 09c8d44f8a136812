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

// Memory write: code, address, length of the data (2), data. Start: code, and either an address (4) or the upper and
// the lower half of one; a modem with narrow addresses sees their low 24 bits.
struct MemoryWrite {
    uint8_t code;
    size_t length_at;
    uint32_t most; // bytes of data
};
constexpr MemoryWrite narrow_write{0x01, 4, 1056}, wide_write{0x0F, 5, 1056};
constexpr size_t write_address_at = 1, write_length_size = 2;
constexpr uint8_t go_code = 0x05;
constexpr size_t go_size = 5;
constexpr uint32_t narrow_addresses = 0xFFFFFF;
constexpr size_t largest_program = 16U << 20;

// What a program begins with, and one that the boot ROM starts too.
constexpr std::string_view program_mark = "NPRG", emergency_mark = "ENPRG";

class Dload : public Protocol {
public:
    Dload(const Memory& memory, DloadSettings settings, const Journal& journal)
        : memory_(memory), settings_(std::move(settings)), version_(settings_.version), journal_(journal)
    {
    }

    Reply answer(View request) override
    {
        for (const MemoryRead& kind : {framed_read, unframed_read})
            if (request.front() == kind.code && version_ >= kind.first_version && !settings_.boot_rom)
                return read(kind, request);
        if (request.front() == (settings_.wide_addresses ? wide_write : narrow_write).code)
            return write(request);
        if (request.front() == go_code)
            return go(request);
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
    Reply simple(uint8_t code)
    {
        switch (code) {
        case no_operation_code:
            return {.packet = {acknowledge_code}};
        case reset_code:
            return {.packet = {acknowledge_code}, .then = Then::reboot};
        case parameter_code:
            // Who asks this begins; what another one has written no longer counts.
            written_.clear();
            written_size_ = 0;
            // Then the lowest version spoken, the largest write (2), model, device size, device type.
            return {.packet = {parameter_reply_code, version_, 0x02, 0x04, 0x00, 0x00, 0x00, 0x00}};
        case table_code: {
            if (settings_.boot_rom)
                return {};
            const Bytes entries = memory_.table();
            Bytes packet{table_reply_code, byte_of(entries.size(), 8), byte_of(entries.size(), 0)};
            add(packet, entries);
            return {.packet = settings_.table_reply.value_or(packet), .length_at = 1, .length_size = 2};
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

    Reply write(View request)
    {
        const MemoryWrite& kind = settings_.wide_addresses ? wide_write : narrow_write;
        const size_t data_at = kind.length_at + write_length_size;
        if (request.size() <= data_at || request.size() > data_at + kind.most ||
            get_be16(request, kind.length_at) != request.size() - data_at)
            return nak(nak_bad_length, "memory write of a wrong length");
        const View data = request.subspan(data_at);
        if (written_size_ + data.size() > largest_program)
            return nak(nak_bad_address, "program that is too large");
        uint32_t address = 0;
        for (const uint8_t byte : request.subspan(write_address_at, kind.length_at - write_address_at))
            address = address << 8 | byte;
        written_.push_back({address, copy_of(data)});
        written_size_ += data.size();
        return {.packet = {acknowledge_code}};
    }

    // The program in one piece; else why there is none.
    std::string assemble(Bytes& program)
    {
        std::ranges::stable_sort(written_, {}, &Piece::address);
        for (const Piece& piece : written_) {
            const uint64_t next = uint64_t{written_.front().address} + program.size();
            if (piece.address != next)
                return "program with " + std::string(piece.address < next ? "an overlap" : "a gap") + " at " +
                       std::to_string(piece.address);
            add(program, piece.data);
        }
        return {};
    }

    Reply go(View request)
    {
        if (request.size() != go_size)
            return nak(nak_bad_length, "start of a wrong length");
        Bytes program;
        if (const std::string why = assemble(program); !why.empty())
            return nak(nak_failed, why);
        uint32_t start = get_be32(request, 1);
        if (!settings_.wide_addresses)
            start &= narrow_addresses;
        if (program.empty() || start < written_.front().address || start - written_.front().address >= program.size())
            return nak(nak_bad_address, "start outside the program");
        const bool is_emergency = starts_with(program, bytes_of(emergency_mark));
        if (!is_emergency && (settings_.boot_rom || !starts_with(program, bytes_of(program_mark))))
            return nak(nak_failed, settings_.boot_rom ? "start of a program that is no emergency programmer"
                                                      : "start of a program that is no flash programmer");
        write_file(settings_.image, program);
        return {.packet = {acknowledge_code}, .then = Then::start_programmer};
    }

    struct Piece {
        uint32_t address;
        Bytes data;
    };

    const Memory& memory_;
    DloadSettings settings_;
    uint8_t version_;
    const Journal& journal_;
    std::vector<Piece> written_; // in order of arrival
    size_t written_size_ = 0;
};

} // namespace

std::unique_ptr<Protocol> make_dload(const Memory& memory, DloadSettings settings, const Journal& journal)
{
    return std::make_unique<Dload>(memory, std::move(settings), journal);
}

} // namespace sim
