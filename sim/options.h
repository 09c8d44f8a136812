// The command line of virtual_tablet.
#pragma once

#include "machine.h"
#include "tablet.h"

namespace sim {

enum class Job { command, serve, run, check, help };

struct Options {
    Job job = Job::command;
    std::optional<fs::path> root;
    std::optional<Mode> mode;
    std::optional<fs::path> nv;
    std::optional<fs::path> efs;
    std::optional<fs::path> flash;
    TabletSettings tablet;
    MachineSettings machine;
    std::vector<std::string> command;
};

// Throws UsageError.
[[nodiscard]] Options parse_options(std::vector<std::string_view> arguments);
[[nodiscard]] std::string help();

} // namespace sim
