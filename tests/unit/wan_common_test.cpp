#include "app/wan_common.h"

#include <cctype>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <vector>

TEST(WanCommon, FilenameIsTheLastComponentOfAShortPath)
{
    const std::string longest = std::string(125, 'd') + "/f";
    EXPECT_STREQ(get_filename("f"), "f");
    EXPECT_STREQ(get_filename("/a/b/f"), "f");
    EXPECT_STREQ(get_filename("a/"), "");
    EXPECT_STREQ(get_filename(longest.c_str()), "f");
    EXPECT_EQ(get_filename(("d" + longest).c_str()), nullptr);
    EXPECT_EQ(get_filename(nullptr), nullptr);
}

TEST(WanCommon, HexDumpEndsLinesAtSixteenAndAtTheEnd)
{
    const std::string first = "0xf8 0xf9 0xfa 0xfb 0xfc 0xfd 0xfe 0xff 0x00 0x01 0x02 0x03 0x04 0x05 0x06 0x07\n";
    const std::pair<size_t, std::string> rows[] = {
        {0, "\n"}, {1, "0xf8\n\n"}, {16, first + "\n"}, {17, first + "0x08\n\n"}};
    for (const auto& [length, expected] : rows) {
        std::vector<uint8_t> bytes(length);
        std::iota(bytes.begin(), bytes.end(), uint8_t{0xF8});
        ::testing::internal::CaptureStdout();
        PrintHex(bytes);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), expected);
    }
}

TEST(WanCommon, NumbersAreHeldAtTheEndsOfTheirRange)
{
    constexpr int32_t most = std::numeric_limits<int32_t>::max(), least = std::numeric_limits<int32_t>::min();
    const std::pair<const char*, int32_t> rows[] = {
        {"", 0},
        {"x1", 0},
        {" 12x", 12},
        {"-7", -7},
        {"08", 8},
        {"2147483647", most},
        {"2147483648", most},
        {"99999999999999999999", most},
        {"-2147483648", least},
        {"-2147483649", least},
        {"-99999999999999999999", least},
        {"4294967296", most},
    };
    for (const auto& [text, value] : rows)
        EXPECT_EQ(text_to_int(text), value) << text;
}

TEST(WanCommon, TokensAreTakenOneByOne)
{
    std::string_view rest = ",;ab,;c,";
    for (const char* token : {"ab", "c", "", ""})
        EXPECT_EQ(next_token(rest, ",;"), token);
    EXPECT_EQ(next_token(rest = "whole", ","), "whole");
}

TEST(WanCommon, LineEndsAreCut)
{
    const std::pair<const char*, const char*> tails[] = {
        {"", ""}, {"\r\n\n", ""}, {"a\n", "a"}, {"\ra \r\r\n", "\ra "}, {"a\n\t", "a\n\t"}};
    for (const auto& [text, trimmed] : tails)
        EXPECT_EQ(trim_tail(text), trimmed);
}

TEST(WanCommon, HexDigits)
{
    constexpr std::string_view digits = "0123456789abcdef";
    for (int c = 0; c < 256; ++c) {
        const size_t value = digits.find(static_cast<char>(tolower(c)));
        EXPECT_EQ(hex2int(static_cast<char>(c)), value == std::string_view::npos ? -1 : static_cast<int32_t>(value));
    }
}
