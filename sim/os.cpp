#include "os.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace sim {

namespace {

void write_with(const fs::path& path, int mode, View bytes)
{
    const Fd file(must(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | mode, 0644), path));
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

ErrorCapture::ErrorCapture() : terminal_(must(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3), "standard error"))
{
    std::array<int, 2> ends{};
    must(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), "pipe");
    reader_ = Fd(ends[0]);
    const Fd writer(ends[1]);
    must(dup2(writer.get(), STDERR_FILENO), "dup2");
}

std::string ErrorCapture::said()
{
    restore();
    std::array<char, 4096> text{};
    const ssize_t count = read(reader_.get(), text.data(), text.size());
    return {text.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))};
}

void ErrorCapture::restore()
{
    if (terminal_.get() >= 0)
        (void)dup2(terminal_.get(), STDERR_FILENO);
    terminal_.close();
}

std::vector<char*> argument_vector(std::vector<std::string>& words)
{
    std::vector<char*> arguments(words.size() + 1, nullptr);
    std::ranges::transform(words, arguments.begin(), [](std::string& word) { return word.data(); });
    return arguments;
}

int run_quietly(std::vector<std::string> words)
{
    const std::vector<char*> arguments = argument_vector(words);
    posix_spawn_file_actions_t actions;
    must(posix_spawn_file_actions_init(&actions) == 0 ? 0 : -1, "spawn");
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    pid_t child = -1;
    const int error = posix_spawnp(&child, arguments.front(), &actions, nullptr, arguments.data(), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    if (error != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

std::optional<std::string> read_file(const fs::path& path, size_t most)
{
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string text;
    std::array<char, 65536> piece{};
    ssize_t count = 0;
    while (text.size() <= most && (count = read(file.get(), piece.data(), piece.size())) > 0)
        text.append(piece.data(), static_cast<size_t>(count));
    return count < 0 || text.size() > most ? std::nullopt : std::optional(text);
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
