#include "diag/exchange.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "platform/os.h"
#include "platform/progress.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

namespace {

constexpr auto response_time = std::chrono::seconds(5);

// DLOAD refusal: 0x03, reason (2). Big-endian.
namespace nak {
constexpr uint8_t code = 0x03;
constexpr size_t reason_at = 1;
} // namespace nak

struct ErrorReason {
    uint16_t code;
    const char* text;
};

constexpr ErrorReason s_err_reasons[] = {
    {0x01, "Invalid frame FCS"},
    {0x02, "Invalid destination address"},
    {0x03, "Invalid length"},
    {0x04, "Unexpected end of packet"},
    {0x05, "Data too large for buffer"},
    {0x06, "Unknown/invalid command"},
    {0x07, "Operation failed"},
    {0x08, "Wrong Flash intelligent ID"},
    {0x09, "Bad programming voltage"},
    {0x0A, "Write-verify failed"},
    {0x0B, "Not permitted without unlock"},
    {0x0C, "Incorrect security code"},
    {0x0D, "Cannot power down phone"},
    {0x0E, "Operation not permitted at this time"},
    {0x0F, "Invalid read address"},
};
static_assert(std::size(s_err_reasons) == 15);
static_assert(std::ranges::all_of(s_err_reasons,
                                  [](const ErrorReason& row) { return std::string_view(row.text).size() < 40; }));

// How the two sides differ.
struct Rules {
    bool accepts_nak;            // a NAK answers any plain request
    bool mismatch_is_logged;     // a foreign packet is a WARNING; else it is printed, and only with verbose
    bool timeout_ends_plain;     // a time-out of the plain form ends the process with 34; else the caller gets 71
    int plain_send_failed;       // exit status when a plain request cannot be sent
    int filtered_send_failed;    // exit status when a request with a filter cannot be sent
    bool plain_clock_after_send; // a plain request's five seconds begin after the send, not before it
};

constexpr Rules crashdump_rules = {
    .accepts_nak = true,
    .mismatch_is_logged = false,
    .timeout_ends_plain = true,
    .plain_send_failed = 4,
    .filtered_send_failed = 69,
    .plain_clock_after_send = true,
};

constexpr Rules update_rules = {
    .accepts_nak = false,
    .mismatch_is_logged = true,
    .timeout_ends_plain = false,
    .plain_send_failed = 69,
    .filtered_send_failed = 69,
    .plain_clock_after_send = false,
};

constexpr int status_plain_timeout = 34;

uint32_t s_unanswered_requests = 0;

// One side as the machine sees it. What is not constant is guarded by the mutex; the response is the main thread's
// alone while nothing is outstanding.
struct Side {
    const Rules& rules;
    std::mutex& mutex;
    std::condition_variable& cond;
    const uint8_t*& expected_code; // null while no request is outstanding
    uint32_t& requests;            // sent so far: tells a late response's request from the next one
    RspFilter& filter;
    ResponseBuffer*& copy_to;
    uint8_t*& response; // into `storage`, null before the first response
    uint32_t& response_length;
    const int32_t& exit_on_timeout;
    const bool& ends_unsent; // a request that cannot be sent ends the process
    const int32_t& verbose;
    std::array<uint8_t, pktio_buffer_size>& storage;
    const std::atomic<RspObserver>& observer;
};

// Crash-dump side.
std::mutex s_rw_mutex;
std::condition_variable s_rw_cond;
const uint8_t* s_expected_rsp_code = nullptr;
uint32_t s_requests = 0;
RspFilter sf_rsp_callback = nullptr;
ResponseBuffer* s_response_buf = nullptr;
const bool s_ends_unsent = true;
std::atomic<RspObserver> s_no_observer = nullptr;
std::array<uint8_t, pktio_buffer_size> s_response_bytes;

// Update side.
std::mutex RwMutex;
std::condition_variable RwCond;
const uint8_t* sExpectedRspCode = nullptr;
uint32_t sRequests = 0;
RspFilter sRspCallback = nullptr;
ResponseBuffer* sNoCopy = nullptr; // this side hands its responses over in sResponseBuf alone
bool sEndsUnsent = true;
std::atomic<RspObserver> sRspObserver = nullptr;
int32_t sVerbose = 0;
std::array<uint8_t, pktio_buffer_size> sResponseBytes;

} // namespace

int32_t s_verbose = 0;
int32_t s_exit_on_timeout = 1;
uint8_t* sp_decoded_pkt_buf = nullptr;
uint32_t s_response_len = 0;

int32_t ExitOnTimeout = 1;
int32_t g_factory_mode = 0;
uint8_t* sResponseBuf = nullptr;
uint32_t sResponseLen = 0;

