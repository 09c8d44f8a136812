#include "port.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>

namespace sim {

Port::Port(const fs::path& node)
    : node_(node), master_(must(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), "no pseudo-terminal"))
{
    std::array<char, 64> path{};
    must(grantpt(fd()), "grantpt");
    must(unlockpt(fd()), "unlockpt");
    must(ptsname_r(fd(), path.data(), path.size()) == 0 ? 0 : -1, "ptsname");
    slave_ = Fd(must(open(path.data(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC), path.data()));

    termios settings{};
    must(tcgetattr(slave_.get(), &settings), "tcgetattr");
    cfmakeraw(&settings);
    must(tcsetattr(slave_.get(), TCSANOW, &settings), "tcsetattr");

    // A node left by a tablet that was killed points nowhere.
    fs::remove(node_);
    fs::create_symlink(path.data(), node_);
}

Port::~Port()
{
    std::error_code ignored; // the tablet's directory may be gone already
    if (fd() >= 0)
        fs::remove(node_, ignored);
}

Bytes Port::receive()
{
    Bytes all;
    std::array<uint8_t, 4096> piece{};
    ssize_t count = 0;
    while ((count = read(fd(), piece.data(), piece.size())) > 0)
        add(all, View(piece).first(static_cast<size_t>(count)));
    return all;
}

void Port::send(Chunk chunk)
{
    if (chunk.bytes.empty())
        return;
    if (queue_.empty())
        next_ = Clock::now() + chunk.delay;
    queue_.push_back(std::move(chunk));
}

void Port::pump(Time now)
{
    while (!queue_.empty() && next_ <= now) {
        const Chunk& chunk = queue_.front();
        const View rest = View(chunk.bytes).subspan(sent_);
        const ssize_t written = write(fd(), rest.data(), chunk.pace.count() > 0 ? 1 : rest.size());
        if (written <= 0)
            return;
        progress_ = now;
        sent_ += static_cast<size_t>(written);
        next_ = now + chunk.pace;
        if (sent_ < chunk.bytes.size())
            continue;
        queue_.pop_front();
        sent_ = 0;
        if (!queue_.empty())
            next_ += queue_.front().delay;
    }
}

std::optional<Time> Port::due() const
{
    if (queue_.empty())
        return std::nullopt;
    return next_;
}

Time Port::idle_since(Time now)
{
    constexpr auto patience = std::chrono::seconds(5);
    int unread = 0;
    must(ioctl(slave_.get(), FIONREAD, &unread), "FIONREAD");
    const bool pending = !queue_.empty() || unread > 0;
    const bool stuck = now - std::max(progress_, queue_.empty() ? progress_ : next_) > patience;
    if (pending && !stuck)
        busy_ = now;
    return std::max(busy_, progress_);
}

} // namespace sim
