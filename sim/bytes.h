// Bytes on the wire: named readers and writers, and their forms as text. DIAG packets are little-endian, DLOAD packets
// big-endian. A reader is used on a packet whose length was checked before.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

// What the person at the command line can put right.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr uint8_t byte_of(uint64_t value, unsigned shift)
{
    return static_cast<uint8_t>(value >> shift & 0xFF);
}

inline uint16_t get_le16(View packet, size_t at)
{
    return static_cast<uint16_t>(packet[at] | packet[at + 1] << 8);
}
inline uint32_t get_le32(View packet, size_t at)
{
    return static_cast<uint32_t>(get_le16(packet, at + 2)) << 16 | get_le16(packet, at);
}
inline uint16_t get_be16(View packet, size_t at)
{
    return static_cast<uint16_t>(packet[at] << 8 | packet[at + 1]);
}
inline uint32_t get_be32(View packet, size_t at)
{
    return static_cast<uint32_t>(get_be16(packet, at)) << 16 | get_be16(packet, at + 2);
}

inline Bytes copy_of(View bytes)
{
    return {bytes.begin(), bytes.end()};
}
inline Bytes bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}
inline std::string text_of(View bytes)
{
    return {bytes.begin(), bytes.end()};
}
inline void add(Bytes& packet, View bytes)
{
    packet.insert(packet.end(), bytes.begin(), bytes.end());
}
inline void add_le16(Bytes& packet, uint32_t value)
{
    add(packet, Bytes{byte_of(value, 0), byte_of(value, 8)});
}
inline void add_le32(Bytes& packet, uint32_t value)
{
    add_le16(packet, value & 0xFFFF);
    add_le16(packet, value >> 16);
}
inline void put_le16(Bytes& packet, size_t at, uint32_t value)
{
    packet[at] = byte_of(value, 0);
    packet[at + 1] = byte_of(value, 8);
}
inline void put_le32(Bytes& packet, size_t at, uint32_t value)
{
    put_le16(packet, at, value);
    put_le16(packet, at + 2, value >> 16);
}
inline void add_be32(Bytes& packet, uint32_t value)
{
    add(packet, Bytes{byte_of(value, 24), byte_of(value, 16), byte_of(value, 8), byte_of(value, 0)});
}
[[nodiscard]] Bytes with_code(uint8_t code, View rest);

inline bool starts_with(View packet, View prefix)
{
    return packet.size() >= prefix.size() && std::ranges::equal(packet.first(prefix.size()), prefix);
}

// What stands before the zero byte that must end a text, and only end it.
[[nodiscard]] std::optional<std::string> terminated(View text);

// "12", "0x1F"; with `sizes` also "64K" and "2M". Nothing for any other text or a value above `most`.
[[nodiscard]] std::optional<uint32_t> parse_number(std::string_view text, uint32_t most = UINT32_MAX,
                                                   bool sizes = false);
// Pairs of hex digits, with or without blanks between the pairs.
[[nodiscard]] std::optional<Bytes> parse_hex(std::string_view text);
// "0A 7E ...".
[[nodiscard]] std::string hex(View bytes);
// One line that shows any text: what is not printable as \xNN.
[[nodiscard]] std::string printable(std::string_view text);
// The other way round, and \n. Nothing for a backslash with anything else behind it.
[[nodiscard]] std::optional<std::string> unescaped(std::string_view text);
[[nodiscard]] std::vector<std::string_view> split(std::string_view text, char separator);
[[nodiscard]] std::string_view trimmed(std::string_view text);

} // namespace sim
