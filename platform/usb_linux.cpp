#include "platform/usb_linux.h"

#include "app/product.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr size_t longest_path = 63;
constexpr size_t descriptors_size = 1024; // that much is read of a node
constexpr size_t bulk_chunk = 4096;
constexpr int read_retries = 5;

// Descriptors begin with their length and type; numbers in them are little-endian.
constexpr size_t length_at = 0, type_at = 1;

namespace device_descriptor {
constexpr uint8_t type = 1;
constexpr size_t class_at = 4, subclass_at = 5, protocol_at = 6, vendor_at = 8, product_at = 10, serial_index_at = 16;
constexpr size_t size = 18;
} // namespace device_descriptor

namespace configuration_descriptor {
constexpr uint8_t type = 2;
constexpr size_t interfaces_at = 4, size = 9;
} // namespace configuration_descriptor

namespace interface_descriptor {
constexpr uint8_t type = 4;
constexpr size_t number_at = 2, endpoints_at = 4, class_at = 5, subclass_at = 6, protocol_at = 7, size = 9;
} // namespace interface_descriptor

namespace endpoint_descriptor {
constexpr uint8_t type = 5;
constexpr size_t address_at = 2, attributes_at = 3, size = 7;
constexpr uint8_t direction_in = 0x80;
constexpr uint8_t transfer_mask = 3, transfer_bulk = 2;
} // namespace endpoint_descriptor

// The request for a string descriptor, in language 0: its header, then UTF-16 units.
namespace string_request {
constexpr uint8_t device_to_host = 0x80, get_descriptor = 6;
constexpr uint16_t string_type = 0x0300; // the string's index in the low byte
constexpr size_t size = 256;
constexpr uint32_t time_out = 50; // milliseconds
} // namespace string_request

// What fastboot and adb share; the protocol tells them apart.
constexpr uint16_t known_vendors[] = {0x18D1, 0x0451, 0x05C6, TABLET_USB_VID};
constexpr uint8_t vendor_specific_class = 0xFF, debug_subclass = 0x42;
constexpr uint8_t adb_protocol = 1, fastboot_protocol = 3;

int32_t s_fastboot_devices = 0;
int32_t s_adb_devices = 0;

uint16_t le16(std::span<const uint8_t> descriptor, size_t offset)
{
    return static_cast<uint16_t>(descriptor[offset] | descriptor[offset + 1] << 8);
}

// Whether a whole descriptor of this type, with at least `size` bytes, stands at the start of `rest`: 0, or -1.
int32_t check(std::span<const uint8_t> rest, uint8_t type, size_t size)
{
    if (rest.size() < size || rest[length_at] < size || rest[length_at] > rest.size() || rest[type_at] != type)
        return -1;
    return 0;
}

// Takes the descriptor at the start of `rest` off it. Empty when check() refuses it.
std::span<const uint8_t> take(std::span<const uint8_t>& rest, uint8_t type, size_t size)
{
    if (check(rest, type, size) != 0)
        return {};
    const auto descriptor = rest.first(rest[length_at]);
    rest = rest.subspan(descriptor.size());
    return descriptor;
}

// Buses and devices are named by numbers: 1 for any other name, else 0.
int32_t badname(const std::string& name)
{
    return name.find_first_not_of("0123456789") == std::string::npos ? 0 : 1;
}

struct DirectoryCloser {
    void operator()(DIR* stream) const { (void)closedir(stream); }
};
using UniqueDirectory = std::unique_ptr<DIR, DirectoryCloser>;

// Paths of what has a number for a name in a directory, sorted; none when it cannot be read.
std::vector<std::string> numbered_entries(const std::string& directory)
{
    std::vector<std::string> paths;
    const UniqueDirectory stream(opendir(directory.c_str()));
    if (!stream)
        return paths;
    while (const dirent* entry = readdir(stream.get())) // NOLINT(concurrency-mt-unsafe): a stream of our own
        if (badname(entry->d_name) == 0)
            paths.push_back(directory + "/" + entry->d_name);
    std::ranges::sort(paths);
    return paths;
}

// The text of the device's string descriptor `index`: low bytes of its characters. Empty when it does not answer.
std::string read_string(int fd, uint8_t index)
{
    using namespace string_request;
    std::array<uint8_t, size> descriptor{};
    usbdevfs_ctrltransfer request{};
    request.bRequestType = device_to_host;
    request.bRequest = get_descriptor;
    request.wValue = static_cast<uint16_t>(string_type | index);
    request.wIndex = 0;
    request.wLength = size;
    request.timeout = time_out;
    request.data = descriptor.data();
    const int length = ioctl(fd, USBDEVFS_CONTROL, &request);

    std::string text;
    const size_t end = std::min(static_cast<size_t>(std::max(length, 0)) / 2 * 2, size);
    for (size_t i = 2; i < end && descriptor[i] != 0; i += 2)
        text += static_cast<char>(descriptor[i]);
    return text;
}

