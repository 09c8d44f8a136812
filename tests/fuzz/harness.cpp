#include "tests/fuzz/harness.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// The linker leads the product's calls here.
[[noreturn]] void end_process_instead(int status) asm("__wrap__Z11end_processi");
int open_instead(const char* path, int flags, ...) asm("__wrap_open64");
int open_really(const char* path, int flags, ...) asm("__real_open64");
int stat_instead(const char* path, struct stat* status) asm("__wrap_stat64");
int stat_really(const char* path, struct stat* status) asm("__real_stat64");

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::map<std::string, NamelessFile, std::less<>> s_files;

bool is_of_tablet(std::string_view path)
{
    constexpr std::string_view folders[] = {"/data/", "/dev/", "/proc/", "/sys/"};
    return std::ranges::any_of(folders, [path](auto folder) { return path.starts_with(folder); }) &&
           !path.starts_with("/proc/self/") && path != "/dev/null";
}

} // namespace

uint8_t Input::u8()
{
    const uint8_t byte = left_.empty() ? uint8_t{0} : left_.front();
    left_ = left_.subspan(std::min<size_t>(left_.size(), 1));
    return byte;
}

uint16_t Input::u16()
{
    const uint8_t low = u8();
    return static_cast<uint16_t>(low | u8() << 8);
}

uint32_t Input::u32()
{
    const uint16_t low = u16();
    return low | static_cast<uint32_t>(u16()) << 16;
}

Bytes Input::bytes(size_t count)
{
    const auto taken = left_.first(std::min(count, left_.size()));
    left_ = left_.subspan(taken.size());
    return {taken.begin(), taken.end()};
}

std::string Input::text()
{
    const Bytes taken = piece();
    return {taken.begin(), taken.end()};
}

void require(bool holds, const char* what)
{
    if (holds)
        return;
    (void)fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

NamelessFile::NamelessFile(std::span<const uint8_t> contents) : fd_(memfd_create("fuzz", MFD_CLOEXEC))
{
    require(fd_.valid(), "a file can be made");
    const ssize_t written = pwrite(fd_.get(), contents.data(), contents.size(), 0);
    require(written == std::ssize(contents), "a file can be written");
}

std::string NamelessFile::path() const
{
    return "/proc/self/fd/" + std::to_string(fd_.get());
}

Bytes NamelessFile::contents() const
{
    struct stat status = {};
    require(fstat(fd_.get(), &status) == 0, "a file has a size");
    Bytes bytes(static_cast<size_t>(status.st_size));
    require(pread(fd_.get(), bytes.data(), bytes.size(), 0) == std::ssize(bytes), "a file can be read");
    return bytes;
}

void add_file(const std::string& path, std::span<const uint8_t> contents)
{
    s_files.insert_or_assign(path, NamelessFile(contents));
}

Bytes file_contents(const std::string& path)
{
    return s_files.at(path).contents();
}

void end_process_instead(int status)
{
    throw ProcessEnd{status};
}

int open_instead(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (!is_of_tablet(path))
        return open_really(path, flags, mode);
    const auto file = s_files.find(std::string_view(path));
    if (file != s_files.end())
        return open_really(file->second.path().c_str(), flags, mode);
    errno = ENOENT;
    return -1;
}

int stat_instead(const char* path, struct stat* status)
{
    if (!is_of_tablet(path))
        return stat_really(path, status);
    const auto file = s_files.find(std::string_view(path));
    if (file != s_files.end())
        return fstat(file->second.descriptor(), status);
    errno = ENOENT;
    return -1;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input({data, size});
    try {
        fuzz_one(input);
    } catch (const ProcessEnd&) { // NOLINT(bugprone-empty-catch): as good an end as any
    }
    s_files.clear();
    return 0;
}
