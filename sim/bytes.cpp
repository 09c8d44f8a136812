#include "bytes.h"

#include <charconv>

namespace sim {

namespace {

template <typename Number>
std::optional<Number> convert(std::string_view digits, int base)
{
    Number value = 0;
    const char* end = digits.data() + digits.size();
    const auto parsed = std::from_chars(digits.data(), end, value, base);
    if (digits.empty() || parsed.ec != std::errc{} || parsed.ptr != end)
        return std::nullopt;
    return value;
}

} // namespace

Bytes with_code(uint8_t code, View rest)
{
    Bytes packet(1 + rest.size(), code);
    std::ranges::copy(rest, packet.begin() + 1);
    return packet;
}

std::optional<std::string> terminated(View text)
{
    if (text.empty() || std::ranges::find(text, 0) != text.end() - 1)
        return std::nullopt;
    return text_of(text.first(text.size() - 1));
}

std::optional<uint32_t> parse_number(std::string_view text, uint32_t most, bool sizes)
{
    uint64_t unit = 1;
    if (sizes && (text.ends_with('K') || text.ends_with('M'))) {
        unit = text.back() == 'K' ? 1024 : 1024 * 1024;
        text.remove_suffix(1);
    }
    const bool in_hex = text.starts_with("0x");
    const auto value = convert<uint32_t>(text.substr(in_hex ? 2 : 0), in_hex ? 16 : 10);
    if (!value || *value * unit > most)
        return std::nullopt;
    return static_cast<uint32_t>(*value * unit);
}

std::optional<Bytes> parse_hex(std::string_view text)
{
    Bytes bytes;
    while (!(text = trimmed(text)).empty()) {
        const auto value = convert<uint8_t>(text.substr(0, 2), 16);
        if (!value || text.size() < 2)
            return std::nullopt;
        bytes.push_back(*value);
        text.remove_prefix(2);
    }
    return bytes;
}

std::string hex(View bytes)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (const uint8_t byte : bytes) {
        if (!text.empty())
            text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::string printable(std::string_view text)
{
    std::string shown;
    for (const uint8_t byte : bytes_of(text))
        shown += byte >= ' ' && byte <= '~' ? std::string(1, static_cast<char>(byte)) : "\\x" + hex(View(&byte, 1));
    return shown;
}

std::optional<std::string> unescaped(std::string_view text)
{
    std::string plain;
    while (!text.empty()) {
        size_t used = 1;
        if (text.front() != '\\') {
            plain += text.front();
        } else if (text.starts_with("\\n")) {
            plain += '\n';
            used = 2;
        } else {
            constexpr size_t escape = 4; // \xNN
            const auto value = convert<uint8_t>(text.substr(std::min(text.size(), size_t{2}), 2), 16);
            if (!text.starts_with("\\x") || text.size() < escape || !value)
                return std::nullopt;
            plain += static_cast<char>(*value);
            used = escape;
        }
        text.remove_prefix(used);
    }
    return plain;
}

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (size_t end = 0; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1))
        parts.push_back(text.substr(0, end));
    parts.push_back(text);
    return parts;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    const size_t first = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

} // namespace sim
