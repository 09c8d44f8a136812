// The modem's port while the modem comes, goes and changes its service. Main thread.
#pragma once

#include <cstdint>
#include <string>

// Waits for the device file `path`, looking once a second and up to `seconds` times. 1 as soon as it exists, else 0
// with a WARNING.
[[nodiscard]] int32_t WaitForDiagPort(const std::string& path, int32_t seconds);
