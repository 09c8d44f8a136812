// Descriptors that close themselves, whole files, the journal. Failures of the system are std::system_error.
#pragma once

#include "bytes.h"

#include <cerrno>
#include <filesystem>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace sim {

namespace fs = std::filesystem;

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { close(); }

    [[nodiscard]] int get() const { return fd_; }
    void close()
    {
        if (fd_ >= 0)
            (void)::close(std::exchange(fd_, -1));
    }

private:
    int fd_;
};

// The result of a system call, or the failure as an exception that says what was tried.
inline int must(int result, const std::string& what)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

// Signals as something to poll, instead of what they do by themselves.
[[nodiscard]] Fd catch_signals(std::initializer_list<int> numbers);
[[nodiscard]] signalfd_siginfo take_signal(const Fd& caught);

// Standard error goes into a pipe, whoever writes it, until `said` is called or this goes away.
class ErrorCapture {
public:
    ErrorCapture();
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture(ErrorCapture&&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;
    ErrorCapture& operator=(ErrorCapture&&) = delete;
    ~ErrorCapture() { restore(); }

    // What was written so far, at most a few lines.
    [[nodiscard]] std::string said();

private:
    void restore();

    Fd terminal_;
    Fd reader_;
};

// The words as a program's argument vector; valid as long as they are.
[[nodiscard]] std::vector<char*> argument_vector(std::vector<std::string>& words);
// Runs a program with nothing to read or to tell, to its end; its exit status, or -1.
int run_quietly(std::vector<std::string> words);

// Nothing for what cannot be read or has more than `most` bytes, as a device may.
[[nodiscard]] std::optional<std::string> read_file(const fs::path& path, size_t most = size_t{1} << 28);
void write_file(const fs::path& path, View bytes);
void append_line(const fs::path& path, const std::string& line);

// modem/journal.txt: what the modem saw and did, one line an event, in order, each on disk before the modem goes on.
class Journal {
public:
    explicit Journal(fs::path path) : path_(std::move(path)) {}

    void note(const std::string& event) const { append_line(path_, event); }
    // The host sent what a strict modem refuses.
    void complain(const std::string& what) const { note("complaint: " + what); }
    void request(const std::string& port, View packet) const
    {
        constexpr size_t shown = 32;
        note("request " + port + " " + std::to_string(packet.size()) + ": " +
             hex(packet.first(std::min(packet.size(), shown))));
    }

private:
    fs::path path_;
};

} // namespace sim
