#include "crashdump/efs2_exchange.h"

#include "app/applet_log.h"
#include "crashdump/efs2_packets.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"

#include <array>
#include <atomic>
#include <mutex>

namespace {

// Hello and query tell of no file.
[[nodiscard]] bool is_greeting(uint16_t command)
{
    return command == hello_packet::command || command == query_packet::command;
}

// The replies that are still to come, by command. Nobody sends commands from `commands` on, and nothing is noted of
// them. Any thread.
class DueReplies {
public:
    // A request goes out.
    void expect(uint16_t command)
    {
        const std::lock_guard lock(mutex_);
        if (command < commands)
            ++due_[command];
    }

    // A reply has come, whether somebody waits for it or not. Where none is due it is a stray, but to a greeting only
    // where those were given up.
    void note(uint16_t command)
    {
        const std::lock_guard lock(mutex_);
        if (command >= commands)
            return;
        if (due_[command] != 0)
            --due_[command];
        else if (!is_greeting(command) || gave_up_)
            ++strays_;
    }

    [[nodiscard]] uint32_t due(uint16_t command) const
    {
        const std::lock_guard lock(mutex_);
        return command < commands ? due_[command] : 0;
    }

    // What was taken for a reply that was due shows to be another.
    void add_stray()
    {
        const std::lock_guard lock(mutex_);
        ++strays_;
    }

    // Those to a greeting seem to be lost. One that comes all the same was late, and so may be what came since.
    void give_up(uint16_t command)
    {
        const std::lock_guard lock(mutex_);
        if (command < commands)
            due_[command] = 0;
        gave_up_ = true;
    }
    void greet_anew()
    {
        const std::lock_guard lock(mutex_);
        gave_up_ = false;
    }
    // They came, or never will.
    void forget_all()
    {
        const std::lock_guard lock(mutex_);
        due_.fill(0);
    }

    [[nodiscard]] uint32_t strays() const
    {
        const std::lock_guard lock(mutex_);
        return strays_;
    }

private:
    static constexpr uint16_t commands = 64;

