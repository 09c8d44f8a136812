// NV items over DIAG: reading one, writing one, and the text by which a user gives one to write.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

// Request and response alike: code, item (2), data (128), status (2, zero in requests). Little-endian. Data byte 0 of
// an indexed item is its index.
namespace nv_packet {
constexpr uint8_t read_code = 0x26, write_code = 0x27;
constexpr size_t item_at = 1, data_at = 3, status_at = 131;
constexpr size_t data_size = 128, size = 133;
static_assert(data_at + data_size == status_at && status_at + 2 == size);
} // namespace nv_packet

// Statuses that more is made of than their text.
namespace nv_status {
constexpr uint16_t done = 0, queued = 1, not_active = 5, bad_parameter = 6, write_protected = 7,
                   not_valid_for_target = 8;
} // namespace nv_status

using NvPacket = std::array<uint8_t, nv_packet::size>;

// Reads `item`, its entry `index` where it is an indexed one, and shows the response and its status. No response: says
// nothing. Main thread.
void nvitem_read(uint32_t item, uint32_t index);

// Writes the item that nv_parse put into `packet`, and shows the response and its status. No response: ERROR. Main
// thread.
void nvitem_write(NvPacket& packet);

// What the status of an NV response means; null for one that has no text. Any thread.
[[nodiscard]] const char* nv_status_text(uint16_t status);

// Logs what the status of an NV response means, at WARNING.
void display_nv_rdwr_status(uint16_t status);

// Fills `packet` from a text such as "550:1,2,3": the item, then its data bytes, each taken modulo 256. Returns the
// number of data bytes; 0 with an ERROR when there are none, or more than an item holds.
[[nodiscard]] int32_t nv_parse(NvPacket& packet, std::string_view text);
