// From the modem's own firmware to the flash programmer: telling its services apart, switching it to its boot code's
// DLOAD protocol, waiting for its port to come back, and sending it the flash programmer ("downloader").
//
// Everything runs on the main thread and blocks. Ports are paths of ttys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Waits for the device file `path`, looking once a second and up to `seconds` times. 1 as soon as it exists, else 0
// with a WARNING.
[[nodiscard]] int32_t WaitForDiagPort(const std::string& path, int32_t seconds);

// Waits up to 31 s until the device file `path` is another one than when a port was last opened, which its ctime in
// whole seconds tells. 0; a port that stays away or as it was ends the process with 72, a null path with 1 (ERRORs).
int32_t CheckSerialReEnumerate(const char* path);

// The same wait, for a modem that was told to reset; one that does not come back as another device file is a WARNING.
void wait_for_reset_modem(const std::string& port);

// Whether the port answers in that protocol: 1 or 0. Both open and close it; a missing one is a WARNING, one that
// cannot be opened ends the process (OpenSerialPort).
[[nodiscard]] int32_t IsDLoadMode(const std::string& port);
[[nodiscard]] int32_t IsDiagMode(const std::string& port);

// Sends a running modem into DLOAD mode. Always 0: whether it goes shows when its port comes back.
int32_t Switch2DLoadMode(const std::string& port);

// Sends `request` behind a flag of its own, which ends whatever the boot code took for the start of a frame, and waits
// for `expected_code`. Results of SendPktAndWait.
int32_t send_behind_flag(std::span<const uint8_t> request, uint8_t expected_code);

// Sends the selected chip's downloader over the open port and starts it. 0 once it was told to start, whether it
// answers or not; 1 with an ERROR when the file cannot be opened, or with what was sent so far when it has no end
// record or is damaged. A record of unknown type ends the process with 69.
[[nodiscard]] int32_t SendDownLoader();

// ---- Intel HEX ----

// A record's data bytes; longer records are no valid downloader.
constexpr size_t hex_record_bytes = 32;

// What ParseIntelHex returns besides the record types 0 to 5.
constexpr int32_t hex_no_record = -1; // to be skipped
constexpr int32_t hex_damaged = -2;   // cut short, too long, or with other than hex digits

// Where the records of a file lead.
struct HexState {
    uint32_t dlRAMAddress = 0;              // of the last data record
    uint32_t dlRAMAddrMSW = 0;              // upper half of the addresses that follow
    uint32_t dlRAMAddrStart = 0xFFFFFFFF;   // of the first upper half: the segment to start at, with 24-bit addresses
    uint32_t dlRAMAddrStart32 = 0xFFFFFFFF; // where to start, with 32-bit addresses
};

// The first `digits` characters (0 to 8, or the process ends with 1 and an ERROR) of `text` as a hexadecimal number, up
// to the first that is no digit.
[[nodiscard]] uint32_t ParseUint(std::string_view text, size_t digits);

// Takes one line, with or without its line end. Returns the record type, hex_no_record or hex_damaged (ERROR each).
// `data` gets the bytes of a data record and is empty otherwise; `eof` tells whether it was the end record. The check
// sum is not looked at: that each write is acknowledged is the only check. An unknown type ends the process with 69.
[[nodiscard]] int32_t ParseIntelHex(std::string_view line, HexState& state, std::vector<uint8_t>& data, int32_t& eof);
