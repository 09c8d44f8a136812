#include "journal.h"

#include "text.h"

#include <fcntl.h>

namespace sim {

Journal::Journal(const fs::path& path)
    : file_(must(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), path))
{
}

void Journal::request(std::string_view port, View packet) const
{
    constexpr size_t shown = 32;
    note("request " + std::string(port) + " " + std::to_string(packet.size()) + ": " + hex(packet, shown));
}

void Journal::note(std::string text) const
{
    append_line(file_.get(), std::move(text));
}

void Journal::complain(const std::string& text) const
{
    note("complaint: " + text);
}

} // namespace sim
