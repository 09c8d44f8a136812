// DIAG requests of the crash-dump side: one exchange judged by one filter, which tells the answer, a refusal and the
// traffic that the modem sends unasked from one another. Little-endian.
#pragma once

#include "diag/exchange.h"

#include <cstdint>
#include <span>

// Sends `request` and waits for the answer, whose code is the request's first byte, or for a DIAG error reply. A copy
// goes to `response`; the last-response buffer is cleared. Returns 0, or the failure of send_pkt_with_callback. Main
// thread.
[[nodiscard]] int32_t send_diag_request(std::span<const uint8_t> request, ResponseBuffer& response);

// The response filter: 0 for the answer and, after printing what it means, for a DIAG error reply. Unasked packets are
// skipped (shown with -v); anything else is logged at ERROR, printed, and skipped. Reader thread.
int32_t diag_callback(std::span<const uint8_t> packet, uintptr_t user_data);

// Whether `packet` is a DIAG error reply; prints its meaning and its abstract. Returns 1 or 0.
int32_t parse_bad_rsp(std::span<const uint8_t> packet);

// Whether `packet` is one that the modem sends unasked; with s_verbose, prints its label and abstract. Returns 1 or 0.
int32_t process_ignore_rsp(std::span<const uint8_t> packet);

// Prints the first four bytes of `packet` and, where there are more, its length.
void print_abstract(std::span<const uint8_t> packet);
