// Command lines made of what a user typed. Main thread.
#pragma once

#include <cstdint>
#include <string>

// Whether a command line may be run. One of more than 511 characters is refused with a line on standard output.
[[nodiscard]] bool command_fits(const std::string& command);

// Prints `command` and runs it, then prints its raw status, which is returned.
int32_t run_shown(const std::string& command);
