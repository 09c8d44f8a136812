#include "app/wan_common.h"

#include "app/applet_log.h"
#include "platform/progress.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {
constexpr size_t filename_limit = 128; // paths from this length on are not looked at
constexpr size_t hex_per_line = 16;
} // namespace

const char* get_filename(const char* path)
{
    if (path == nullptr || strnlen(path, filename_limit) == filename_limit)
        return nullptr;
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

void PrintHex(std::span<const uint8_t> bytes)
{
    hide_progress();
    for (size_t i = 0; i < bytes.size(); ++i) {
        const bool ends_line = (i + 1) % hex_per_line == 0 || i + 1 == bytes.size();
        (void)printf("0x%02x%c", bytes[i], ends_line ? '\n' : ' ');
    }
    (void)putchar('\n');
}

void tessel_stdout_on_off(int32_t value)
{
    g_to_stdout = value;
}

int32_t text_to_int(const std::string& text)
{
    const long value = strtol(text.c_str(), nullptr, 10); // saturates
    return static_cast<int32_t>(
        std::clamp<long>(value, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

std::string_view next_token(std::string_view& rest, std::string_view delimiters)
{
    rest.remove_prefix(std::min(rest.find_first_not_of(delimiters), rest.size()));
    const std::string_view token = rest.substr(0, rest.find_first_of(delimiters));
    rest.remove_prefix(token.size());
    return token;
}

std::string_view trim_buf(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text;
}

std::string_view trim_tail(std::string_view text)
{
    return text.substr(0, text.find_last_not_of("\r\n") + 1); // none found is the largest number, plus 1 is 0
}

bool is_comment_line(std::string_view text)
{
    return text.empty() || text.starts_with('#');
}

int32_t hex2int(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}
