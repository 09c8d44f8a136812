#include "crashdump/diag_request.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "platform/progress.h"

#include <algorithm>
#include <cstdio>

namespace {

// First byte of a packet, and what it means.
struct ResponseText {
    uint8_t code;
    const char* text;
};

// Replies that refuse the request; the exchange ends with them.
constexpr ResponseText diag_err_rsp_msg[] = {
    {0x13, "Invalid Command Response"},
    {0x14, "Invalid parmaeter Response"},
    {0x15, "Invalid packet length Response"},
    {0x18, "Packet not allowed in this mode"},
    {0x42, "Invalid nv_read/write because SP is locked"},
    {0x47, "An operation was attempted which required"},
};

// What the modem may send unasked while a request waits; skipped, shown with -v.
constexpr ResponseText diag_ignore_rsp_msg[] = {
    {0x1F, "MSG:"}, {0x60, "EVENT:"}, {0x79, "EXT MSG:"}, {0x7E, "EXT MSG TERSE:"}, {0x92, "QSR EXT MSG TERSE:"},
    {0x10, "LOG:"},
};

uint8_t s_cmd_rsp = 0; // the code of the answer that the current request waits for

const char* text_of(std::span<const ResponseText> table, uint8_t code)
{
    const auto row = std::ranges::find(table, code, &ResponseText::code);
    return row == table.end() ? nullptr : row->text;
}

} // namespace

int32_t send_diag_request(std::span<const uint8_t> request, ResponseBuffer& response)
{
    s_cmd_rsp = request.front();
    response.length = 0;
    const int32_t result = send_pkt_with_callback(request, s_cmd_rsp, diag_callback, &response);
    clear_last_response();
    return result;
}

int32_t diag_callback(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    constexpr size_t shown = 32;
    if (packet.empty())
        return 1;
    if (packet.front() == s_cmd_rsp || parse_bad_rsp(packet) != 0)
        return 0;
    if (process_ignore_rsp(packet) != 0)
        return 1;
    log_error("Received sth else");
    PrintHex(packet.first(std::min(packet.size(), shown)));
    return 1;
}

int32_t parse_bad_rsp(std::span<const uint8_t> packet)
{
    const char* text = packet.empty() ? nullptr : text_of(diag_err_rsp_msg, packet.front());
    if (text == nullptr)
        return 0;
    hide_progress();
    (void)puts(text);
    print_abstract(packet);
    return 1;
}

int32_t process_ignore_rsp(std::span<const uint8_t> packet)
{
    const char* label = packet.empty() ? nullptr : text_of(diag_ignore_rsp_msg, packet.front());
    if (label == nullptr)
        return 0;
    if (s_verbose != 0) {
        hide_progress();
        (void)printf("%s ", label);
        print_abstract(packet);
    }
    return 1;
}

void print_abstract(std::span<const uint8_t> packet)
{
    constexpr size_t shown = 4;
    for (const uint8_t byte : packet.first(std::min(packet.size(), shown)))
        (void)printf("%02X ", byte);
    if (packet.size() > shown)
        (void)printf("......, len=%d", static_cast<int>(packet.size()));
    (void)putchar('\n');
}
