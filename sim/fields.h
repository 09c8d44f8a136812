// Bytes on the wire, and their named readers and writers. DIAG packets are little-endian, DLOAD packets big-endian.
// A reader is used on a packet whose length was checked before.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

constexpr uint8_t byte_of(uint64_t value, unsigned shift)
{
    return static_cast<uint8_t>(value >> shift & 0xFF);
}

inline uint16_t get_le16(View packet, size_t at)
{
    return static_cast<uint16_t>(packet[at] | packet[at + 1] << 8);
}
inline uint16_t get_be16(View packet, size_t at)
{
    return static_cast<uint16_t>(packet[at] << 8 | packet[at + 1]);
}
inline uint32_t get_be32(View packet, size_t at)
{
    return static_cast<uint32_t>(get_be16(packet, at)) << 16 | get_be16(packet, at + 2);
}

inline void add(Bytes& packet, View bytes)
{
    packet.insert(packet.end(), bytes.begin(), bytes.end());
}
inline void add_le16(Bytes& packet, uint32_t value)
{
    add(packet, Bytes{byte_of(value, 0), byte_of(value, 8)});
}
inline void add_be16(Bytes& packet, uint32_t value)
{
    add(packet, Bytes{byte_of(value, 8), byte_of(value, 0)});
}
inline void add_le32(Bytes& packet, uint32_t value)
{
    add_le16(packet, value & 0xFFFF);
    add_le16(packet, value >> 16);
}
inline void add_be32(Bytes& packet, uint32_t value)
{
    add_be16(packet, value >> 16);
    add_be16(packet, value & 0xFFFF);
}

[[nodiscard]] inline Bytes with_code(uint8_t code, View rest)
{
    Bytes packet(1 + rest.size(), code);
    std::copy(rest.begin(), rest.end(), packet.begin() + 1);
    return packet;
}

inline bool starts_with(View packet, View prefix)
{
    return packet.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), packet.begin());
}

} // namespace sim
