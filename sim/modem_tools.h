// The tools fastboot and adb: what a host has of a modem in its boot loader, and of one that runs.
#pragma once

#include "modem.h"

namespace sim {

struct ToolOutcome {
    uint8_t status = 0;
    std::string message; // for standard output, or, if it failed, for standard error
};

// `file`: the last argument that names a file in the sandbox, open; none where there is none.
[[nodiscard]] ToolOutcome play_fastboot(std::span<const std::string> arguments, const Fd& file, Modem& modem,
                                        const Journal& journal);
[[nodiscard]] ToolOutcome play_adb(std::span<const std::string> arguments, Modem& modem);

} // namespace sim
