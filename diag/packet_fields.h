// Packet fields with their byte order. A read beyond the packet's end gives 0, as a field that a reply does not carry
// counts as zero; a write is into a buffer of our own whose size is known where it is called. Any thread.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>

[[nodiscard]] inline uint8_t get_u8(std::span<const uint8_t> packet, size_t offset)
{
    return offset < packet.size() ? packet[offset] : uint8_t{0};
}

[[nodiscard]] inline uint16_t get_le16(std::span<const uint8_t> packet, size_t offset)
{
    return static_cast<uint16_t>(get_u8(packet, offset) | get_u8(packet, offset + 1) << 8);
}

[[nodiscard]] inline uint32_t get_le32(std::span<const uint8_t> packet, size_t offset)
{
    return get_le16(packet, offset) | static_cast<uint32_t>(get_le16(packet, offset + 2)) << 16;
}

[[nodiscard]] inline uint16_t get_be16(std::span<const uint8_t> packet, size_t offset)
{
    return static_cast<uint16_t>(get_u8(packet, offset) << 8 | get_u8(packet, offset + 1));
}

[[nodiscard]] inline uint32_t get_be32(std::span<const uint8_t> packet, size_t offset)
{
    return static_cast<uint32_t>(get_be16(packet, offset)) << 16 | get_be16(packet, offset + 2);
}

inline void put_u8(std::span<uint8_t> packet, size_t offset, uint8_t value)
{
    assert(offset < packet.size());
    packet[offset] = value;
}

inline void put_le16(std::span<uint8_t> packet, size_t offset, uint16_t value)
{
    put_u8(packet, offset, static_cast<uint8_t>(value & 0xFF));
    put_u8(packet, offset + 1, static_cast<uint8_t>(value >> 8));
}

inline void put_le32(std::span<uint8_t> packet, size_t offset, uint32_t value)
{
    put_le16(packet, offset, static_cast<uint16_t>(value & 0xFFFF));
    put_le16(packet, offset + 2, static_cast<uint16_t>(value >> 16));
}

inline void put_be16(std::span<uint8_t> packet, size_t offset, uint16_t value)
{
    put_u8(packet, offset, static_cast<uint8_t>(value >> 8));
    put_u8(packet, offset + 1, static_cast<uint8_t>(value & 0xFF));
}

inline void put_be32(std::span<uint8_t> packet, size_t offset, uint32_t value)
{
    put_be16(packet, offset, static_cast<uint16_t>(value >> 16));
    put_be16(packet, offset + 2, static_cast<uint16_t>(value & 0xFFFF));
}
