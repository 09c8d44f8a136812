// NV update files: what to write to the modem, as a text. And single files of the modem, shown and deleted.
//
//   # sets the band preference                  comment, as are lines without anything in them
//   NV ITEM=10, INDEX=0                         an NV item of 128 bytes, zero where no data are given. INDEX is only
//   04 00                                       logged: the index of an indexed item is its first data byte
//   NV ITEM FILE=/nv/item_files/a/b, SIZE=2     an item file
//   0A0b
//   EFS FILE=/c, SIZE=4                         a regular file
//   00 01 02 03
//   DEL EFS FILE=/d                             a file of either kind to delete
//
// Lines may begin with blanks and tabs. Data lines are pairs of hex digits, blanks and tabs between them; a line's data
// end at the first character that is neither, or before a lone digit. A record's data end with the file, or at a line
// that holds a "=", which is the next header, also if it is a comment. SIZE is what is written of a file; nothing is
// when there are no data lines. A header without a "," names the path of the file record before it, and a WARNING says
// which. A WARNING, too, are data of another length than SIZE, and a record without data.
//
// The service programming code is not sent, so that the modem refuses items that it protects by it (WARNING).
//
// All records share one working buffer. It starts as 1024 zero bytes and grows to the SIZE of a regular file; what a
// record leaves in it is written by a later one whose SIZE exceeds its data.
//
// The file is not trusted. Refused with an ERROR are
//   - a file that is not a regular one
//   - a line of more than 254 characters or with a zero byte, unless it is a comment, and with it a record that has it
//     among its data: its rest would be taken for a line of its own, and do what nobody meant
//   - a record without a path, with a SIZE or item number that is missing, negative or not a number; an item above
//     65535, a SIZE above 16 MiB, or above the buffer's for an item file
//   - data beyond the buffer, beyond 128 bytes for an NV item; what fits is used
// The data lines of a refused record are then met as unknown lines, a WARNING each.
//
// All functions run on the main thread. Ports are paths of DIAG ttys, awaited for 30 seconds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

// Applies one file and leaves the modem offline. 1 when the port does not appear, else 0, even if there is no such
// file: what was refused or failed is in the log, at the end also that EFS2 replies were another file's (ERROR).
[[nodiscard]] int32_t UpdateNV(const std::string& file, const std::string& port);

// Applies files in their order, and logs what UpdateNV does. 1 when the port does not appear, or one of them cannot be
// opened or read, or there is no memory, and the rest is left out; else 0.
[[nodiscard]] int32_t UpdateNV2(std::span<const std::string> files, const std::string& port);

// Prints the modem's file `path` in hex. 0, also when reading it fails on the way; 1 when the port does not appear, the
// file is neither an item file nor a regular one, or not there, or larger than 16 MiB.
[[nodiscard]] int32_t ReadNVF(const std::string& path, const std::string& port);

// Deletes the modem's file `path`. 0, also when there is none; 1 when the port does not appear; else efs2_remove's.
[[nodiscard]] int32_t DeleteEFS2F(const std::string& path, const std::string& port);

// ---- the text ----

enum class NvRecordType { nv_item, nv_item_file, efs_file, del_efs_file, other };

// The keyword that `text`, from trim_buf, begins with.
[[nodiscard]] NvRecordType get_nvtype(std::string_view text);

// The decimal number behind `name` and one more character, `name` being looked for anywhere in `text`. -1 when there is
// no such name or no number behind it, with a blank, a "," or the line's end after it: what "0x20C" and the like begin
// with would address item 0, or empty a file.
[[nodiscard]] int32_t get_field_int(std::string_view text, std::string_view name);

// Puts the text behind `name` and one more character, up to the next ",", into `value`, and returns its length. -1 when
// there is no such name, or no "," behind it; `value` stays as it was.
[[nodiscard]] int32_t get_field_str(std::string_view text, std::string_view name, std::string& value);

[[nodiscard]] bool is_next_nvitem(std::string_view text);

// Reads data lines into `buffer`, and leaves `file` at the start of the header behind them. The number of bytes stored,
// an ERROR telling of those that found no room. -1 when a data line was refused (ERROR), or reading fails.
[[nodiscard]] int32_t get_data(std::span<uint8_t> buffer, FILE* file);
