// The transport's packet dump, switched by a mask, and base64.
//
// The transport convention of the log is main buffer, tag RIL_ODL, every text prefixed with the name and line by which
// this message has always been known ("pktio.c:164"); it never reaches standard output.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

// Which traces and dumps are written; 0, the start, is none. Bits: 8 packets, 16 byte counts and decoder state,
// 32 select and the packet dump.
extern std::atomic<uint32_t> gOdlLogMask;
constexpr uint32_t odl_trace_packets = 8;
constexpr uint32_t odl_trace_bytes = 16;
constexpr uint32_t odl_trace_select = 32;

// Stores `mask`. Any thread.
void odl_log_set_log_mask(uint32_t mask);

// Logs `bytes` in hex, 16 to a record, when `mask` has a bit in common with the log mask. One thread at a time, the
// packet reader.
void odl_log_debug_print_packet(uint32_t mask, std::span<const uint8_t> bytes);

// Fills the decoder's table, once. Call it before odl_base64_decode.
void odl_base64_init();

// Writes the base64 text of `in` to `out`, without a terminating zero. Returns the characters written, or -1 when they
// do not fit into `out_size`.
[[nodiscard]] int32_t odl_base64_encode(std::span<const uint8_t> in, char* out, uint32_t out_size);

// Writes the bytes of the base64 text `in` to `out`; characters outside the alphabet count as zero bits. Returns the
// bytes written, or -1 when `in` is not a multiple of 4 long, when `out_size` exceeds 3/4 of its length, or when the
// bytes do not fit.
[[nodiscard]] int32_t odl_base64_decode(std::span<const char> in, uint8_t* out, uint32_t out_size);
