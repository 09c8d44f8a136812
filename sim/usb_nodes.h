// The nodes below /dev/bus/usb/001, by which programs look for devices on the bus: plain files with the descriptors of
// each. A modem gets a new number whenever it comes back. A plain file answers no control request, so a device has no
// serial number that could be read.
#pragma once

#include "sysfs.h"

namespace sim {

struct UsbNodesSettings {
    bool adb = true;           // a running modem has an adb interface
    std::vector<Bytes> others; // descriptors of further devices, there from the beginning
};

// What a device says that is in fastboot mode or has adb, to be used for `others`.
[[nodiscard]] Bytes usb_fastboot_device();
[[nodiscard]] Bytes usb_adb_device();

class UsbNodes {
public:
    // `dev`: the tablet's.
    UsbNodes(const fs::path& dev, UsbNodesSettings settings);
    UsbNodes(const UsbNodes&) = delete;
    UsbNodes(UsbNodes&&) = delete;
    UsbNodes& operator=(const UsbNodes&) = delete;
    UsbNodes& operator=(UsbNodes&&) = delete;
    ~UsbNodes() { hide(); }

    void show(UsbFace face);
    void hide();

private:
    [[nodiscard]] fs::path next_node();

    fs::path bus_;
    UsbNodesSettings settings_;
    unsigned last_number_ = 1; // that of the host controller
    fs::path modem_;           // empty while it is away
};

} // namespace sim
