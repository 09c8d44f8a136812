#include "text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace sim {

std::optional<uint32_t> parse_number(std::string_view text, uint32_t most, bool sizes)
{
    uint64_t unit = 1;
    if (sizes && !text.empty() && (text.back() == 'K' || text.back() == 'M')) {
        unit = text.back() == 'K' ? 1024 : 1024 * 1024;
        text.remove_suffix(1);
    }
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }

    uint32_t value = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value, base);
    if (text.empty() || parsed.ec != std::errc{} || parsed.ptr != end || value * unit > most)
        return std::nullopt;
    return static_cast<uint32_t>(value * unit);
}

std::optional<Bytes> parse_hex(std::string_view text)
{
    Bytes bytes;
    while (!(text = trimmed(text)).empty()) {
        uint8_t value = 0;
        if (text.size() < 2)
            return std::nullopt;
        const auto parsed = std::from_chars(text.data(), text.data() + 2, value, 16);
        if (parsed.ec != std::errc{} || parsed.ptr != text.data() + 2)
            return std::nullopt;
        bytes.push_back(value);
        text.remove_prefix(2);
    }
    return bytes;
}

std::string hex(View bytes, size_t most)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const uint8_t byte : bytes.first(std::min(bytes.size(), most))) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    while (true) {
        const size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

Bytes bytes_of(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string text_of(View bytes)
{
    return {bytes.begin(), bytes.end()};
}

} // namespace sim
