#include "platform/os.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#ifdef TESSEL_COVERAGE
extern "C" void __gcov_dump(void); // NOLINT(bugprone-reserved-identifier,cert-dcl37-c): the compiler's name
#endif

// Packages and memory dumps are larger than 2 GiB; every build says so, also where files count 32 bits by default.
static_assert(sizeof(off_t) == 8);

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void UniqueFd::reset()
{
    if (fd_ >= 0)
        (void)close(std::exchange(fd_, -1)); // nothing to be done about a failing close
}

UniqueFile open_file(const std::string& path, const char* mode)
{
    return UniqueFile(fopen(path.c_str(), (std::string(mode) + "e").c_str()));
}

UniqueFile make_file(const std::string& path)
{
    constexpr mode_t for_all = 0666; // but for the umask
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, for_all));
    struct stat about {};
    if (!fd.valid() || fstat(fd.get(), &about) != 0)
        return nullptr;
    if (S_ISFIFO(about.st_mode)) {
        fd.reset();
        errno = EINVAL;
        return nullptr;
    }
    UniqueFile file(fdopen(fd.get(), "w+"));
    if (file)
        (void)fd.release();
    return file;
}

UniqueFile open_regular_file(const std::string& path)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat about {};
    if (!fd.valid() || fstat(fd.get(), &about) != 0)
        return nullptr;
    if (!S_ISREG(about.st_mode)) {
        fd.reset();
        errno = S_ISDIR(about.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    UniqueFile file(fdopen(fd.get(), "r"));
    if (file)
        (void)fd.release();
    return file;
}

bool read_line(FILE* file, std::string& line, size_t limit)
{
    line.clear();
    int c = fgetc(file);
    if (c == EOF)
        return false;
    for (; c != EOF && c != '\n'; c = fgetc(file))
        if (line.size() < limit)
            line += static_cast<char>(c);
    return true;
}

std::string format_text(const char* format, va_list arguments)
{
    va_list first_pass;
    va_copy(first_pass, arguments);
    const int length = vsnprintf(nullptr, 0, format, first_pass);
    va_end(first_pass);
    if (length < 0)
        return {};

    std::string text(static_cast<size_t>(length), '\0');
    (void)vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

std::string formatted(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = format_text(format, arguments);
    va_end(arguments);
    return text;
}

std::string printable(std::string_view text)
{
    std::string shown(text);
    for (char& c : shown) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7F)
            c = ' ';
    }
    return shown;
}

std::string error_text(int error)
{
    return std::generic_category().message(error);
}

int run_shell(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string command = format_text(format, arguments);
    va_end(arguments);
    (void)fflush(stdout);
    return system(command.c_str()); // NOLINT(concurrency-mt-unsafe): one caller, the main thread
}

std::string shell_quote(std::string_view text)
{
    constexpr std::string_view safe = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./-+,:@%=";
    if (!text.empty() && text.find_first_not_of(safe) == std::string_view::npos)
        return std::string(text);

    std::string word = "'";
    for (const char c : text) {
        if (c == '\'')
            word += "'\\''";
        else
            word += c;
    }
    return word += '\'';
}

std::string shell_quote_path(const std::string& path)
{
    return shell_quote(path.starts_with('-') ? "./" + path : path);
}

bool path_exists(const std::string& path)
{
    struct stat file_status {};
    return stat(path.c_str(), &file_status) == 0;
}

void keep_child_statuses()
{
    (void)signal(SIGCHLD, SIG_DFL);
}

void keep_standard_descriptors()
{
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR | O_CLOEXEC); // the lowest number that is free
    if (fd >= 0)
        (void)close(fd);
    for (fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        (void)fcntl(fd, F_SETFD, 0); // for commands, too
}

void end_process(int status)
{
    (void)fflush(nullptr);
#ifdef TESSEL_COVERAGE
    __gcov_dump();
#endif
    _exit(status);
}
