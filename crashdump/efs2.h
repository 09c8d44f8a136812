// EFS2 client: the modem's own file system, reached through DIAG on the update side of the exchange.
//
// Every operation is one request and one reply, or a row of them, and none is repeated. Unless said otherwise it
// returns 0 or what it asked for, and on failure
//
//   -1                  the modem refused: its error number is logged at ERROR; or its reply ends before that, which is
//                       an ERROR, too; or the request is too long for its buffer, an ERROR, and nothing is sent
//   -71, -1             no reply: the exchange's failure (exchange_timed_out, exchange_no_response), negated
//
// and leaves its outputs alone. What comes late is not taken for a reply to a later request (efs2_exchange.h). Other
// fields that a reply does not carry count as zero, and data end where the reply ends, whatever it announces; what is
// announced and not taken is a WARNING. Paths are given without their zero.
//
// One operation at a time, all on the main thread, with a port opened by OpenSerialPort.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

extern int32_t s_efs2_initialzed; // 1 once an efs2_init succeeded

// What a mode says about the kind of file.
namespace efs2_mode {
constexpr uint32_t type_bits = 0xF000;
constexpr uint32_t directory = 0x4000, regular_file = 0x8000, item_file = 0xE000;
} // namespace efs2_mode

struct Efs2Stat {
    uint32_t mode;
    uint32_t size; // bytes
    uint32_t link_count;
    uint32_t atime, mtime; // seconds of the modem's clock
};

struct Efs2DirEntry {
    uint32_t type; // 0 regular file, 1 directory, 2 symbolic link, 3 immovable file
    uint32_t mode;
    uint32_t size;                // bytes
    uint32_t atime, mtime, ctime; // seconds of the modem's clock
    std::string name;
};

// Shows what the modem says of itself in the handshake (1) or not (0, as at the start).
void efs2_set_verbose(int32_t on);

// The handshake: hello, then query. What the modem tells is shown, not negotiated. Returns 1, or 0 when a reply did not
// come.
[[nodiscard]] int32_t efs2_init();

// Opens a file; `flags` and `mode` are the modem's. Returns the descriptor. No reply is a WARNING, too.
[[nodiscard]] int32_t efs2_open_file(std::string_view path, uint32_t flags, uint32_t mode);

[[nodiscard]] int32_t efs2_close_file(int32_t descriptor);

// Reads from `offset` on, until `destination` is full or the modem gives less than it was asked for. Returns the number
// of bytes read; on failure `destination` may hold some of them. A reply for another place is a WARNING, and a stray
// (efs2_stray_replies).
[[nodiscard]] int32_t efs2_read_file(int32_t descriptor, std::span<uint8_t> destination, uint32_t offset);

// Writes all of `data` from `offset` on. Returns the number of bytes written; a modem that takes none of a piece is an
// ERROR and -1. Replies for other places as for efs2_read_file.
[[nodiscard]] int32_t efs2_write_file(int32_t descriptor, std::span<const uint8_t> data, uint32_t offset);

// Tells about a file; `status` may be null. A reply that ends before the file's size is an ERROR and -1.
[[nodiscard]] int32_t efs2_stat(std::string_view path, Efs2Stat* status);

// Whether the last operation failed for want of such a file or directory.
[[nodiscard]] bool efs2_not_found();

[[nodiscard]] int32_t efs2_remove(std::string_view path);

// Opens a directory. Returns the handle.
[[nodiscard]] int32_t efs2_open_dir(std::string_view path);

// Reads the entry of number `sequence`, which becomes the number that the reply carries. The name ends at its zero, or
// with the reply.
[[nodiscard]] int32_t efs2_read_dir(int32_t handle, Efs2DirEntry& entry, uint32_t& sequence);

[[nodiscard]] int32_t efs2_close_dir(int32_t handle);

// Fetches an item file. `data` is the room for it and becomes what was received there: nothing on any failure.
// `sequence` goes with the request; another number in the reply is a WARNING and replaces it. Returns the number of
// bytes received; when no reply came, the exchange's failure as it is, not negated, so that only an empty `data` tells.
[[nodiscard]] int32_t efs2_get_file(std::string_view path, std::span<uint8_t>& data, uint16_t& sequence);

// Writes a whole item file, `flags` being the modem's. `sequence` as for efs2_get_file, but that a reply with another
// number is a stray, unless the modem has numbers of its own.
[[nodiscard]] int32_t efs2_put_file(std::string_view path, std::span<const uint8_t> data, uint32_t flags,
                                    uint16_t& sequence);

// What kind of file an entry is, by its type, or, for types without a name, by its mode.
[[nodiscard]] const char* efs2_get_dir_entry_type(const Efs2DirEntry& entry);

// Logs what an error number of the modem means, at ERROR.
void display_err_msg(uint32_t number);
