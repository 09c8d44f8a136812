#include "machine.h"

namespace sim {

Machine::Machine(const fs::path& root, const MachineSettings& settings)
    : journal_(root / "modem/journal.txt"), modules_(root / "proc"), modem_(root, settings.modem, modules_, journal_),
      tools_(root, settings.failures, modules_, modem_, journal_)
{
    const fs::path device = root / "dev/bwan";
    fs::remove(device);
    if (settings.wifi_only)
        return;
    try {
        drivers_.emplace(root / drivers_mount, settings.bwan, modules_, modem_, journal_);
    } catch (const std::runtime_error& error) {
        obstacle_ = error.what();
        return;
    }
    fs::create_symlink(fs::path(drivers_in_sandbox) / "bwan", device);
}

void Machine::step(std::span<pollfd> others)
{
    std::vector<pollfd> watched(others.begin(), others.end());
    const size_t drivers_at = watched.size(), modules_at = drivers_at + 1;
    watched.push_back({drivers_ ? drivers_->fd() : -1, POLLIN, 0});
    watched.push_back({modules_.fd(), POLLIN, 0});
    tools_.watch(watched);
    modem_.step(watched);
    std::copy_n(watched.begin(), others.size(), others.begin());

    if (watched[modules_at].revents != 0) {
        modules_.seen();
        modem_.follow_modules();
    }
    if (watched[drivers_at].revents != 0)
        drivers_->serve();
    tools_.serve();
}

} // namespace sim
