// What backup, restore and NV update files share: requests to a modem whose NV data are at stake, the answers to NV
// requests, and the way an item file is fetched.
//
// All functions run on the main thread with the port open, unless said otherwise.
#pragma once

#include "crashdump/nv_item.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Data bytes of one EFS2 request of a transfer.
constexpr uint32_t transfer_piece = 512;

// How a file of the modem is opened to be read.
constexpr uint32_t open_read_only = 0, open_read_mode = 0x100;

// Waits up to 30 s for the DIAG port `port`. False, with a WARNING, when it does not appear.
[[nodiscard]] bool await_diag_port(const std::string& port);

// Keeps other processes from the modem's NV data and their backups, from the first call to the end of the process. Two
// at once would take each other's answers, and each would write over what the other one saves. False, with an ERROR,
// when another process has them.
[[nodiscard]] bool lock_nv_data();

// Waits for the port and opens it, to be closed with CloseSerialPort. False when it does not appear; where it cannot be
// opened the process ends (OpenSerialPort).
[[nodiscard]] bool open_diag_port(const std::string& port);

// DIAG mode request: 29, mode (2).
enum class ModemMode : uint16_t { offline = 0, reset = 2 };
// Asks for a mode. What the modem answers is not looked at; a time-out is logged (ERROR) by the exchange.
void request_modem_mode(ModemMode mode);

// Has the modem at `port`, which is not open, start anew and leave the mode that it was given. A port that does not
// appear within 30 s is a WARNING.
void restart_modem(const std::string& port);

// Sends the service programming code of this product, which unlocks NV writes. The answer is not looked at.
void send_service_programming_code();

// In front of the echo of a request that is refused for want of the service programming code.
constexpr uint8_t bad_spc_code = 0x42;

// The response in `packet` to the NV request `request`, from its code on; empty when it is none, and the wait goes on.
// A refusal for want of the service programming code is a WARNING, and the echo in it is the response. Reader thread.
[[nodiscard]] std::span<const uint8_t> nv_response(std::span<const uint8_t> packet, const NvPacket& request);

// Judges the status of the NV response `response`: 0 when it ends the wait, 1 when the modem has only queued the
// request. Any status but 0 is a WARNING. Reader thread.
[[nodiscard]] int32_t judge_nv_status(std::span<const uint8_t> response);

// Whether the status of the NV response `response` says that the modem has no such item, index or value, or keeps it
// from being written, so that no restore could. Any thread.
[[nodiscard]] bool has_no_nv_item_to_restore(std::span<const uint8_t> response);

// What came of reading one value of the modem.
enum class Fetch {
    got,
    left_out,   // the modem has none of this name and kind
    withheld,   // the modem has one, but refuses it or gives less than it has
    unanswered, // or the answer was one to another request
    queued,     // taken by the modem for later, which never came
};

// Fetches the item file `path`, whose size the modem gave as `size`, in pieces, each with the number `sequence`, which
// is raised by one after each. Fetch::got with the bytes in `data`. Else a WARNING that the file is skipped: withheld
// when the modem refuses a piece or does not answer (of which the exchange keeps count), unanswered when it answers
// with another number (adopted, and raised). A modem that gives less than it was asked for is not noticed here: the
// data are short then.
//
// After a piece, its length counts twice against what is left: of a file of more than 512 bytes only the first 512 are
// fetched, and above 1024 bytes about half. Kept on purpose: the pieces of an item file are not addressed, and this is
// how existing backups were made.
[[nodiscard]] Fetch fetch_nvitemfile(const std::string& path, uint32_t size, uint16_t& sequence,
                                     std::vector<uint8_t>& data);

// How many stray EFS2 replies have come since there were `before` of them, and one more when the modem does not say
// whether there are more on the way; an ERROR for either.
[[nodiscard]] uint32_t stray_replies_since(uint32_t before);

// How many bytes that fetches of an item file of `size` bytes.
[[nodiscard]] uint32_t fetched_of_nvitemfile(uint32_t size);