// Opens a node to write, or else to read only. What stands there under a device's name need not be one: the open must
// not wait for a pipe's other end.
UniqueFd open_node(const std::string& path, bool& writable)
{
    constexpr int flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    UniqueFd fd(open(path.c_str(), O_RDWR | flags));
    writable = fd.valid();
    if (!writable)
        fd = UniqueFd(open(path.c_str(), O_RDONLY | flags));
    return fd;
}

// The handle of the interface that the matcher selects of one device, claimed; none when it selects none.
std::unique_ptr<UsbHandle> open_device(const std::string& path, const UsbMatcher& matcher)
{
    if (path.size() > longest_path)
        return nullptr;
    bool writable = false;
    UniqueFd fd = open_node(path, writable);
    std::array<uint8_t, descriptors_size> descriptors{};
    const ssize_t length = fd.valid() ? read(fd.get(), descriptors.data(), descriptors.size()) : -1;
    if (length < 0)
        return nullptr;

    auto handle = std::make_unique<UsbHandle>();
    uint8_t interface_number = 0;
    if (filter_usb_device(fd.get(), std::span(descriptors).first(static_cast<size_t>(length)), writable, matcher,
                          handle->endpoint_in, handle->endpoint_out, interface_number) != 0)
        return nullptr;
    unsigned int claimed = interface_number;
    if (ioctl(fd.get(), USBDEVFS_CLAIMINTERFACE, &claimed) != 0)
        return nullptr;
    handle->path = path;
    handle->fd = std::move(fd);
    return handle;
}

// One bulk transfer, at most a chunk. Bytes moved, or negative with errno.
int bulk_transfer(const UsbHandle& handle, uint8_t endpoint, std::span<uint8_t> chunk)
{
    usbdevfs_bulktransfer bulk{};
    bulk.ep = endpoint;
    bulk.len = static_cast<unsigned int>(chunk.size());
    bulk.timeout = 0;
    bulk.data = chunk.data();
    return ioctl(handle.fd.get(), USBDEVFS_BULK, &bulk);
}

int32_t match_protocol(const UsbInterfaceInfo& info, uint8_t protocol)
{
    const bool is_match = std::ranges::find(known_vendors, info.vendor_id) != std::end(known_vendors) &&
                          info.interface_class == vendor_specific_class && info.interface_subclass == debug_subclass &&
                          info.interface_protocol == protocol;
    return is_match ? 0 : -1;
}

// Whoever reads the list takes a line for a device, so a serial number must not be able to forge one.
std::string listed_name(const UsbInterfaceInfo& info)
{
    if (info.writable == 0)
        return "no permissions";
    if (info.serial_number.empty())
        return "????????????";
    return printable(info.serial_number);
}

} // namespace

std::unique_ptr<UsbHandle> usb_open(const UsbMatcher& matcher)
{
    return find_usb_device("/dev/bus/usb", matcher);
}

std::unique_ptr<UsbHandle> find_usb_device(const std::string& base, const UsbMatcher& matcher)
{
    for (const std::string& bus : numbered_entries(base))
        for (const std::string& node : numbered_entries(bus))
            if (auto handle = open_device(node, matcher))
                return handle;
    return nullptr;
}

