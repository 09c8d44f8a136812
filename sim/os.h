// Descriptors that close themselves, and whole files. Failures of the system are std::system_error.
#pragma once

#include "fields.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
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
            ::close(std::exchange(fd_, -1));
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

[[nodiscard]] std::optional<std::string> read_file(const fs::path& path);
void write_file(const fs::path& path, View bytes);
void write_file(const fs::path& path, std::string_view text);
void append_line(int fd, std::string line);

} // namespace sim
