// Packet I/O engine: owns the DIAG port while it is open. One reader thread cuts the byte stream into packets and hands
// each to the registered handler; sending happens on the caller's thread.
//
// A process has one engine: one port, one reader, one handler. Its messages are in the transport log only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Room for one packet, and for one frame on the wire without its second flag.
constexpr uint32_t pktio_buffer_size = 4096;

// Reply to an unframed memory read: 0x15, padding (3), address (4), length (4), that many bytes. Big-endian, no
// framing: only the length tells where it ends.
namespace unframed_reply {
constexpr uint8_t code = 0x15;
constexpr size_t address_at = 4, length_at = 8, data_at = 12;
} // namespace unframed_reply

// Gets every packet on the reader thread: `packet` is valid only during the call, an empty frame has length 0.
using PacketHandler = void (*)(std::span<const uint8_t> packet, uintptr_t user_data);

// Called on the reader thread when it ends, whatever the cause.
using ShutdownHandler = void (*)(uintptr_t user_data);

// Opens `device_path` raw at 230400 baud and starts the reader with `handler`. An engine that is up is shut down first.
// Returns 0, or 1 after an ERROR that says what could not be had. Main thread.
[[nodiscard]] int pktio_init(const char* device_path, PacketHandler handler, uintptr_t user_data);

// Stops the reader, waits for its end and closes the port. Does nothing when the engine is down. Main thread; never
// from a handler.
void pktio_shutdown();

// Frames `packet` and writes it. A frame that is a multiple of 64 bytes long goes out with a second flag. Returns 0, or
// 1 after an ERROR: it does not fit, the write failed, or the modem took no bytes for five seconds. One sender at a
// time.
[[nodiscard]] int pktio_send_packet(std::span<const uint8_t> packet);

// Writes `bytes` as they are. Returns 0, or 1 after an ERROR. One sender at a time.
[[nodiscard]] int pktio_send_raw_packet(std::span<const uint8_t> bytes);

// Writes one flag. Returns what the write returned: 1, or -1 with errno set.
int pktio_send_end_of_packet_char();

// Switches the reader between framed (0) and unframed (1) mode. Unframed, it gathers a reply that begins with
// unframed_reply::code until it is whole; any other packet is taken as framed, which is how a modem refuses. Bytes that
// came before the switch are not looked at in the new mode. Main thread, while no request is outstanding.
void pktio_set_unframed_read(uint32_t on);

// Registers what is called when the reader ends; null for none. Main thread, while the engine is down.
void pktio_set_shutdown_callback(ShutdownHandler handler, uintptr_t user_data);
