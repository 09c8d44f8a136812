// NV data of a backup file (nv_file.h) back into the modem, and single writes to it.
//
// Main thread; blocks. Responses to NV requests are judged on the reader thread.
#pragma once

#include "crashdump/nv_item.h"

#include <cstdint>
#include <span>
#include <string>

// Restores from `file_name` when sFlashAllPartitions is set; otherwise nothing is done. The modem is reset in the end.
// 0, or 1 with an ERROR when the DIAG tty `port` does not appear within 30 s. Failures of single steps are ERRORs and
// no failure of the whole; a file that is not complete is a WARNING, and what can be read of it is restored.
[[nodiscard]] int32_t restore_nv_data(const std::string& port, const std::string& file_name);

// How many items, files and whole steps the last restore could not carry out, and how many of its replies may be
// another's.
[[nodiscard]] uint32_t nv_values_unrestored();

// The single writes are for an open port (OpenSerialPort).

// Writes one NV item; code and status of `packet` are set here. Always 0, whatever the modem answers; a status but 0 is
// a WARNING.
int32_t write_nvitem(const NvPacket& packet);

// Writes an item file of at most 65535 bytes. 0, or 1 with an ERROR.
int32_t write_nvitemfile(const std::string& path, std::span<const uint8_t> data);

// Writes a regular file, over one that is there. 0, or 1 with an ERROR or WARNING.
int32_t write_efsfile(const std::string& path, std::span<const uint8_t> data);
