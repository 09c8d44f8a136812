#include "os.h"

#include <array>
#include <csignal>
#include <fcntl.h>

namespace sim {

namespace {

void write_with(const fs::path& path, int mode, View bytes)
{
    const Fd file(must(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0644), path));
    while (!bytes.empty()) {
        const ssize_t written = write(file.get(), bytes.data(), bytes.size());
        must(written < 0 ? -1 : 0, path);
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
}

} // namespace

Fd catch_signals(std::initializer_list<int> numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    must(pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0 ? 0 : -1, "sigmask");
    return Fd(must(signalfd(-1, &set, SFD_CLOEXEC), "signalfd"));
}

signalfd_siginfo take_signal(const Fd& caught)
{
    signalfd_siginfo info{};
    must(read(caught.get(), &info, sizeof info) > 0 ? 0 : -1, "signalfd");
    return info;
}

std::optional<std::string> read_file(const fs::path& path)
{
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string text;
    std::array<char, 65536> piece{};
    ssize_t count = 0;
    while ((count = read(file.get(), piece.data(), piece.size())) > 0)
        text.append(piece.data(), static_cast<size_t>(count));
    return count < 0 ? std::nullopt : std::optional(text);
}

void write_file(const fs::path& path, View bytes)
{
    write_with(path, O_TRUNC, bytes);
}

void append_line(const fs::path& path, const std::string& line)
{
    write_with(path, O_APPEND, bytes_of(line + "\n"));
}

} // namespace sim
