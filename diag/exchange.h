// Request/response exchange: the main thread sends one request and waits for at most five seconds until the handler on
// the packet reader's thread has accepted its response; half a second more where the process did not run when the time
// was over.
//
// The machine exists once and serves two sides, each with state of its own: the crash-dump side (send_pkt_*) and the
// update side (Send*). Which of them hears the modem is decided by the handler that was given to the packet engine. A
// response is copied under the side's lock and stays as it is until that side's next request. Between a response and
// the next request nothing is outstanding: packets are dropped silently.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// Decides whether `packet` is the awaited response: 0 takes it, anything else goes on waiting. Runs on the reader
// thread, never under a lock of the exchange; `user_data` is the handler's.
using RspFilter = int32_t (*)(std::span<const uint8_t> packet, uintptr_t user_data);

// Is shown every packet that comes, before anything is done with it. Where and how it runs, as a filter.
using RspObserver = void (*)(std::span<const uint8_t> packet);

constexpr int32_t exchange_accepted = 0;
constexpr int32_t exchange_no_response = 1;
constexpr int32_t exchange_timed_out = 71; // time-out while the side's exit-on-timeout flag is set

// How many requests of either side got no response so far. Main thread.
[[nodiscard]] uint32_t unanswered_requests();

// ---- crash-dump side ----

// Where the filter form leaves a copy of the response. A capacity of 0 means nowhere.
struct ResponseBuffer {
    uint32_t capacity; // bytes at `data`
    uint32_t length;   // bytes copied there
    uint8_t* data;
};

extern int32_t s_verbose;           // traffic on standard output (crashdump -v)
extern int32_t s_exit_on_timeout;   // 1: a time-out ends the process (plain form) or gives exchange_timed_out
extern uint8_t* sp_decoded_pkt_buf; // the last accepted packet; null before there was one
extern uint32_t s_response_len;     // its length, 0 after a time-out

// Sends `request` and waits for a response whose first byte is `expected_code`, or for a DLOAD NAK (0x03), whose reason
// is logged at ERROR. Returns exchange_accepted, or exchange_no_response where s_exit_on_timeout is off. Otherwise a
// time-out (ERROR "Timeout!") ends the process with 34, a failed send with 4. Main thread.
int32_t send_pkt_with_rsp(std::span<const uint8_t> request, uint8_t expected_code);

// The same with `filter` as the judge and a copy of the response in `response` (null for none). Returns
// exchange_accepted, exchange_timed_out or exchange_no_response; a failed send ends the process with 69. Main thread.
[[nodiscard]] int32_t send_pkt_with_callback(std::span<const uint8_t> request, uint8_t expected_code, RspFilter filter,
                                             ResponseBuffer* response);

// The side's packet handler. Reader thread.
void rcv_handle_packet(std::span<const uint8_t> packet, uintptr_t user_data);

// The last accepted packet of the side; empty when there is none. Main thread, between exchanges.
[[nodiscard]] std::span<const uint8_t> last_response();

// Zeroes the first 16 bytes of the last accepted packet, so that it is never taken for the answer to a later request.
// Main thread, between exchanges.
void clear_last_response();

// Whether the last accepted packet is a DLOAD NAK: logs its reason at ERROR, stores it in `reason` and returns 1.
// Otherwise 0. Main thread, between exchanges.
int32_t get_error_code(uint16_t& reason);

// Prints `bytes` on standard output, 16 to a line as offset, hex and text. The last line holds what is left over, which
// may be nothing. Main thread.
void dump_buf(std::span<const uint8_t> bytes);

// ---- update side ----

extern int32_t ExitOnTimeout;  // 1: a time-out gives exchange_timed_out, 0: exchange_no_response
extern int32_t g_factory_mode; // quiet mode: accepted packets are printed, mismatches are not logged
extern uint8_t* sResponseBuf;  // the last accepted packet; null before there was one
extern uint32_t sResponseLen;  // its length, 0 after a time-out

// Switches printing of the side's traffic on standard output (wan_dloader -v). Main thread, between exchanges.
void SetUpdateVerbose(int32_t on);

// Installs `filter` for the plain requests that follow, until it is taken away with null. Main thread.
void SetRspCallback(RspFilter filter);

// Installs the observer of this side's packets, also of those that come while nothing is outstanding. Any thread.
void SetRspObserver(RspObserver observer);

// While one lives, a request of this side that cannot be sent does not end the process: it is logged, and got no
// response. For a question without whose answer the work is done all the same. Main thread.
class KeepsRunningUnsent {
public:
    KeepsRunningUnsent();
    KeepsRunningUnsent(const KeepsRunningUnsent&) = delete;
    KeepsRunningUnsent(KeepsRunningUnsent&&) = delete;
    KeepsRunningUnsent& operator=(const KeepsRunningUnsent&) = delete;
    KeepsRunningUnsent& operator=(KeepsRunningUnsent&&) = delete;
    ~KeepsRunningUnsent();
};

// Sends `request` and waits for a response whose first byte is `expected_code`, or that the installed filter takes.
// Returns exchange_accepted, exchange_timed_out or exchange_no_response; ERROR "Timeout!" with the latter two. A failed
// send ends the process with 69, unless a KeepsRunningUnsent lives. Main thread.
[[nodiscard]] int32_t SendPktAndWait(std::span<const uint8_t> request, uint8_t expected_code);

// The same with `filter` as the judge; it is the installed one during the exchange and none is afterwards. Main thread.
[[nodiscard]] int32_t SendPktWithCallback(std::span<const uint8_t> request, uint8_t expected_code, RspFilter filter);

// The side's packet handler. Reader thread.
void prv_handle_packet(std::span<const uint8_t> packet, uintptr_t user_data);
