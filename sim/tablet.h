// The tablet: a directory that becomes the root of a sandbox, and the command that opens the sandbox.
//   dev/ proc/ sys/ data/ sdcard/ system/bin/   what a program in the tablet sees
//   modem/nv/ files/ memory/ kernel.log ...     the insides of the modem, outside the sandbox
#pragma once

#include "os.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sim {

// Lays out a tablet below `root`; what is there already stays as it is. `tessel` is linked into system/bin.
void make_tablet(const fs::path& root, const std::optional<fs::path>& tessel);

// Becomes the sandbox of the tablet and runs `command` in it. Comes back only as an exception.
[[noreturn]] void enter_tablet(const fs::path& root, const std::vector<std::string>& command);
// The same in a child, which dies with this process.
[[nodiscard]] pid_t start_in_tablet(const fs::path& root, const std::vector<std::string>& command);
// Exit status of a waited-for child, as a shell tells it.
[[nodiscard]] int exit_status(int wait_status);

// What keeps sandboxes from working on this machine, with its remedy; nothing when they work.
[[nodiscard]] std::optional<std::string> sandbox_obstacle();

// A directory for one tablet that goes away with this process, however the process ends: a helper process of its own
// session holds the other end of a pipe and removes the directory when the pipe breaks.
class TemporaryRoot {
public:
    TemporaryRoot();
    TemporaryRoot(const TemporaryRoot&) = delete;
    TemporaryRoot& operator=(const TemporaryRoot&) = delete;
    ~TemporaryRoot();

    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    fs::path path_;
    Fd lifeline_;
    pid_t helper_ = -1;
};

} // namespace sim
