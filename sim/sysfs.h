// What the kernel shows of the modem in /sys: the USB device with its first interface, and the network device.
#pragma once

#include "os.h"

#include <map>

namespace sim {

// Where each kind of tablet has its modem: the word on the command line, and the device's directory below /sys.
struct UsbPlace {
    std::string_view word;
    const char* directory; // empty: the device is shown nowhere
};

constexpr UsbPlace usb_places[] = {
    {"1-1", "devices/msm_ehci_host/usb1/1-1"},
    {"2-1", "devices/msm_ehci_host/usb2/2-1"},
    {"1-2", "bus/usb/devices/usb1/1-2"},
    {"none", ""},
};

// What a modem on the bus shows itself as: one that runs, one that loads (DLOAD and flash programmers), its boot
// loader.
enum class UsbFace : uint8_t { running, loading, fastboot };

// A file of the device and what it says, by face.
struct UsbFile {
    std::string_view name;
    bool of_interface; // in the subdirectory of interface 0
    const char* texts[3];
};

constexpr UsbFile usb_files[] = {
    {"idVendor", false, {"05c6\n", "05c6\n", "18d1\n"}},    {"idProduct", false, {"9025\n", "9008\n", "d00d\n"}},
    {"bInterfaceClass", true, {"ff\n", "ff\n", "ff\n"}},    {"bInterfaceSubClass", true, {"ff\n", "ff\n", "42\n"}},
    {"bInterfaceProtocol", true, {"ff\n", "ff\n", "03\n"}},
};

struct SysfsSettings {
    const UsbPlace* place = usb_places;
    // Texts instead of the device's own, by file name; nothing leaves the file out.
    std::map<std::string, std::optional<std::string>, std::less<>> texts;
};

class Sysfs {
public:
    // Begins with nothing to see: a tablet that was killed leaves its modem behind.
    Sysfs(fs::path sys, SysfsSettings settings);
    Sysfs(const Sysfs&) = delete;
    Sysfs(Sysfs&&) = delete;
    Sysfs& operator=(const Sysfs&) = delete;
    Sysfs& operator=(Sysfs&&) = delete;
    ~Sysfs();

    void show_device(UsbFace face);
    void hide_device();
    void show_network();
    void hide_network();

private:
    fs::path sys_;
    SysfsSettings settings_;
    bool device_ = false;
};

} // namespace sim