int32_t filter_usb_device(int fd, std::span<const uint8_t> descriptors, bool writable, const UsbMatcher& matcher,
                          uint8_t& endpoint_in, uint8_t& endpoint_out, uint8_t& interface_number)
{
    auto rest = descriptors;
    const auto device = take(rest, device_descriptor::type, device_descriptor::size);
    const auto configuration = take(rest, configuration_descriptor::type, configuration_descriptor::size);
    if (device.empty() || configuration.empty())
        return -1;

    UsbInterfaceInfo info;
    info.vendor_id = le16(device, device_descriptor::vendor_at);
    info.product_id = le16(device, device_descriptor::product_at);
    info.device_class = device[device_descriptor::class_at];
    info.device_subclass = device[device_descriptor::subclass_at];
    info.device_protocol = device[device_descriptor::protocol_at];
    info.writable = writable ? 1 : 0;
    if (const uint8_t index = device[device_descriptor::serial_index_at]; index != 0)
        info.serial_number = read_string(fd, index);

    for (uint8_t i = 0; i < configuration[configuration_descriptor::interfaces_at]; ++i) {
        const auto interface = take(rest, interface_descriptor::type, interface_descriptor::size);
        if (interface.empty())
            return -1;
        uint8_t in = 0;
        uint8_t out = 0;
        for (uint8_t j = 0; j < interface[interface_descriptor::endpoints_at]; ++j) {
            using namespace endpoint_descriptor;
            const auto endpoint = take(rest, type, size);
            if (endpoint.empty())
                return -1;
            if ((endpoint[attributes_at] & transfer_mask) != transfer_bulk)
                continue;
            const uint8_t address = endpoint[address_at];
            ((address & direction_in) != 0 ? in : out) = address;
        }
        info.has_bulk_in = in != 0 ? 1 : 0;
        info.has_bulk_out = out != 0 ? 1 : 0;
        info.interface_class = interface[interface_descriptor::class_at];
        info.interface_subclass = interface[interface_descriptor::subclass_at];
        info.interface_protocol = interface[interface_descriptor::protocol_at];
        if (matcher(&info) != 0)
            continue;
        endpoint_in = in;
        endpoint_out = out;
        interface_number = interface[interface_descriptor::number_at];
        return 0;
    }
    return -1;
}

int64_t usb_read(UsbHandle& handle, std::span<uint8_t> buffer)
{
    if (handle.endpoint_in == 0 || !handle.fd.valid())
        return -1;
    size_t total = 0;
    while (total < buffer.size()) {
        const auto chunk = buffer.subspan(total, std::min(bulk_chunk, buffer.size() - total));
        int moved = bulk_transfer(handle, handle.endpoint_in, chunk);
        for (int retry = 0; moved < 0 && retry < read_retries; ++retry) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            moved = bulk_transfer(handle, handle.endpoint_in, chunk);
        }
        if (moved < 0)
            return -1;
        total += std::min(static_cast<size_t>(moved), chunk.size());
        if (static_cast<size_t>(moved) < chunk.size())
            break;
    }
    return static_cast<int64_t>(total);
}

int64_t usb_write(UsbHandle& handle, std::span<const uint8_t> data)
{
    if (handle.endpoint_out == 0 || !handle.fd.valid())
        return -1;
    if (data.empty()) {
        if (const int n = bulk_transfer(handle, handle.endpoint_out, {}); n != 0) {
            const int error = errno;
            (void)fprintf(stderr, "ERROR: n = %d, errno = %d (%s)\n", n, error, error_text(error).c_str());
            return -1;
        }
        return 0;
    }
    std::array<uint8_t, bulk_chunk> buffer{}; // the driver's interface wants one it could write to
    for (size_t total = 0; total < data.size();) {
        const auto chunk = std::span(buffer).first(std::min(bulk_chunk, data.size() - total));
        std::ranges::copy(data.subspan(total, chunk.size()), chunk.begin());
        const int moved = bulk_transfer(handle, handle.endpoint_out, chunk);
        if (moved < 0 || static_cast<size_t>(moved) != chunk.size())
            return -1;
        total += chunk.size();
    }
    return static_cast<int64_t>(data.size());
}

int32_t usb_kick(UsbHandle& handle)
{
    return usb_close(handle);
}

int32_t usb_close(UsbHandle& handle)
{
    handle.fd.reset();
    return 0;
}

int32_t list_devices(int32_t kind)
{
    s_fastboot_devices = 0;
    s_adb_devices = 0;
    if (kind != USB_FASTBOOT && kind != USB_ADB) {
        printf("Invalid device type\n");
        return 0;
    }
    (void)usb_open(kind == USB_FASTBOOT ? list_devices_callback : list_adb_devices_callback); // selects nothing
    return kind == USB_FASTBOOT ? s_fastboot_devices : s_adb_devices;
}

int32_t list_devices_callback(const UsbInterfaceInfo* info)
{
    if (match_fastboot(info) == 0) {
        printf("%s\tfastboot\n", listed_name(*info).c_str());
        ++s_fastboot_devices;
    }
    return -1;
}

int32_t list_adb_devices_callback(const UsbInterfaceInfo* info)
{
    if (match_adb(info) == 0) {
        printf("%s\tdevice\n", listed_name(*info).c_str());
        ++s_adb_devices;
    }
    return -1;
}

int32_t match_fastboot(const UsbInterfaceInfo* info)
{
    return match_protocol(*info, fastboot_protocol);
}

int32_t match_adb(const UsbInterfaceInfo* info)
{
    return match_protocol(*info, adb_protocol);
}
