#include "atcmd/atcmd.h"

#include "platform/os.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

using namespace std::string_literals;

TEST(Atcmd, ResolvesEscapes)
{
    const std::pair<const char*, std::string> rows[] = {
        {R"(ab\n\r\t)", "ab\n\r\t"},
        {R"(\q\\n)", "q\\n"},
        {R"(a\)", "a"},
        {R"(\x41B)", "AB"},
        {R"(\x4Z)", "\x04Z"},
        {R"(\xZ\n)", "Z\n"},
        {R"(\xfFfF)", "\xff"s + "fF"},
        {R"(\x41\r)", "A\\r"},
        {R"(\x\x41)", "\\x41"},
        {R"(\x00a)", "\0a"s},
        {R"(a\x)", "a"},
        {R"(a\x4)", "a\x04"},
        {R"(a\x41)", "aA"},
        {"\xff\\\xfe", "\xff\xfe"},
        {"", ""},
    };
    for (const auto& [text, expected] : rows) {
        std::string parsed = text;
        parse_atcmd_string(parsed);
        EXPECT_EQ(parsed, expected) << text;
    }
}

TEST(Atcmd, NormalisesLineEnds)
{
    const std::pair<std::string, std::string> rows[] = {
        {"", ""}, {"\r\n\n\r", ""}, {"OK", "OK"}, {"\r\nOK\r\n", "OK\n"}, {"a\r\r\n\nb\rc", "a\nb\nc"},
    };
    for (auto [text, expected] : rows) {
        atcmd_parse_output(text.data());
        EXPECT_STREQ(text.c_str(), expected.c_str());
    }
}

TEST(Atcmd, JudgesInOrder)
{
    const std::pair<const char*, int32_t> rows[] = {
        {nullptr, 102},         {"", 105},    {"ok", 105}, {"ERROR >OK", 0}, {"> ERROR", 103},
        {"+CME ERROR: 3", 103}, {"ERR >", 0},
    };
    for (const auto& [text, status] : rows)
        EXPECT_EQ(atcmd_assert_response(text), status) << (text == nullptr ? "none" : text);
}

// The room is the caller's: every size, with a guard behind it.
TEST(Atcmd, AnswerNeverOutgrowsASmallBuffer)
{
    std::string port = "/tmp/atcmd-XXXXXX";
    const UniqueFd file(mkstemp(port.data()));
    ASSERT_EQ(write(file.get(), "AT\rOK 123", 9), 9);
    for (size_t size = 0; size < 12; ++size) {
        std::array<char, 16> buffer{};
        buffer.fill('#');
        const int32_t status = atcmd_process_cmd_helper("AT", port.c_str(), std::span(buffer).first(size), 1);
        EXPECT_EQ(status, size == 0 ? 102 : size < 6 ? 105 : 0) << size;
        EXPECT_EQ(std::string(&buffer[size], 16 - size), std::string(16 - size, '#')) << size;
        EXPECT_EQ(std::string(buffer.data(), size).c_str(), "AT\nOK 123"s.substr(0, size == 0 ? 0 : size - 1)) << size;
    }
    // What was asked before is gone, also when nothing is sent.
    std::array<char, 16> buffer{"OK"};
    EXPECT_EQ(atcmd_process_cmd_helper(std::string(256, 'A'), port.c_str(), buffer, 1), 98);
    EXPECT_STREQ(buffer.data(), "");
    (void)unlink(port.c_str());
}

TEST(Atcmd, FailedSelectIsAStatus)
{
    std::array<char, 64> buffer{};
    const UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK));
    ASSERT_EQ(grantpt(master.get()) + unlockpt(master.get()), 0);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    const UniqueFd slave(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_NONBLOCK));
    EXPECT_EQ(atcmd_read_response(-1, buffer, 1), 99);

    // More descriptors than select can tell apart.
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit more = {std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 1), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    const UniqueFd high(fcntl(slave.get(), F_DUPFD, FD_SETSIZE));
    ASSERT_TRUE(high.valid());
    EXPECT_EQ(atcmd_read_response(high.get(), buffer, 1), 99);

    // In packet mode the controlling side is told of a flush as an exception.
    int on = 1;
    ASSERT_EQ(ioctl(master.get(), TIOCPKT, &on), 0);
    ASSERT_EQ(tcflush(slave.get(), TCIFLUSH), 0);
    EXPECT_EQ(atcmd_read_response(master.get(), buffer, 1), 99);
}
