#include "claim.h"

#include "drivers.h"
#include "modem.h"

#include <array>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace sim {

namespace {

constexpr const char* lock_file = "modem/lock";

// The lock lasts as long as the file is open, here or in the guard. None where others have it for longer than a process
// that was killed and its guard take to end.
Fd locked(const fs::path& path)
{
    constexpr mode_t mode = 0644;
    Fd file(must(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, mode), path));
    constexpr int tries = 100, milliseconds = 10;
    for (int i = 0; flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++i) {
        if (errno != EWOULDBLOCK)
            must(-1, path);
        if (i == tries)
            return Fd();
        (void)poll(nullptr, 0, milliseconds);
    }
    return file;
}

// The guard. It keeps nothing of what its parent has open but its line and its lock, so that others see that one end.
[[noreturn]] void guard(const fs::path& root, int line, int lock)
{
    constexpr int line_here = STDERR_FILENO + 1, lock_here = line_here + 1, first_other = lock_here + 1;
    (void)setsid();
    // Above the numbers that they go to, so that none overwrites another.
    const int line_now = fcntl(line, F_DUPFD, first_other), lock_now = fcntl(lock, F_DUPFD, first_other);
    const int nothing = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)dup2(nothing, fd);
    (void)dup2(line_now, line_here);
    (void)dup2(lock_now, lock_here);
    (void)close_range(first_other, ~0U, 0);

    char done = 0;
    if (read(line_here, &done, 1) != 1) {
        std::error_code ignored;
        Drivers::take_away_dead(root / drivers_mount);
        for (const char* node : modem_nodes)
            fs::remove(root / "dev" / node, ignored);
    }
    _exit(0);
}

} // namespace

Claim::Claim(const fs::path& root)
{
    const fs::path path = root / lock_file;
    fs::create_directories(path.parent_path());
    lock_ = locked(path);
    if (lock_.get() < 0)
        throw std::runtime_error(root.string() + " is served already");

    std::array<int, 2> ends{};
    must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
    line_ = Fd(ends[0]);
    const Fd other(ends[1]);
    const pid_t between = must(fork(), "fork");
    if (between == 0) {
        if (fork() == 0)
            guard(root, other.get(), lock_.get());
        _exit(0);
    }
    (void)waitpid(between, nullptr, 0);
}

Claim::~Claim()
{
    (void)send(line_.get(), "", 1, MSG_NOSIGNAL); // nothing left to do for it
    char ended = 0;
    (void)!read(line_.get(), &ended, 1);
}

} // namespace sim
