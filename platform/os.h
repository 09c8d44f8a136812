// The operating system as the modules use it: owned descriptors and files, the shell, and the one way out of the
// process from inside a module.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

// Owns a file descriptor; -1 is none. Moves, never copies.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset();

private:
    int fd_ = -1;
};

struct FileCloser {
    void operator()(FILE* file) const { (void)fclose(file); } // whoever writes checks its own result before
};
// Owns a stdio stream.
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// Opens `path` as fopen() does, not inherited by commands that the shell runs. Empty on failure, errno set.
[[nodiscard]] UniqueFile open_file(const std::string& path, const char* mode);

// Opens for reading a file that the system is to provide, not inherited by commands. Never waits: what is not a plain
// file, such as a pipe or a device in its place, is none. Empty on failure, errno set.
[[nodiscard]] UniqueFile open_regular_file(const std::string& path);

// Opens `path` as fopen() does with "w+", not inherited by commands. Never waits: a pipe in its place is a failure.
[[nodiscard]] UniqueFile make_file(const std::string& path);

// Reads the next line of `file` into `line`, without its line feed. Of a longer line than `limit` characters the rest
// is skipped. False at the end of the file.
[[nodiscard]] bool read_line(FILE* file, std::string& line, size_t limit);

// printf into a text of whatever length it needs.
[[nodiscard]] std::string format_text(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

// The same, as a call.
[[nodiscard]] std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

// `text` for a log or a console: each control character but the tab is a blank, so that a name from outside can neither
// begin a record of its own nor steer a terminal. Any thread.
[[nodiscard]] std::string printable(std::string_view text);

// The text of the error number `error`, as strerror() gives it. Any thread.
[[nodiscard]] std::string error_text(int error);

// Runs exactly the command that `format` gives with system(), standard output flushed first so that a person sees
// events in their order. What comes from outside goes through shell_quote. Returns the raw status of system(). Main
// thread.
int run_shell(const char* format, ...) __attribute__((format(printf, 1, 2)));

// `text` as one word of a shell command: ordinary names stay as they are, any other is quoted.
[[nodiscard]] std::string shell_quote(std::string_view text);

// The same for a path: one that begins with a dash is not taken for an option.
[[nodiscard]] std::string shell_quote_path(const std::string& path);

// Whether something of this name exists; links are followed. Any thread.
[[nodiscard]] bool path_exists(const std::string& path);

// Lets this process learn how its commands end, where whoever started it ignores its own children: that is inherited,
// and every command would count as failed. Main thread, before all else.
void keep_child_statuses();

// Opens /dev/null as each of standard input, output and error that is closed. Otherwise the next file to be opened, a
// modem's port say, would take its number, and with it everything that is printed there. Main thread, before all else.
void keep_standard_descriptors();

// Flushes all output and ends the process with `status`, without running destructors under a live reader thread.
// Any thread.
[[noreturn]] void end_process(int status);
