// Streaming download: what the host says to the flash programmer that runs in the modem's memory, and the whole stage
// that writes the modem's images.
//
// Everything runs on the main thread and blocks. A request goes out behind a flag of its own and is answered within
// five seconds, or ERROR "Timeout!" is logged and the sequence goes on. Requests need the open port.
#pragma once

#include <cstdint>
#include <string>

constexpr int32_t download_no_file = 68;
constexpr int32_t download_error_reply = 75;   // to the partition table
constexpr int32_t download_flash_refused = 76; // the stage's result for that
constexpr int32_t download_action_needed = 1;  // also: nothing was sent

extern int32_t s_parti_overwrite; // 1: the modem took the partition table as one that overrides what it had

// Always 0, whatever the reply.
int32_t SendHelloPacket();
int32_t SendSecurityModePacket(uint8_t mode);
int32_t SendMultiOpenPacket(uint8_t type);
int32_t SendClosePacket();

// Sends the first 512 bytes of the selected chip's partition table, with the override flag 0 or 1. 0 when the modem
// accepts it, download_error_reply, or download_action_needed: it has another table, or the file is not there (ERROR),
// or no answer came. A file that cannot be read ends the process with 1.
[[nodiscard]] int32_t SendPartitionTable(int32_t override_flag);

// Streams one image. 0, whatever the replies; download_no_file with an ERROR when it cannot be opened, or its end
// cannot be read. Progress is logged at DEBUG.
int32_t SendBootLoader(const std::string& file);

// Asks for everything to be erased; no flow does. 0, or download_flash_refused after an error reply.
[[nodiscard]] int32_t SendErase();

// Resets the modem by the tablet's power file, no request of the protocol. 0, or 1 with an ERROR.
int32_t SendReset();

// The whole stage over the download port `port`: downloader, greeting, partition table, images, reset. 0 after a
// complete sequence, whatever was missing in it; 1 or download_flash_refused with an ERROR otherwise.
[[nodiscard]] int32_t UpdateModemImages(const std::string& port);
