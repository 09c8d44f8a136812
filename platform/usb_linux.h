// Finds USB devices by their descriptors, in the device nodes under /dev/bus/usb, and moves bulk data to and from one.
// The scan offers every interface of every device to a matcher; list_devices counts with it.
//
// Unreadable nodes and malformed descriptors only make their device unmatched, silently. Main thread.
#pragma once

#include "platform/os.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

// One interface of one device, as its descriptors tell.
struct UsbInterfaceInfo {
    uint16_t vendor_id = 0;
    uint16_t product_id = 0;
    uint8_t device_class = 0;
    uint8_t device_subclass = 0;
    uint8_t device_protocol = 0;
    uint8_t interface_class = 0;
    uint8_t interface_subclass = 0;
    uint8_t interface_protocol = 0;
    uint8_t has_bulk_in = 0;
    uint8_t has_bulk_out = 0;
    uint8_t writable = 0;      // the node could be opened for writing
    std::string serial_number; // at most 255 characters, empty when the device has none
};

// 0 selects the interface, anything else passes on.
using UsbMatcher = std::function<int32_t(const UsbInterfaceInfo*)>;

// A claimed interface. The owner frees it, which closes the node, too.
struct UsbHandle {
    std::string path; // of the node, up to 63 characters
    UniqueFd fd;
    uint8_t endpoint_in = 0; // addresses of the bulk endpoints, 0 where there is none
    uint8_t endpoint_out = 0;
};

// The first interface under /dev/bus/usb that the matcher selects and that can be claimed, or none.
[[nodiscard]] std::unique_ptr<UsbHandle> usb_open(const UsbMatcher& matcher);

// The same under `base`, which holds a directory a bus and in it a node a device, named by numbers. Buses and devices
// come in the order of their names.
[[nodiscard]] std::unique_ptr<UsbHandle> find_usb_device(const std::string& base, const UsbMatcher& matcher);

// Offers the interfaces of one device to the matcher. `descriptors` is what the node `fd` gave: device descriptor,
// configuration, its interfaces and their endpoints. 0 when the matcher selected one, its bulk endpoints (0 for none)
// and number in the last three; else -1 and these untouched. A descriptor of another kind in between ends the walk.
[[nodiscard]] int32_t filter_usb_device(int fd, std::span<const uint8_t> descriptors, bool writable,
                                        const UsbMatcher& matcher, uint8_t& endpoint_in, uint8_t& endpoint_out,
                                        uint8_t& interface_number);

// Bulk transfers in chunks of 4096 bytes, each waited for without limit. Bytes moved, or -1: the handle is closed
// or has no such endpoint, or a transfer failed. An empty write sends one empty transfer, whose failure is told on
// standard error. A read ends with the first short transfer; one that fails is tried 5 times more, a second apart.
[[nodiscard]] int64_t usb_read(UsbHandle& handle, std::span<uint8_t> buffer);
[[nodiscard]] int64_t usb_write(UsbHandle& handle, std::span<const uint8_t> data);

// Both close the node and leave the handle, closed, to its owner. 0.
int32_t usb_kick(UsbHandle& handle);
int32_t usb_close(UsbHandle& handle);

enum UsbDeviceKind : int32_t { USB_FASTBOOT = 0, USB_ADB = 1 };

// Counts the devices of a kind and prints a line for each: serial number, tab, "fastboot" or "device". "no
// permissions" stands for the serial number where the node cannot be written.
[[nodiscard]] int32_t list_devices(int32_t kind);

// The matchers of the count: they print and count what is of their kind, and select nothing.
[[nodiscard]] int32_t list_devices_callback(const UsbInterfaceInfo* info);
[[nodiscard]] int32_t list_adb_devices_callback(const UsbInterfaceInfo* info);

// Whether an interface is of their kind: 0, or -1.
[[nodiscard]] int32_t match_fastboot(const UsbInterfaceInfo* info);
[[nodiscard]] int32_t match_adb(const UsbInterfaceInfo* info);
