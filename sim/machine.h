// Everything behind the screen of a tablet that is served: modem, kernel modules, drivers and tools, in one loop.
#pragma once

#include "drivers.h"
#include "tools.h"

namespace sim {

struct MachineSettings {
    ModemSettings modem;
    Bwan bwan = Bwan::ok;
    bool wifi_only = false; // no modem, and nothing that would drive one
    std::vector<ToolFailure> failures;
};

class Machine {
public:
    Machine(const fs::path& root, const MachineSettings& settings);

    // Why the tablet has no power files; empty when it has them, or needs none.
    [[nodiscard]] const std::string& obstacle() const { return obstacle_; }

    // Waits until one of `others` is ready or there is something to do, and does it.
    void step(std::span<pollfd> others);

private:
    Journal journal_;
    Modules modules_;
    Modem modem_;
    Tools tools_;
    std::optional<Drivers> drivers_;
    std::string obstacle_;
};

} // namespace sim
