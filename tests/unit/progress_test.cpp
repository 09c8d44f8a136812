#include "platform/progress.h"

#include "app/applet_log.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <unistd.h>

TEST(Progress, TellsAmountRateAndTimeLeft)
{
    const struct {
        uint64_t done, total;
        ProgressUnit unit;
        double seconds;
        const char* text;
    } rows[] = {
        {0, 1489, ProgressUnit::pieces, 3, "x: 0 of 1489"},
        {100, 1600, ProgressUnit::pieces, 4, "x: 100 of 1600, 25/s, 1:00 left"},
        {1023, 4096, ProgressUnit::bytes, 0, "x: 1023 B of 4.0 KiB"},
        {uint64_t{1} << 32, uint64_t{1} << 33, ProgressUnit::bytes, 4096,
         "x: 4096.0 MiB of 8192.0 MiB, 1.0 MiB/s, 68:16 left"},
        {9, 3, ProgressUnit::pieces, 1, "x: 9 of 3, 9/s, 0:00 left"}, // a counter gone wild
    };
    for (const auto& row : rows)
        EXPECT_EQ(progress_text("x", row.done, row.total, row.unit, row.seconds), row.text);
}

// A log record begins in the first column of a line of its own; where nobody looks there is not a byte more.
TEST(Progress, MakesRoomForTheLogAndIsForTerminalsOnly)
{
    const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 64> path{};
    ASSERT_TRUE(grantpt(terminal.get()) == 0 && unlockpt(terminal.get()) == 0);
    ASSERT_EQ(ptsname_r(terminal.get(), path.data(), path.size()), 0);
    // What a terminal is given comes in pieces.
    const auto shown = [&](size_t size) {
        constexpr int patience = 5000;
        std::string text(size + 1, '\0');
        size_t count = 0;
        for (pollfd readable{terminal.get(), POLLIN, 0}; count < size && poll(&readable, 1, patience) == 1;)
            count += static_cast<size_t>(
                std::max<ssize_t>(read(terminal.get(), text.data() + count, text.size() - count), 0));
        text.resize(count);
        return text;
    };
    const auto work_before = [&](const char* device) {
        const UniqueFd other(open(device, O_RDWR | O_NOCTTY | O_CLOEXEC)), before(dup(STDERR_FILENO));
        EXPECT_EQ(dup2(other.get(), STDERR_FILENO), STDERR_FILENO);
        {
            Progress progress("x", 2, ProgressUnit::pieces);
            progress.advance_to(0);
            log_info("y");
            log_info("z");
        }
        EXPECT_EQ(dup2(before.get(), STDERR_FILENO), STDERR_FILENO);
    };
    const UniqueFd slave(open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC)); // without one, what was written may go
    const std::string line = "\r\033[Kx: 0 of 2\r\r\033[K", log = "radio I RIL_TESSEL: y\r\nradio I RIL_TESSEL: z\r\n";
    work_before(path.data());
    EXPECT_EQ(shown((line + log).size()), line + log);

    std::array<int, 2> pipe_ends{};
    ASSERT_EQ(pipe2(pipe_ends.data(), O_CLOEXEC), 0);
    const UniqueFd reader(pipe_ends[0]);
    UniqueFd writer(pipe_ends[1]);
    work_before(("/proc/self/fd/" + std::to_string(writer.get())).c_str());
    writer.reset();
    std::string text(512, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(read(reader.get(), text.data(), text.size()), 0)));
    EXPECT_EQ(text, "radio I RIL_TESSEL: y\nradio I RIL_TESSEL: z\n");
}
