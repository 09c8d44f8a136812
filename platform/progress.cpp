#include "platform/progress.h"

#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr auto redraw_time = std::chrono::milliseconds(250);
constexpr std::string_view to_line_start = "\r", erase_line = "\r\033[K";

std::atomic<bool> s_drawn = false;

void put(std::string_view text)
{
    (void)!write(STDERR_FILENO, text.data(), text.size()); // nobody is told when nobody looks
}

// A line that the terminal broke in two could not be drawn over.
size_t terminal_width()
{
    constexpr size_t usual = 80;
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    return (known ? size.ws_col : usual) - 1;
}

std::string amount(double number, ProgressUnit unit)
{
    constexpr double step = 1024;
    if (unit == ProgressUnit::pieces)
        return formatted("%.0f", number);
    if (number < step)
        return formatted("%.0f B", number);
    if (number < step * step)
        return formatted("%.1f KiB", number / step);
    return formatted("%.1f MiB", number / step / step);
}

} // namespace

std::string progress_text(const std::string& what, uint64_t done, uint64_t total, ProgressUnit unit, double seconds)
{
    std::string text =
        what + ": " + amount(static_cast<double>(done), unit) + " of " + amount(static_cast<double>(total), unit);
    if (done == 0 || seconds <= 0)
        return text;
    const double rate = static_cast<double>(done) / seconds;
    const auto left = static_cast<long long>(static_cast<double>(total - std::min(done, total)) / rate);
    constexpr int per_minute = 60;
    return text + ", " + amount(rate, unit) + "/s, " +
           formatted("%lld:%02d left", left / per_minute, static_cast<int>(left % per_minute));
}

Progress::Progress(std::string what, uint64_t total, ProgressUnit unit)
    : what_(std::move(what)), total_(total), unit_(unit), shown_(total != 0 && isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    hide_progress();
}

void Progress::advance_to(uint64_t done)
{
    if (!shown_)
        return;
    const auto now = Clock::now();
    if (now < next_)
        return;
    next_ = now + redraw_time;
    const std::chrono::duration<double> spent = now - start_;
    std::string line(erase_line);
    line += progress_text(what_, done, total_, unit_, spent.count()).substr(0, terminal_width());
    // Whatever is printed without our knowledge, the shell's prompt after an interrupt too, begins in the first column.
    line += to_line_start;
    s_drawn = true;
    put(line);
}

void hide_progress()
{
    if (!s_drawn.exchange(false))
        return;
    const int saved_errno = errno;
    put(erase_line);
    errno = saved_errno;
}
