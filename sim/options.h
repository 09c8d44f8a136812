// The command line of virtual_tablet.
#pragma once

#include "modem.h"

#include <optional>
#include <string>
#include <vector>

namespace sim {

enum class Job { command, serve, run, check, help };

struct Options {
    Job job = Job::command;
    std::optional<fs::path> root;
    std::optional<fs::path> tessel;
    std::optional<fs::path> nv;
    std::optional<fs::path> efs;
    ModemSettings modem;
    std::vector<std::string> command;
};

// Throws UsageError.
[[nodiscard]] Options parse_options(std::vector<std::string_view> arguments);
[[nodiscard]] std::string help();

} // namespace sim
