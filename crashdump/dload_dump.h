// Memory dump from a crashed modem's DLOAD boot code: is it there, which protocol, which memory regions, and reading
// them. Big-endian, unlike DIAG.
//
// Every request is preceded by a lone flag and goes through send_pkt_with_rsp: no reply ends the process with 34, a NAK
// is logged and counts as a reply with the wrong code. Main thread, with a port opened by open_serial_port.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

constexpr size_t max_memory_regions = 20;
constexpr uint8_t last_framed_dload_version = 6;                         // later versions read memory unframed
constexpr uint32_t framed_chunk_size = 2000, unframed_chunk_size = 4000; // bytes a read

struct MemoryRegion {
    uint8_t save_pref;
    uint32_t base;
    uint32_t length;
    std::array<char, 20> description; // cut to fit, always terminated
    std::array<char, 20> file_name;
};

extern uint8_t s_dload_version;      // protocol version of the modem
extern uint32_t s_dload_memory_size; // bytes a read

// 1 when the modem is in DLOAD mode, else 0.
[[nodiscard]] int32_t check_dload_mode();

// 1 with the protocol version in `version`, else 0.
[[nodiscard]] int32_t get_dload_version(uint8_t& version);

// 1 with the table in `regions` and its entries in `count`; 0 when the modem does not tell, or, with an ERROR, when the
// table has 20 entries or more.
[[nodiscard]] int32_t get_memory_regions_info(std::span<MemoryRegion, max_memory_regions> regions, uint32_t& count);

// Logs `regions` at DEBUG when s_crashdump_debug is set.
void show_memory_regions(std::span<const MemoryRegion> regions);

// One read of `length` bytes at `address`, appended to `file`. Return the bytes written, 0 when the modem refused, -1
// with errno set when the file could not be written. What a reply carries beyond the request is not taken.
[[nodiscard]] int32_t read_memory(FILE* file, uint32_t address, uint32_t length);
[[nodiscard]] int32_t read_memory_unframed(FILE* file, uint32_t address, uint32_t length);

// The one of the two that the modem's protocol version calls for.
[[nodiscard]] int32_t dload_read_memory(FILE* file, uint32_t address, uint32_t length);

// Reads `length` bytes from `base` on, chunk by chunk, into `file`, which should be unbuffered so that a full disk
// shows at once. Returns the result of the last read.
[[nodiscard]] int32_t fetch_memory_region(FILE* file, uint32_t base, uint32_t length);
