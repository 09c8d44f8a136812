#include "os.h"

#include "text.h"

#include <fcntl.h>

namespace sim {

namespace {

void write_all(int fd, View bytes, const std::string& what)
{
    while (!bytes.empty()) {
        const ssize_t written = write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR)
            continue;
        must(written < 0 ? -1 : 0, what);
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
}

} // namespace

std::optional<std::string> read_file(const fs::path& path)
{
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0)
        return std::nullopt;
    std::string text;
    std::string piece(64 * 1024, '\0');
    ssize_t count = 0;
    while ((count = read(file.get(), piece.data(), piece.size())) > 0)
        text.append(piece, 0, static_cast<size_t>(count));
    if (count < 0)
        return std::nullopt;
    return text;
}

void write_file(const fs::path& path, View bytes)
{
    const Fd file(must(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), path));
    write_all(file.get(), bytes, path);
}

void write_file(const fs::path& path, std::string_view text)
{
    write_file(path, bytes_of(text));
}

void append_line(int fd, std::string line)
{
    line += '\n';
    write_all(fd, bytes_of(line), "journal");
}

} // namespace sim
