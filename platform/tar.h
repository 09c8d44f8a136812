// Reads the firmware package, a plain tar archive: lists its members, copies one to a file, or reads one in place.
//
// One archive and one open member at a time, process-wide. A member is known by the part of its name behind the last
// "/", and only name and size of a header count: what newer formats put in front of a member to say more about it is
// passed over, but that it is sparse, which is not read. A member of size 0, also a directory, ends the list. All
// functions run on the main thread; what fails is logged at ERROR, save where nothing is open or found.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Opens the archive, a regular file, in place of the one that is open, and lists its members. 0, or -1: it cannot be
// opened, or its headers break off or cannot be understood; then the file stays open until tar_deinit.
[[nodiscard]] int32_t tar_init(const std::string& path);

// Closes the archive and forgets its members; nothing happens when none is open.
void tar_deinit();

// Lists the members of the open archive anew: the first 20, more are skipped. A member of size 0 that ends the list is
// a WARNING, and so is one that has the name of another. 0, or -1.
[[nodiscard]] int32_t tar_get_files();

// Number of members listed. -1 when there is no list, or when it is full, as there may be more.
[[nodiscard]] int32_t tar_get_files_count();

// Slot of the first member of exactly this name, or -1. Logs nothing.
[[nodiscard]] int32_t tar_seek_file(const std::string& name);

// What stands in a slot: name (valid as long as the list), bytes, place of the first byte in the archive. Null or -1
// when there is nothing.
[[nodiscard]] const char* tar_get_file_name(int32_t slot);
[[nodiscard]] int64_t tar_get_file_size(int32_t slot);
[[nodiscard]] int64_t tar_get_file_offset(int32_t slot);

// Copies the member `name` to the file `target`, which is replaced. 0, or -1. Not the whole member, because of the
// archive or the target, is a failure, and no file stays.
[[nodiscard]] int32_t tar_fextract_to(const std::string& name, const std::string& target);

// Opens the member `name` for tar_fread and tar_fgets, at its first byte. Its slot, or -1. Any other function that
// reads the archive moves the position: the member counts as read to its end then, or part of it is skipped.
[[nodiscard]] int32_t tar_fopen(const std::string& name);

// Forgets the open member. 0.
int32_t tar_fclose();

// Reads as many bytes as `buffer` holds and the member has left. Their number, 0 at its end, -1 when no member is open
// or the archive ends before the member does.
[[nodiscard]] int64_t tar_fread(std::span<uint8_t> buffer);

// Reads a line, or as much of it as fits, as fgets() does: with its line feed, a zero behind; nothing from beyond the
// member, whose last line may have no line feed. Returns the buffer's start, or null: no member is open, its end is
// reached, or there is no room for one character.
[[nodiscard]] char* tar_fgets(std::span<char> buffer);

// 1 when nothing is left to read of the open member, be it that none is open or that the archive ended, else 0.
[[nodiscard]] int32_t tar_feof();

// For a person who looks into a package: the list in the log, at INFO; the same from the headers, so that it names
// members beyond the list, too; the first 16 bytes of every member listed, on standard output.
void tar_show_files();
void tar_show_files2();
void tar_fdump_16bytes();

// Walks all headers. 0 when tar_get_files would succeed, else -1.
[[nodiscard]] int32_t tar_seek_file2();

// Whether a header carries the mark of the newer format.
[[nodiscard]] bool is_ustar(std::span<const uint8_t> header);
