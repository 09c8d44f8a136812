#include "diag_port.h"

#include "text.h"

#include <algorithm>
#include <array>

namespace sim {

namespace {

// NV request and answer: code (1), item (2), value (128), status (2), always all of it.
namespace nv_packet {
constexpr uint8_t read_code = 0x26, write_code = 0x27;
constexpr size_t item_at = 1, value_at = 3, status_at = value_at + NvStore::value_size, size = status_at + 2;
} // namespace nv_packet

// An error answer is one of these codes and then the request.
constexpr uint8_t unknown_command = 0x13, bad_parameter = 0x14, bad_length = 0x15;

constexpr std::array<uint8_t, 4> sku_request{0x4B, 0x00, 0x44, 0x00};
constexpr uint8_t version_code = 0x00;

// Requests that are answered by an echo and then obeyed. A request that begins like a row, up to `key` bytes, but
// equals none is malformed.
struct Order {
    std::array<uint8_t, 6> bytes;
    size_t size;
    size_t key;
    Then then;

    [[nodiscard]] View whole() const { return View(bytes).first(size); }
    [[nodiscard]] bool begins(View request) const { return starts_with(request, View(bytes).first(key)); }
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

constexpr uint8_t dload_codes[] = {0x06, 0x07, 0x0A, 0x10, 0x12, 0x14};

} // namespace

Reply DiagPort::answer(View request)
{
    const uint8_t code = request.front();
    if (code == nv_packet::read_code || code == nv_packet::write_code)
        return nv_item(request);
    if (code == version_code)
        return version(request);
    if (ModemService::is_request(request))
        return service_.answer(request);
    if (starts_with(request, sku_request))
        return sku(request);

    const auto same = [&](const Order& order) { return std::ranges::equal(order.whole(), request); };
    if (const auto* order = std::ranges::find_if(orders, same); order != std::end(orders))
        return {.packet = Bytes(request.begin(), request.end()), .then = order->then};

    const auto of_same_length = [&](const Order& order) { return order.size == request.size(); };
    const auto begins = [&](const Order& order) { return order.begins(request); };
    if (std::ranges::any_of(orders, [&](const Order& order) { return begins(order) && of_same_length(order); }))
        return error(request, bad_parameter, "DIAG request with a wrong parameter");
    if (std::ranges::any_of(orders, begins))
        return error(request, bad_length, "DIAG request of a wrong length");
    if (std::ranges::find(dload_codes, code) != std::end(dload_codes))
        return error(request, unknown_command,
                     "DLOAD command " + hex(request.first(1)) + " to a modem that is not in DLOAD mode");
    return error(request, unknown_command, "unknown DIAG command " + hex(request, 4));
}

Reply DiagPort::answer_to_damaged_frame(FrameState)
{
    return {}; // DIAG has no answer to what it cannot read; the host's time-out tells
}

Bytes DiagPort::refusal(View request, uint8_t code) const
{
    if (request.size() == nv_packet::size &&
        (request.front() == nv_packet::read_code || request.front() == nv_packet::write_code)) {
        Bytes packet(request.begin(), request.begin() + nv_packet::status_at);
        add_le16(packet, code);
        return packet;
    }
    if (ModemService::is_request(request))
        return ModemService::refusal(request, code);
    return with_code(code, request);
}

Reply DiagPort::error(View request, uint8_t code, const std::string& complaint) const
{
    journal_.complain(complaint);
    return {.packet = with_code(code, request)};
}

Reply DiagPort::nv_item(View request) const
{
    using namespace nv_packet;
    if (request.size() != size)
        return error(request, bad_length, "NV request of " + std::to_string(request.size()) + " bytes");
    if (get_le16(request, status_at) != 0)
        return error(request, bad_parameter, "NV request with a status that is not zero");
    const uint16_t item = get_le16(request, item_at);
    const View given = request.subspan(value_at, NvStore::value_size);
    Bytes value(given.begin(), given.end());
    uint16_t status = nv_failed;
    if (request.front() == write_code) {
        status = nv_.write(item, given);
    } else {
        if (std::any_of(given.begin() + 1, given.end(), [](uint8_t byte) { return byte != 0; }))
            return error(request, bad_parameter, "NV read with data behind the index");
        status = nv_.read(item, value);
    }

    Bytes packet(request.begin(), request.begin() + value_at);
    add(packet, value);
    add_le16(packet, status);
    return {.packet = packet};
}

Reply DiagPort::version(View request) const
{
    if (request.size() != 1)
        return error(request, bad_length, "version request of a wrong length");
    return {.packet = with_code(version_code, bytes_of("Jan 01 202412:00:00Jan 01 202412:00:00VIRTUAL "))};
}

Reply DiagPort::sku(View request) const
{
    if (request.size() != sku_request.size())
        return error(request, bad_length, "SKU request of a wrong length");
    Bytes packet(request.begin(), request.end());
    add_le32(packet, sku_);
    return {.packet = packet};
}

} // namespace sim
