#include "modem_peer.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace {

template <typename Number>
Number must(Number result, const char* what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

[[noreturn]] void serve(int fd, const std::vector<Turn>& script)
{
    try {
        for (size_t turn = 0;; turn = (turn + 1) % script.size()) {
            Bytes request(script[turn].request.size());
            read_all(fd, request);
            if (request != script[turn].request) {
                (void)fprintf(stderr, "modem peer: request %zu is not the expected one\n", turn);
                _exit(1);
            }
            write_all(fd, script[turn].reply);
        }
    } catch (const std::system_error& error) {
        (void)fprintf(stderr, "modem peer: %s\n", error.what());
        _exit(1);
    }
}

} // namespace

UniqueFd open_raw(const std::string& device)
{
    UniqueFd fd(must(open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), device.c_str()));
    termios attributes{};
    must(tcgetattr(fd.get(), &attributes), "tcgetattr");
    cfmakeraw(&attributes); // a read returns from the first byte on
    must(tcsetattr(fd.get(), TCSANOW, &attributes), "tcsetattr");
    return fd;
}

void write_all(int fd, std::span<const uint8_t> bytes)
{
    while (!bytes.empty())
        bytes = bytes.subspan(static_cast<size_t>(must(write(fd, bytes.data(), bytes.size()), "write")));
}

size_t read_some(int fd, std::span<uint8_t> room)
{
    const ssize_t count = must(read(fd, room.data(), room.size()), "read");
    if (count == 0)
        throw std::system_error(EIO, std::generic_category(), "read");
    return static_cast<size_t>(count);
}

void read_all(int fd, std::span<uint8_t> bytes)
{
    while (!bytes.empty())
        bytes = bytes.subspan(read_some(fd, bytes));
}

ModemPeer::ModemPeer(const std::vector<Turn>& script)
{
    const UniqueFd master(must(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "no pseudo-terminal"));
    std::array<char, 64> name{};
    must(grantpt(master.get()), "grantpt");
    must(unlockpt(master.get()), "unlockpt");
    must(-ptsname_r(master.get(), name.data(), name.size()), "ptsname");
    device_ = name.data();

    const pid_t parent = getpid();
    const UniqueFd slave = open_raw(device_); // held open by the peer, whose reads fail while nobody is connected
    pid_ = must(fork(), "fork");
    if (pid_ != 0)
        return;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(0);
    serve(master.get(), script);
}

ModemPeer::~ModemPeer()
{
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
}