namespace {

constexpr Side crashdump_side = {
    .rules = crashdump_rules,
    .mutex = s_rw_mutex,
    .cond = s_rw_cond,
    .expected_code = s_expected_rsp_code,
    .requests = s_requests,
    .filter = sf_rsp_callback,
    .copy_to = s_response_buf,
    .response = sp_decoded_pkt_buf,
    .response_length = s_response_len,
    .exit_on_timeout = s_exit_on_timeout,
    .ends_unsent = s_ends_unsent,
    .verbose = s_verbose,
    .storage = s_response_bytes,
    .observer = s_no_observer,
};

constexpr Side update_side = {
    .rules = update_rules,
    .mutex = RwMutex,
    .cond = RwCond,
    .expected_code = sExpectedRspCode,
    .requests = sRequests,
    .filter = sRspCallback,
    .copy_to = sNoCopy,
    .response = sResponseBuf,
    .response_length = sResponseLen,
    .exit_on_timeout = ExitOnTimeout,
    .ends_unsent = sEndsUnsent,
    .verbose = sVerbose,
    .storage = sResponseBytes,
    .observer = sRspObserver,
};

// ---- main thread ----

enum class Form { plain, filtered };

// False with an ERROR when that fails and the process goes on.
bool send_or_end(const Side& side, Form form, std::span<const uint8_t> request)
{
    if (pktio_send_packet(request) == 0)
        return true;
    log_error("Error in pktio_send_packet()");
    if (side.ends_unsent)
        end_process(form == Form::plain ? side.rules.plain_send_failed : side.rules.filtered_send_failed);
    return false;
}

// Not the time of day: a tablet that learns it from the network sets its clock while requests are out.
using Clock = std::chrono::steady_clock;

// Waits for the response, at most until `deadline`. Whether it came. A process that was stopped meanwhile, or had no
// turn on a busy tablet, gets here behind the deadline, while what came in time may still be in the port.
bool await_response(const Side& side, std::unique_lock<std::mutex>& lock, Clock::time_point deadline)
{
    constexpr auto overslept = std::chrono::milliseconds(20);
    constexpr auto more = std::chrono::milliseconds(500);
    const auto has_come = [&side] { return side.expected_code == nullptr; };
    if (side.cond.wait_until(lock, deadline, has_come))
        return true;
    const auto now = Clock::now();
    return now >= deadline + overslept && side.cond.wait_until(lock, now + more, has_come);
}

// What comes of a request without a response.
int32_t unanswered(const Side& side, Form form, bool sent)
{
    ++s_unanswered_requests;
    if (!sent)
        return exchange_no_response;
    log_error("Timeout!");
    if (side.exit_on_timeout == 0)
        return exchange_no_response;
    if (form == Form::plain && side.rules.timeout_ends_plain)
        end_process(status_plain_timeout);
    return exchange_timed_out;
}

// One request and its response. A filter or a copy that the caller wants stands in the side already.
int32_t exchange(const Side& side, Form form, std::span<const uint8_t> request, const uint8_t& expected_code)
{
    if (side.verbose != 0)
        PrintHex(request);

    auto deadline = Clock::now() + response_time;
    {
        const std::lock_guard lock(side.mutex);
        side.response_length = 0;
        side.expected_code = &expected_code;
        ++side.requests;
    }
    const bool sent = send_or_end(side, form, request);
    if (form == Form::plain && side.rules.plain_clock_after_send)
        deadline = Clock::now() + response_time;

    std::unique_lock lock(side.mutex);
    const bool accepted = sent && await_response(side, lock, deadline);
    side.expected_code = nullptr;
    lock.unlock();
    return accepted ? exchange_accepted : unanswered(side, form, sent);
}

// Puts a filter and a place for the response into the side for the time of one exchange.
int32_t filtered_exchange(const Side& side, std::span<const uint8_t> request, const uint8_t& expected_code,
                          RspFilter filter, ResponseBuffer* copy_to)
{
    {
        const std::lock_guard lock(side.mutex);
        side.filter = filter;
        side.copy_to = copy_to;
    }
    const int32_t result = exchange(side, Form::filtered, request, expected_code);
    const std::lock_guard lock(side.mutex);
    side.filter = nullptr;
    side.copy_to = nullptr;
    return result;
}

// ---- reader thread ----

void report_mismatch(const Side& side, uint8_t expected_code, std::span<const uint8_t> packet)
{
    if (side.rules.mismatch_is_logged) {
        if (g_factory_mode == 0)
            log_warning("Expected rsp: 0x%02x, received: 0x%02x ", expected_code, packet.front());
        if (side.verbose == 0)
            return;
        log_warning("Received: ");
    } else {
        if (side.verbose == 0)
            return;
        hide_progress();
        (void)printf("Expected: 0x%02x\n", expected_code);
        (void)puts("Received:");
    }
    PrintHex(packet);
}

// Whether `packet` is what a request without a filter waits for.
bool is_expected(const Side& side, uint8_t expected_code, std::span<const uint8_t> packet)
{
    if (packet.empty())
        return false;
    if (packet.front() == expected_code || (side.rules.accepts_nak && packet.front() == nak::code))
        return true;
    report_mismatch(side, expected_code, packet);
    return false;
}

void show_accepted(const Side& side, std::span<const uint8_t> packet)
{
    if (side.verbose != 0) {
        hide_progress();
        (void)puts("<<<<<<<<<< RX <<<<<<<<<<<");
        PrintHex(packet);
        (void)puts("<<<<<<<<<< end of RX <<<<<<<<");
    }
    if (side.rules.mismatch_is_logged && g_factory_mode != 0)
        PrintHex(packet);
}

void publish(const Side& side, std::span<const uint8_t> packet)
{
    const size_t length = std::min(packet.size(), side.storage.size());
    std::copy_n(packet.begin(), length, side.storage.begin());
    side.response = side.storage.data();
    side.response_length = static_cast<uint32_t>(length);

    if (side.copy_to != nullptr && side.copy_to->capacity != 0) {
        side.copy_to->length = std::min(side.response_length, side.copy_to->capacity);
        std::copy_n(packet.begin(), side.copy_to->length, side.copy_to->data);
    }
}

void receive(const Side& side, std::span<const uint8_t> packet, uintptr_t user_data)
{
    std::unique_lock lock(side.mutex);
    const bool is_awaited = side.expected_code != nullptr;
    const uint8_t expected_code = is_awaited ? *side.expected_code : 0;
    const uint32_t request = side.requests;
    const RspFilter filter = side.filter;
    lock.unlock();

    // Behind the look at the request: what is noted as a response to one must not be taken for that to the next.
    if (const RspObserver observer = side.observer)
        observer(packet);
    if (!is_awaited)
        return;
    const bool accepted = filter != nullptr ? filter(packet, user_data) == 0 : is_expected(side, expected_code, packet);
    if (!accepted)
        return;
    show_accepted(side, packet);

    // The request may have timed out meanwhile.
    lock.lock();
    if (side.expected_code == nullptr || side.requests != request)
        return;
    publish(side, packet);
    side.expected_code = nullptr;
    lock.unlock(); // or the woken thread would at once wait again, for the lock
    side.cond.notify_one();
}

} // namespace

