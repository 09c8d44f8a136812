// Small conversions between text and values.
#pragma once

#include "fields.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// "12", "0x1F"; with `sizes` also "64K" and "2M". Nothing for any other text or a value above `most`.
[[nodiscard]] std::optional<uint32_t> parse_number(std::string_view text, uint32_t most = UINT32_MAX,
                                                   bool sizes = false);

// Pairs of hex digits, with or without blanks between the pairs.
[[nodiscard]] std::optional<Bytes> parse_hex(std::string_view text);

// "0A 7E ...", at most `most` bytes of it.
[[nodiscard]] std::string hex(View bytes, size_t most = SIZE_MAX);

[[nodiscard]] std::vector<std::string_view> split(std::string_view text, char separator);
[[nodiscard]] std::string_view trimmed(std::string_view text);
[[nodiscard]] Bytes bytes_of(std::string_view text);
[[nodiscard]] std::string text_of(View bytes);

} // namespace sim
