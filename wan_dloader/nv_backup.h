// The passes of an NV backup: each adds its chunk to the backup file (nv_file.h), the last one lists what is in it.
//
// The file is made by the first pass and extended by the next two; each makes sure that it ends where the chunks that
// it expects end, and leaves any other file alone. A chunk and the number of chunks count only once a pass is through.
// Single items and files that the modem does not give are a WARNING each, are left out, and are no failure.
//
// With the port open (OpenSerialPort) and the modem offline; main thread. Responses to NV requests are judged and
// stored on the reader thread.
#pragma once

#include <cstdint>
#include <string>

// NV items, row by row of NvItemList, into a new file. 0, or 1 with an ERROR when the file cannot be made or written.
[[nodiscard]] int32_t NvItemBackup(const std::string& file_name);

// Item files, row by row of NvItemFileList. 0, or 1 with an ERROR when the file cannot be opened or written, or holds
// anything but one chunk.
[[nodiscard]] int32_t NvItemFileBackup(const std::string& file_name);

// Regular files, row by row of EFSFileList. 0, or 1 with an ERROR when the file cannot be opened or written, or holds
// anything but two chunks.
[[nodiscard]] int32_t EfsFileBackup(const std::string& file_name);

// How many values of the modem are not in the backup as it has them, after the last three passes: those that it did not
// give, or not whole, those that the format cannot hold, and those that may be another's, for an answer came twice.
// What it does not have, or keeps from being written, is none of them.
[[nodiscard]] uint32_t nv_values_unread();

// How many of those may be another's.
[[nodiscard]] uint32_t nv_values_doubtful();

// Lists the contents of a backup file at INFO. Says OK in the end for whatever begins like a backup file; an ERROR when
// it does not, cannot be opened, ends too early or holds an unknown chunk.
void NVItemBackupVerify(const std::string& file_name);