    mutable std::mutex mutex_;
    std::array<uint32_t, commands> due_{};
    bool gave_up_ = false;
    uint32_t strays_ = 0;
};

// What the modem's firmware was seen to do.
struct FirmwareHabits {
    bool greets = false;          // it has replied to a hello or query
    bool ignores_queries = false; // a query was without its reply when a later request had its own
    bool repeats_numbers = false; // a reply of its own to a transfer had the number of the request
};

DueReplies s_due;
FirmwareHabits s_firmware;
bool s_was_silent = true;               // the modem, at the last request, if that was not a mere close
std::atomic<bool> s_takes_last = false; // of several replies of a kind that are due

// The first four bytes of the request. A filter that a time-out overtook may still look at it while the next request is
// made.
std::atomic<uint32_t> s_efs2_req_header = 0;

// The number of a transfer whose reply must have it, for others are due; else beyond all.
constexpr uint32_t any_number = 0x10000;
std::atomic<uint32_t> s_number = any_number;

// Replies to transfers of item files have the number of their request.
[[nodiscard]] bool is_numbered(uint16_t command)
{
    return command == get_packet::command || command == put_packet::command;
}

// Of a numbered request.
[[nodiscard]] uint16_t number_of_request(std::span<const uint8_t> request)
{
    static_assert(get_packet::sequence_at == put_packet::sequence_at);
    return get_le16(request, get_packet::sequence_at);
}

// Of the reply to one.
[[nodiscard]] uint16_t number_of_reply(std::span<const uint8_t> packet)
{
    const bool is_put = get_le16(packet, efs2_packet::command_at) == put_packet::command;
    return get_le16(packet, is_put ? put_packet::reply_sequence_at : get_packet::sequence_at);
}

[[nodiscard]] bool is_close(uint16_t command)
{
    return command == close_packet::file_command || command == close_packet::directory_command;
}

// Takes note of every EFS2 reply, also while no request is waiting. Reader thread.
void efs2_observe(std::span<const uint8_t> packet)
{
    if (packet.size() >= efs2_packet::header_size && get_u8(packet, 0) == efs2_packet::code &&
        get_u8(packet, efs2_packet::subsystem_at) == efs2_packet::subsystem)
        s_due.note(get_le16(packet, efs2_packet::command_at));
}

// Takes the reply that begins as the request did. Reader thread.
int32_t efs2_callback(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    if (packet.size() < efs2_packet::header_size || get_le32(packet, 0) != s_efs2_req_header)
        return 1;
    if (const uint32_t number = s_number; number != any_number)
        return number == number_of_reply(packet) ? 0 : 1;
    return s_takes_last && s_due.due(get_le16(packet, efs2_packet::command_at)) != 0 ? 1 : 0;
}

// Whether the reply to `request`, which the exchange holds, has its number. A zero is no sign of that: others send it
// always.
[[nodiscard]] bool repeats_number(std::span<const uint8_t> request)
{
    if (!is_numbered(get_le16(request, efs2_packet::command_at)))
        return false;
    const uint16_t number = number_of_request(request);
    return number != 0 && number == number_of_reply({sResponseBuf, sResponseLen});
}

// The modem's own reply to `request` has come, which the exchange holds: those to earlier ones have come, or never
// will.
void learn_from_own_reply(std::span<const uint8_t> request)
{
    s_firmware.repeats_numbers = s_firmware.repeats_numbers || repeats_number(request);
    s_firmware.ignores_queries = s_firmware.ignores_queries || s_due.due(query_packet::command) != 0;
    s_due.forget_all();
}

// Sends `request`, and takes only the reply with this number, or any. Returns the exchange's result.
[[nodiscard]] int32_t exchange_numbered(std::span<const uint8_t> request, uint32_t number)
{
    s_efs2_req_header = get_le32(request, 0);
    s_number = number;
    SetRspObserver(efs2_observe);
    s_due.expect(get_le16(request, efs2_packet::command_at));
    return SendPktWithCallback(request, efs2_packet::code, efs2_callback);
}

// Sends `request` whatever is due, and learns from what comes. Returns the exchange's result.
[[nodiscard]] int32_t await_reply(std::span<const uint8_t> request)
{
    const uint16_t command = get_le16(request, efs2_packet::command_at);
    const uint32_t due = s_due.due(command);
    const bool tells_by_number = is_numbered(command) && s_firmware.repeats_numbers && due != 0;
    const int32_t result = exchange_numbered(request, tells_by_number ? number_of_request(request) : any_number);
    const bool answered = result == exchange_accepted;
    s_was_silent = !answered && !is_close(command);
    if (answered && is_greeting(command))
        s_firmware.greets = true;
    if (answered && (tells_by_number || s_due.due(command) == 0))
        learn_from_own_reply(request);
    if (!answered && tells_by_number && s_due.due(command) <= due)
        s_firmware.repeats_numbers = false; // it replied, perhaps with a number of its own
    return result;
}

// Whether the next reply to `command` may be one to an earlier request, and that matters.
[[nodiscard]] bool may_get_late_reply(uint16_t command)
{
    const bool tells_by_number = is_numbered(command) && s_firmware.repeats_numbers;
    return !is_greeting(command) && !is_close(command) && !tells_by_number && s_due.due(command) != 0;
}

// Waits for what the modem still had to say, which comes before its reply to a query or hello. Returns the exchange's
// result.
[[nodiscard]] int32_t let_late_replies_pass()
{
    std::array<uint8_t, hello_packet::request_size> request = {efs2_packet::code, efs2_packet::subsystem};
    if (!s_firmware.ignores_queries && s_due.due(query_packet::command) == 0) {
        put_le16(request, efs2_packet::command_at, query_packet::command);
        if (await_reply(std::span(request).first(query_packet::request_size)) == exchange_accepted)
            return exchange_accepted;
    }
    put_le16(request, efs2_packet::command_at, hello_packet::command);
    const uint32_t due = s_due.due(hello_packet::command);
    s_takes_last = true;
    int32_t result = await_reply(request);
    s_takes_last = false;
    // It replied to a hello, and then was silent: the others are lost.
    if (result != exchange_accepted && s_due.due(hello_packet::command) <= due) {
        s_due.give_up(hello_packet::command);
        result = await_reply(request);
    }
    return result;
}

} // namespace

int32_t efs2_exchange(std::span<const uint8_t> request)
{
    if (may_get_late_reply(get_le16(request, efs2_packet::command_at)))
        if (const int32_t result = let_late_replies_pass(); result != exchange_accepted)
            return result;
    return await_reply(request);
}

void efs2_forget_firmware()
{
    s_due.greet_anew();
    s_firmware = {};
}

bool efs2_repeats_numbers()
{
    return s_firmware.repeats_numbers;
}

uint32_t efs2_stray_replies()
{
    return s_due.strays();
}

void efs2_count_stray()
{
    s_due.add_stray();
}

bool efs2_await_strays()
{
    if (s_was_silent)
        return true;
    const KeepsRunningUnsent keeps_running; // the work is done
    if (let_late_replies_pass() == exchange_accepted)
        return true;
    if (s_firmware.greets)
        return false;
    log_warning("The modem answers neither query nor hello: an answer that is still on the way goes unnoticed");
    return true;
}