uint32_t unanswered_requests()
{
    return s_unanswered_requests;
}

int32_t send_pkt_with_rsp(std::span<const uint8_t> request, uint8_t expected_code)
{
    const int32_t result = exchange(crashdump_side, Form::plain, request, expected_code);
    uint16_t reason = 0;
    if (result == exchange_accepted)
        (void)get_error_code(reason); // for its log line
    return result;
}

int32_t send_pkt_with_callback(std::span<const uint8_t> request, uint8_t expected_code, RspFilter filter,
                               ResponseBuffer* response)
{
    return filtered_exchange(crashdump_side, request, expected_code, filter, response);
}

void rcv_handle_packet(std::span<const uint8_t> packet, uintptr_t user_data)
{
    receive(crashdump_side, packet, user_data);
}

std::span<const uint8_t> last_response()
{
    if (sp_decoded_pkt_buf == nullptr)
        return {};
    return {sp_decoded_pkt_buf, s_response_len};
}

void clear_last_response()
{
    constexpr size_t cleared = 16;
    if (sp_decoded_pkt_buf != nullptr)
        std::fill_n(sp_decoded_pkt_buf, cleared, uint8_t{0});
}

int32_t get_error_code(uint16_t& reason)
{
    const auto packet = last_response();
    if (packet.empty() || packet.front() != nak::code)
        return 0;
    reason = get_be16(packet, nak::reason_at);
    for (const ErrorReason& row : s_err_reasons) {
        if (row.code == reason)
            log_error("%s", row.text);
    }
    return 1;
}

void dump_buf(std::span<const uint8_t> bytes)
{
    constexpr size_t per_line = 16;
    constexpr size_t hex_width = 3; // of one byte
    for (size_t offset = 0; offset <= bytes.size(); offset += per_line) {
        const auto row = bytes.subspan(offset, std::min(per_line, bytes.size() - offset));
        std::string hex;
        std::string text;
        for (const uint8_t byte : row) {
            constexpr const char* digits = "0123456789abcdef";
            hex += {digits[byte >> 4], digits[byte & 0x0F], ' '};
            text += byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.';
        }
        hex.resize(per_line * hex_width, ' ');
        (void)printf("%04x %s %s\n", static_cast<unsigned>(offset), hex.c_str(), text.c_str());
    }
}

void SetUpdateVerbose(int32_t on)
{
    sVerbose = on;
}

void SetRspCallback(RspFilter filter)
{
    const std::lock_guard lock(RwMutex);
    sRspCallback = filter;
}

KeepsRunningUnsent::KeepsRunningUnsent()
{
    sEndsUnsent = false;
}

KeepsRunningUnsent::~KeepsRunningUnsent()
{
    sEndsUnsent = true;
}

void SetRspObserver(RspObserver observer)
{
    sRspObserver = observer;
}

int32_t SendPktAndWait(std::span<const uint8_t> request, uint8_t expected_code)
{
    return exchange(update_side, Form::plain, request, expected_code);
}

int32_t SendPktWithCallback(std::span<const uint8_t> request, uint8_t expected_code, RspFilter filter)
{
    return filtered_exchange(update_side, request, expected_code, filter, nullptr);
}

void prv_handle_packet(std::span<const uint8_t> packet, uintptr_t user_data)
{
    receive(update_side, packet, user_data);
}
