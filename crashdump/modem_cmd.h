// Services of the modem's own software, reached through DIAG: typed requests, its kernel log, commands run on it, files
// to and from it, and its hardware variant (SKU).
//
// Every failure is logged at ERROR where it is found and ends the operation; nothing is retried. All of it runs on the
// main thread with a port opened by open_serial_port, except the SKU, which opens the port itself.
#pragma once

#include "diag/exchange.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

constexpr size_t typed_request_size = 512;

// Turns decimal byte values separated by blanks and commas, "75,0,81,0,12", into a request. Returns the number of
// bytes; 0 when there are none, or, with an ERROR, for a value above 255 or a 513th value.
[[nodiscard]] uint32_t diag_parse2(std::span<uint8_t, typed_request_size> request, std::string_view text);

// Sends the request typed in `text` and dumps the response. Says nothing when the text holds no request.
void send_diagcmd(std::string_view text);

// Sends the request typed in `text` and copies as much of the response as fits into `response`; `length` is how many
// bytes, 0 on failure. Returns 0, 1 when the text holds no request, or the failure of the exchange.
[[nodiscard]] int32_t send_diagcmd2(std::string_view text, std::span<uint8_t> response, uint32_t& length);

// Prints the modem's kernel log.
void dump_mdmkernel_log();

// Prints the text that one kernel-log response carries. Returns 0, or -1 after logging the modem's error.
[[nodiscard]] int32_t dump_dmesg(std::span<const uint8_t> response);

// Runs every line of the local file `name` as a command on the modem.
void run_modem_cmd(const std::string& name);

// Copies the modem's file `path` into the current directory. What came before a failure stays there.
void pull_modem_file(const std::string& path);

// Copies a local file to the modem; `paths` is the source and the destination, joined by a comma.
void push_file2modem(const std::string& paths);

// Names by SKU; the last stands for every other value.
constexpr std::array<const char*, 4> modem_sku_desc = {"RIDGE", "SUMMIT", "VALLEY", "UNKNOWN"};

// Opens the modem's DIAG port, asks for the SKU and closes the port. An error reply counts as an answer, fields it does
// not carry as zero. Returns 0 with `sku`, or the failure of the exchange.
[[nodiscard]] int32_t get_modem_sku(uint32_t& sku);

// Logs the SKU's name, or WARNING when the modem does not tell.
void show_modem_sku();
