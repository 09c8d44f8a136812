#include "crashdump/nv_item.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/diag_request.h"
#include "diag/packet_fields.h"

#include <cstdio>
#include <iterator>
#include <string>

namespace {

// Indexed by the status of an NV response.
constexpr const char* nv_stat_msg[] = {
    "Request was completed.",
    "Request is queued.",
    "Unrecognizable command field.",
    "NVM is full.",
    "Command failed for a reason other than NVM full.",
    "Variable was not active.",
    "Bad parameter in the command block.",
    "Parameter is write-protected and thus read-only.",
    "Item is not valid for this target.",
    "Free memory has been exhausted.",
    "Address is not a valid allocation.",
};
static_assert(std::size(nv_stat_msg) == 11);

// Sends `request` and shows what comes back. False when nothing did.
bool exchange_nv(const NvPacket& request)
{
    NvPacket bytes{};
    ResponseBuffer response = {static_cast<uint32_t>(bytes.size()), 0, bytes.data()};
    if (send_diag_request(request, response) != 0)
        return false;

    const auto packet = std::span(bytes).first(response.length);
    (void)puts("Response:");
    if (!packet.empty())
        PrintHex(packet);
    // An error reply is shorter than the status, which then reads as zero.
    if (packet.size() < bytes.size())
        log_warning("NV response is cut: %zu bytes", packet.size());
    const uint16_t status = get_le16(packet, nv_packet::status_at);
    log_info("status=0x%04x", status);
    display_nv_rdwr_status(status);
    return true;
}

} // namespace

void nvitem_read(uint32_t item, uint32_t index)
{
    log_info("Read NV item: %d, index=%d", static_cast<int>(item), static_cast<int>(index));
    NvPacket request{nv_packet::read_code};
    put_le16(request, nv_packet::item_at, static_cast<uint16_t>(item));
    put_u8(request, nv_packet::data_at, static_cast<uint8_t>(index));
    (void)exchange_nv(request); // a read that fails says nothing
}

void nvitem_write(NvPacket& packet)
{
    log_info("Write NV item: %d", get_le16(packet, nv_packet::item_at));
    put_u8(packet, 0, nv_packet::write_code);
    if (!exchange_nv(packet))
        log_error("Doesn't receive the NV response\n");
}

const char* nv_status_text(uint16_t status)
{
    return status < std::size(nv_stat_msg) ? nv_stat_msg[status] : nullptr;
}

void display_nv_rdwr_status(uint16_t status)
{
    if (const char* text = nv_status_text(status))
        log_warning("%s", text);
    else
        log_warning("Unknown status: %d", status);
}

int32_t nv_parse(NvPacket& packet, std::string_view text)
{
    packet.fill(0);
    const std::string_view item = next_token(text, ":");
    put_le16(packet, nv_packet::item_at, static_cast<uint16_t>(text_to_int(std::string(item))));
    if (!text.empty())
        text.remove_prefix(1); // only the first colon separates

    size_t count = 0;
    for (auto value = next_token(text, ","); !value.empty(); value = next_token(text, ",")) {
        if (count == nv_packet::data_size) {
            log_error("Too many data bytes for an NV item (more than %d)", static_cast<int>(nv_packet::data_size));
            return 0;
        }
        put_u8(packet, nv_packet::data_at + count++, static_cast<uint8_t>(text_to_int(std::string(value))));
    }
    if (count == 0)
        log_error("No data bytes for an NV item");
    return static_cast<int32_t>(count);
}
