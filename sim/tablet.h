// The tablet: a directory that becomes the root of a sandbox.
//   dev/ proc/ sys/ data/ sdcard/ system/       what a program in the tablet sees
//   drivers/                                    the files of its drivers, where they are mounted
//   modem/nv/ efs/ files/ memory/ kernel.log ... the insides of the modem, outside the sandbox
#pragma once

#include "os.h"

#include <sys/types.h>

namespace sim {

using Words = std::vector<std::string>;

// What the command line says about a tablet; what it does not say stays as it is in a tablet that is there already.
struct TabletSettings {
    std::optional<fs::path> tessel; // the program linked into system/bin
    std::optional<std::string> board_id;
    std::optional<std::vector<std::string>> modules; // loaded, in this order
    std::vector<std::string> missing_modules;        // files that system/lib/modules lacks
};

// Lays out a tablet below `root`.
void make_tablet(const fs::path& root, const TabletSettings& settings, bool wifi_only);

// Becomes the sandbox of the tablet and runs `command` in it. Comes back only as an exception.
[[noreturn]] void enter_tablet(const fs::path& root, const Words& command);

// The tablet of one command, and the command. A keeper process, in a process group of its own, is the parent of what
// runs in the sandbox. When this process lets go of it or dies, in whatever way, the keeper kills what is left in the
// sandbox and removes the tablet.
class Keeper {
public:
    // Without a root the tablet stands in a temporary directory, which goes away in the end.
    Keeper(const std::optional<fs::path>& root, const Words& command);
    Keeper(const Keeper&) = delete;
    Keeper(Keeper&&) = delete;
    Keeper& operator=(const Keeper&) = delete;
    Keeper& operator=(Keeper&&) = delete;
    ~Keeper();

    [[nodiscard]] const fs::path& root() const { return root_; }
    void start() const { signal(0); }
    void signal(unsigned number) const;
    // Readable once the command has ended; then `status` is its exit status, as a shell tells it.
    [[nodiscard]] int fd() const { return line_.get(); }
    [[nodiscard]] int status() const;

private:
    [[noreturn]] static void keep(int line, std::string name, bool temporary, const Words& command, pid_t group);

    fs::path root_;
    Fd line_;
    pid_t process_ = -1;
};

// What bwrap's failure to start means here, with the remedy. `said` is what it printed.
[[nodiscard]] std::string sandbox_obstacle(std::string_view said);

} // namespace sim
