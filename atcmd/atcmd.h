// AT command applet: one command to the modem's AT port, its answer, a status.
//
// All functions run on the main thread and share the module's state (verbose, extended and streaming mode), which only
// atcmd_main switches on; whoever calls atcmd_process_cmd_helper from another applet gets the plain, silent exchange.
// None of them lets the modem's bytes, or a long command, reach beyond the buffer it was given.
#pragma once

#include "app/applet.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

enum AtcmdStatus : int32_t {
    ATCMD_OK = 0,
    ATCMD_USAGE = 2,
    ATCMD_NO_PORT = 96,         // the port does not exist, or could not be opened
    ATCMD_NO_MEMORY = 97,       //
    ATCMD_SEND_FAILED = 98,     // the command was not written, not whole, or has a piece of 256 characters or more
    ATCMD_SELECT_FAILED = 99,   // or an exception was reported on the port
    ATCMD_READ_FAILED = 100,    //
    ATCMD_ECHO_STAYS = 101,     // the modem did not confirm ATE0
    ATCMD_NO_BUFFER = 102,      //
    ATCMD_MODEM_ERROR = 103,    // the response holds "ERROR"
    ATCMD_TIMED_OUT = 104,      // no response within the time-out
    ATCMD_NOT_UNDERSTOOD = 105, // the response holds neither "OK", "ERROR" nor a prompt
};

// Room that holds any response the applet keeps: 32767 bytes and a terminating zero.
constexpr size_t atcmd_response_size = 32768;

// Entry of the applet table. Options and exit statuses stand at the head of atcmd.cpp.
[[nodiscard]] int32_t atcmd_main(int32_t argc, char** argv, const Applet* row);

// One exchange: opens `port`, sends `command` piece by piece (a piece ends behind its CR; the next one follows only
// when the modem shows its ">" prompt), and closes the port. `buffer` gets the last piece's response as a text: zero
// bytes dropped, line ends normalised, cut where the buffer ends (atcmd_response_size never cuts earlier than the
// applet itself). Each piece's response is awaited for `time_out` seconds.
// Returns ATCMD_OK or the failure's status, logged as ERROR, save ATCMD_NO_BUFFER and ATCMD_MODEM_ERROR, which are
// logged as DEBUG, and ATCMD_NOT_UNDERSTOOD, which is not.
[[nodiscard]] int32_t atcmd_process_cmd_helper(std::string_view command, const char* port, std::span<char> buffer,
                                               int32_t time_out);

// The steps of an exchange, in the order of their use.

// Resolves the escapes \n \r \t and \xHH of `text` in place; \x00 leaves a zero byte in it.
void parse_atcmd_string(std::string& text);

// Value of one hex digit, either case. Meaningless for other characters.
[[nodiscard]] int32_t hex2dec(char digit);

// Opens a tty for the exchange: raw, and a read returns after one second of silence. Descriptor, or -1 and an ERROR.
[[nodiscard]] int atcmd_open_port(const char* path);

// Writes `piece`, outside the extended mode with a CR behind it. ATCMD_OK, ATCMD_NO_MEMORY or ATCMD_SEND_FAILED.
[[nodiscard]] int32_t atcmd_send_cmd(int fd, std::string_view piece);

// Waits `time_out` seconds for the response to begin, then reads until it pauses for a second or `buffer`, which has
// room for one byte at least, is full. Leaves a zero-terminated text.
// ATCMD_OK, ATCMD_SELECT_FAILED, ATCMD_TIMED_OUT or ATCMD_READ_FAILED.
[[nodiscard]] int32_t atcmd_read_response(int fd, std::span<char> buffer, int32_t time_out);

// Drops the line ends at the start of a zero-terminated text; makes one LF of every further run of CR and LF.
void atcmd_parse_output(char* text);

// Judges a response; null is no buffer.
[[nodiscard]] int32_t atcmd_assert_response(const char* text);
