#include "efs2.h"

namespace sim {

namespace {

// NV request and answer: code (1), item (2), value (128), status (2), always all of it.
namespace nv_packet {
constexpr uint8_t read_code = 0x26, write_code = 0x27;
constexpr size_t item_at = 1, value_at = 3, status_at = value_at + NvStore::value_size, size = status_at + 2;
} // namespace nv_packet

// Service programming code: 41 and six digits. Answer: 41 and whether it is the right one. A request that would have
// needed it comes back behind 42.
namespace spc_packet {
constexpr uint8_t code = 0x41, needed_code = 0x42;
constexpr size_t digits_at = 1, size = 7;
} // namespace spc_packet

constexpr uint8_t sku_request[] = {0x4B, 0x00, 0x44, 0x00}; // the answer has the SKU behind it
constexpr uint8_t version_code = 0x00;
// The modem's clock; the answer has 8 bytes of time behind the code.
constexpr uint8_t clock_code = 0x1D;
constexpr uint8_t dload_codes[] = {0x01, 0x05, 0x06, 0x07, 0x0A, 0x0F, 0x10, 0x12, 0x14};

constexpr uint8_t fastboot_service[] = {0x4B, 0x00, 0x50, 0x00};

// Requests that are answered by an echo and then obeyed. A request that begins like a row, up to `key` bytes, but
// equals none is malformed.
struct Order {
    uint8_t bytes[6];
    size_t size;
    size_t key;
    Then then;
};

constexpr Order orders[] = {
    {{0x3A}, 1, 1, Then::crash},
    {{0x29, 0x00, 0x00}, 3, 1, Then::go_offline},
    {{0x29, 0x02, 0x00}, 3, 1, Then::reboot},
    {{0x4B, 0x25, 0x03, 0x00}, 4, 4, Then::crash},
    {{0x4B, 0x25, 0x0A, 0x00, 0x00, 0x00}, 6, 4, Then::crash},
    {{0x4B, 0x00, 0x50, 0x00}, 4, 4, Then::enter_fastboot},
    {{0x4B, 0x00, 0x31, 0x00, 0x02}, 5, 4, Then::stay},
};

bool is_nv_code(uint8_t code)
{
    return code == nv_packet::read_code || code == nv_packet::write_code;
}

class Diag : public Protocol {
public:
    Diag(const NvStore& nv, std::unique_ptr<Protocol> service, std::unique_ptr<Protocol> files, uint32_t sku,
         std::string spc, bool knows_fastboot, const Journal& journal)
        : nv_(nv), service_(std::move(service)), files_(std::move(files)), sku_(sku), spc_(std::move(spc)),
          knows_fastboot_(knows_fastboot), journal_(journal)
    {
    }

    Reply answer(View request) override
    {
        const uint8_t code = request.front();
        if (is_nv_code(code))
            return nv_item(request);
        if (Protocol* part = part_for(request))
            return part->answer(request);
        if (code == spc_packet::code)
            return programming_code(request);
        if (code == version_code && request.size() == 1)
            return {.packet = with_code(version_code, bytes_of("Jan 01 202412:00:00Jan 01 202412:00:00VIRTUAL "))};
        if (code == clock_code && request.size() == 1)
            return {.packet = {clock_code, 0x00, 0x00, 0x40, 0x0B, 0xE1, 0x92, 0xD8, 0x00}};
        if (std::ranges::equal(request, sku_request)) {
            Bytes packet = copy_of(request);
            add_le32(packet, sku_);
            return {.packet = packet};
        }
        return order(request);
    }

    Bytes refusal(View request, uint32_t code) const override
    {
        if (const Protocol* part = part_for(request))
            return part->refusal(request, code);
        if (request.size() != nv_packet::size || !is_nv_code(request.front()))
            return with_code(byte_of(code, 0), request);
        Bytes packet = copy_of(request.first(nv_packet::status_at));
        add_le16(packet, code);
        return packet;
    }

private:
    Protocol* part_for(View request) const
    {
        if (starts_with(request, service_header))
            return service_.get();
        return starts_with(request, efs2_header) ? files_.get() : nullptr;
    }

    Reply error(View request, uint8_t code, const std::string& complaint) const
    {
        journal_.complain(complaint);
        return {.packet = with_code(code, request)};
    }

    Reply order(View request) const
    {
        bool begins =
                 request.front() == version_code || request.front() == clock_code || starts_with(request, sku_request),
             fits = false;
        for (const Order& row : orders) {
            if (row.then == Then::enter_fastboot && !knows_fastboot_)
                continue;
            if (std::ranges::equal(View(row.bytes).first(row.size), request))
                return {.packet = copy_of(request), .then = row.then};
            if (!starts_with(request, View(row.bytes).first(row.key)))
                continue;
            begins = true;
            fits = fits || row.size == request.size();
        }
        if (!knows_fastboot_ && starts_with(request, fastboot_service))
            return {.packet = with_code(unknown_command, request)};
        if (begins)
            return error(request, fits ? bad_parameter : bad_length, "malformed DIAG request " + hex(request));
        if (std::ranges::find(dload_codes, request.front()) != std::end(dload_codes))
            return error(request, unknown_command, "DLOAD command to a modem that is not in DLOAD mode");
        return error(request, unknown_command, "unknown DIAG command");
    }

    Reply programming_code(View request)
    {
        const View digits = request.subspan(spc_packet::digits_at);
        if (request.size() != spc_packet::size)
            return error(request, bad_length, "service programming code of a wrong length");
        if (!std::ranges::all_of(digits, [](uint8_t digit) { return digit >= '0' && digit <= '9'; }))
            return error(request, bad_parameter, "service programming code that is not of digits");
        const bool right = text_of(digits) == spc_;
        unlocked_ = unlocked_ || right;
        if (!right)
            journal_.complain("wrong service programming code");
        return {.packet = {spc_packet::code, static_cast<uint8_t>(right)}};
    }

    Reply nv_item(View request) const
    {
        using namespace nv_packet;
        if (request.size() != size)
            return error(request, bad_length, "NV request of " + std::to_string(request.size()) + " bytes");
        const bool writes = request.front() == write_code;
        const View given = request.subspan(value_at, NvStore::value_size);
        // Only the index says anything in the value of a read.
        const bool clean = std::ranges::all_of(given.subspan(1), [](uint8_t byte) { return byte == 0; });
        if (get_le16(request, status_at) != 0 || (!writes && !clean))
            return error(request, bad_parameter, "NV request with padding that is not zero");

        const uint16_t item = get_le16(request, item_at);
        if (writes && !unlocked_ && nv_.is_protected(item))
            return {.packet = with_code(spc_packet::needed_code, request)};
        Bytes value = copy_of(given);
        const uint16_t status = writes ? nv_.write(item, value) : nv_.read(item, value);
        Bytes packet = copy_of(request.first(value_at));
        add(packet, value);
        add_le16(packet, status);
        return {.packet = packet};
    }

    const NvStore& nv_;
    std::unique_ptr<Protocol> service_;
    std::unique_ptr<Protocol> files_;
    uint32_t sku_;
    std::string spc_;
    bool knows_fastboot_;
    const Journal& journal_;
    bool unlocked_ = false; // until the modem resets
};

} // namespace

std::unique_ptr<Protocol> make_diag(const NvStore& nv, std::unique_ptr<Protocol> service,
                                    std::unique_ptr<Protocol> files, uint32_t sku, std::string spc, bool knows_fastboot,
                                    const Journal& journal)
{
    return std::make_unique<Diag>(nv, std::move(service), std::move(files), sku, std::move(spc), knows_fastboot,
                                  journal);
}

} // namespace sim
