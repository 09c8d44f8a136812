// One EFS2 request and its reply, on the update side of the exchange.
//
// Most replies do not say what they are about: a late one looks like that to a later request with the same command,
// about another file. The modem replies in order, and once. So a request's own reply tells that all to earlier ones
// have come, or never will; but a reply can only be told to be the own one when no other with its command was due.
#pragma once

#include <cstdint>
#include <span>

// Sends `request`, which is one of efs2_packets.h, and waits for its reply, which the exchange holds then. Returns the
// exchange's result.
//
// Where a reply to an earlier request with the same command is due, the modem is asked with a query first, or with a
// hello when a query is due, too, or it seems to answer none; when the reply to that does not come, the request is not
// sent. It is always sent when it is a hello or query, which ask for nothing that matters, a close, for nobody else
// closes the file, or a get or put to a modem that repeats their numbers. Main thread.
[[nodiscard]] int32_t efs2_exchange(std::span<const uint8_t> request);

// What was learned of the modem is learned anew, for it may be another firmware by now. Main thread.
void efs2_forget_firmware();

// Whether the modem is known to repeat the numbers of gets and puts. Main thread.
[[nodiscard]] bool efs2_repeats_numbers();

// How many EFS2 replies came that were due to no request, those to hellos and queries aside, unless some had been given
// up. Where one comes twice, the second may be taken for that to the next request of its kind, whose own is then such a
// reply. Any thread.
[[nodiscard]] uint32_t efs2_stray_replies();

// Counts the reply to the last request as one, for it tells that it is about something else. Main thread.
void efs2_count_stray();

// Waits until those have come that are on the way: the modem is asked as before a request, but the process goes on
// where the port is gone. False when it does not answer that, although it has answered a hello or query before; the
// exchange logs it. A WARNING when it never has. Nothing is done when it did not answer the last request, unless that
// was a close. Main thread.
[[nodiscard]] bool efs2_await_strays();
