// Both sides of the exchange, in all forms: the response is the packet that was taken, and nothing else is.
#include "crashdump/diag_request.h"
#include "diag/exchange.h"
#include "tests/fuzz/modem.h"

#include <algorithm>

namespace {

constexpr uint8_t nak = 0x03;

uint8_t s_taken_by_filter = 0;
Bytes s_last; // what the modem said last

int32_t takes(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    return packet.size() > 1 && packet[1] == s_taken_by_filter ? 0 : 1;
}

// What the modem said and the product may have kept of it.
Bytes kept(size_t room)
{
    return {s_last.begin(), s_last.begin() + static_cast<ptrdiff_t>(std::min(room, s_last.size()))};
}

void crashdump_plain(const Bytes& request, uint8_t code)
{
    int32_t result = exchange_no_response;
    try {
        result = send_pkt_with_rsp(request, code);
        require(result == exchange_accepted || s_exit_on_timeout == 0, "silence ends the process");
    } catch (const ProcessEnd& end) {
        require(end.status == 34 && s_exit_on_timeout != 0, "silence ends the process with its status");
    }
    const auto response = last_response();
    require((result == exchange_accepted) == !response.empty(), "a response was accepted, or there is none");
    if (response.empty())
        return;
    require(response.front() == code || response.front() == nak, "the response has the code");
    uint16_t reason = 0;
    require((get_error_code(reason) != 0) == (response.front() == nak), "a refusal is told from an answer");
}

void crashdump_filtered(const Bytes& request, uint8_t code, size_t room)
{
    Bytes copy(room);
    ResponseBuffer buffer = {static_cast<uint32_t>(room), 0, copy.data()};
    const int32_t result = send_pkt_with_callback(request, code, takes, &buffer);
    require(buffer.length <= room, "a copy fits its room");
    copy.resize(buffer.length);
    if (result == exchange_accepted && room != 0)
        require(copy == kept(std::min<size_t>(room, pktio_buffer_size)), "the copy is of the packet taken");
    else
        require(copy.empty(), "nothing is copied of what was not taken");
}

void update(const Bytes& request, uint8_t code, bool filtered)
{
    const int32_t result = filtered ? SendPktWithCallback(request, code, takes) : SendPktAndWait(request, code);
    const int32_t silence = ExitOnTimeout != 0 ? exchange_timed_out : exchange_no_response;
    require(result == exchange_accepted || result == silence, "an exchange is answered or not");
    require((result == exchange_accepted) == (sResponseLen != 0), "a response was accepted, or there is none");
    if (result == exchange_accepted)
        require(filtered ? s_last.at(1) == s_taken_by_filter : s_last.at(0) == code, "the response is the awaited one");
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t form = input.u8();
    const uint8_t code = input.u8();
    const size_t room = input.u16();
    s_taken_by_filter = code;
    s_last.clear();
    const bool is_crashdump = form % 2 == 0, is_filtered = form / 2 % 2 != 0;

    Modem modem = modem_of(input);
    connect(is_crashdump ? rcv_handle_packet : prv_handle_packet, [&](std::span<const uint8_t> request) {
        auto said = modem(request);
        s_last = said.value_or(Bytes{});
        return said;
    });
    s_verbose = form >> 2 & 1;
    SetUpdateVerbose(form >> 2 & 1);
    g_factory_mode = form >> 3 & 1;
    s_exit_on_timeout = form >> 4 & 1;
    ExitOnTimeout = form >> 4 & 1;

    const Bytes request = {code};
    for (int requests = 0; requests < 4 && !input.empty(); ++requests) {
        if (!is_crashdump)
            update(request, code, is_filtered);
        else if (is_filtered)
            crashdump_filtered(request, code, room);
        else
            crashdump_plain(request, code);
        const auto response = is_crashdump ? last_response() : std::span<const uint8_t>(sResponseBuf, sResponseLen);
        if (!response.empty())
            require(std::ranges::equal(response, kept(pktio_buffer_size)), "the response is the packet taken");
        dump_buf(response);
        if (is_crashdump)
            clear_last_response();
    }
}
