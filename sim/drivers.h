// The device files that programs of the tablet open, as a file system of its own (FUSE): the power files of driver
// bwan, its device, and bind and unbind of the USB host controller. A write or ioctl is carried out and in the journal
// before it returns to the program. The files of bwan are there while the module is loaded.
//
// The process that serves must never touch a path below the mount itself: it would wait for its own answer.
#pragma once

#include "modem.h"

#include <exception>

struct fuse_session;

namespace sim {

// What /dev/bwan is: a working device, not there, not to be opened, or one whose requests fail.
enum class Bwan { ok, missing, refused, failing };

// The mount, relative to the tablet, and where its parts show in the sandbox. The device is not bound, since it comes
// and goes: /dev/bwan is a link to it.
constexpr const char* drivers_mount = "drivers";
constexpr const char* drivers_in_sandbox = "/.drivers";
constexpr std::pair<const char*, const char*> driver_binds[] = {
    {"wan", "sys/wan"},
    {"msm-dwc3", "sys/bus/platform/drivers/msm-dwc3"},
};

class Drivers {
public:
    // Throws std::runtime_error with the reason and the remedy where FUSE cannot be used.
    Drivers(const fs::path& mount, Bwan bwan, const Modules& modules, Modem& modem, const Journal& journal);
    Drivers(const Drivers&) = delete;
    Drivers(Drivers&&) = delete;
    Drivers& operator=(const Drivers&) = delete;
    Drivers& operator=(Drivers&&) = delete;
    ~Drivers();

    // Readable when a program waits; -1 once somebody else has unmounted it.
    [[nodiscard]] int fd() const;
    void serve();

    // Takes away a mount that nobody serves any more; `release` first gives its guard the time to do it.
    static void take_away_dead(const fs::path& mount);
    static void release(const fs::path& mount);

private:
    struct Calls;
    struct File {
        mode_t mode;
        uid_t owner;
        gid_t group;
        std::string word; // the last one written
    };

    void unmount();
    [[nodiscard]] bool present(size_t file) const;
    [[nodiscard]] int write(size_t file, std::string_view text);
    [[nodiscard]] int control(size_t file, unsigned command, uintptr_t argument) const;

    Bwan bwan_;
    const Modules& modules_;
    Modem& modem_;
    const Journal& journal_;
    std::vector<File> files_;
    std::exception_ptr failure_; // of the call at hand, to be thrown once libfuse is done with it
    fuse_session* session_ = nullptr;
    bool mounted_ = false;
};

} // namespace sim
