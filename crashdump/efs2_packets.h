// The packets of the modem's file system.
//
// Every request and reply: 4B 13, command (2), then its fields, of four bytes unless a size is given. Little-endian. A
// path comes last and ends with a zero. In the comments, a request's fields stand before the semicolon, a reply's
// behind it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace efs2_packet {
constexpr uint8_t code = 0x4B, subsystem = 0x13;
constexpr size_t subsystem_at = 1, command_at = 2, header_size = 4;
constexpr size_t buffer_size = 2048; // of the longest request, and of what is kept of a reply
} // namespace efs2_packet

// Hello: ten fields, zero as the host has no windows to offer; the modem's windows, versions and features.
namespace hello_packet {
constexpr uint16_t command = 0;
constexpr size_t request_size = 44;
constexpr size_t targ_pkt_window_at = 4, targ_byte_window_at = 8, host_pkt_window_at = 12, host_byte_window_at = 16,
                 iter_pkt_window_at = 20, iter_byte_window_at = 24, version_at = 28, min_version_at = 32,
                 max_version_at = 36, feature_bits_at = 40;
} // namespace hello_packet

// Query: nothing; the modem's limits.
namespace query_packet {
constexpr uint16_t command = 1;
constexpr size_t request_size = 4, reply_size = 28;
constexpr size_t max_name_at = 4, max_path_at = 8, max_link_depth_at = 12, max_file_size_at = 16,
                 max_dir_entries_at = 20, max_mounts_at = 24;
} // namespace query_packet

// Open: flags, mode, path; descriptor (signed), error.
namespace open_packet {
constexpr uint16_t command = 2;
constexpr size_t flags_at = 4, mode_at = 8, path_at = 12;
constexpr size_t descriptor_at = 4, error_at = 8;
} // namespace open_packet

// Close, of a file and of a directory: descriptor or handle; error.
namespace close_packet {
constexpr uint16_t file_command = 3, directory_command = 13;
constexpr size_t descriptor_at = 4, request_size = 8;
constexpr size_t error_at = 4;
} // namespace close_packet

// Read: descriptor, byte count, file offset; descriptor, file offset, bytes read, error, data.
namespace read_packet {
constexpr uint16_t command = 4;
constexpr size_t descriptor_at = 4, count_at = 8, offset_at = 12, request_size = 16;
constexpr size_t reply_offset_at = 8, read_at = 12, error_at = 16, data_at = 20;
constexpr size_t piece_size = 2028;
static_assert(data_at + piece_size == efs2_packet::buffer_size);
} // namespace read_packet

// Write: descriptor, file offset, data; descriptor, file offset, bytes written, error.
namespace write_packet {
constexpr uint16_t command = 5;
constexpr size_t descriptor_at = 4, offset_at = 8, data_at = 12;
constexpr size_t reply_offset_at = 8, written_at = 12, error_at = 16;
constexpr size_t piece_size = 2036;
static_assert(data_at + piece_size == efs2_packet::buffer_size);
} // namespace write_packet

// Remove: path; error.
namespace remove_packet {
constexpr uint16_t command = 8;
constexpr size_t path_at = 4;
constexpr size_t error_at = 4;
} // namespace remove_packet

// Open directory: path; handle, error.
namespace open_dir_packet {
constexpr uint16_t command = 11;
constexpr size_t path_at = 4;
constexpr size_t handle_at = 4, error_at = 8;
} // namespace open_dir_packet

// Read directory: handle, entry number; handle, entry number, error, the entry.
namespace read_dir_packet {
constexpr uint16_t command = 12;
constexpr size_t handle_at = 4, sequence_at = 8, request_size = 12;
constexpr size_t error_at = 12, type_at = 16, mode_at = 20, size_at = 24, atime_at = 28, mtime_at = 32, ctime_at = 36,
                 name_at = 40;
} // namespace read_dir_packet

// Stat: path; error, then the file's status.
namespace stat_packet {
constexpr uint16_t command = 15;
constexpr size_t path_at = 4;
constexpr size_t error_at = 4, mode_at = 8, size_at = 12, link_count_at = 16, atime_at = 20, mtime_at = 24;
} // namespace stat_packet

// Put: data length, flags, sequence (2), data, path; sequence (2), error, which is not aligned.
namespace put_packet {
constexpr uint16_t command = 38;
constexpr size_t length_at = 4, flags_at = 8, sequence_at = 12, data_at = 14;
constexpr size_t reply_sequence_at = 4, error_at = 6;
} // namespace put_packet

// Get: most data wanted, path length (left zero: the path has its own end), sequence (2), path; data length, error,
// sequence (2), data.
namespace get_packet {
constexpr uint16_t command = 39;
constexpr size_t room_at = 4, sequence_at = 12, path_at = 14;
constexpr size_t length_at = 4, error_at = 8, data_at = 14;
} // namespace get_packet
