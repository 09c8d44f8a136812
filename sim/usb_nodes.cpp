#include "usb_nodes.h"

#include <array>

namespace sim {

namespace {

// Class, subclass, protocol; each interface has a bulk endpoint in either direction.
using Interface = std::array<uint8_t, 3>;
constexpr Interface serial{0xFF, 0xFF, 0xFF}, adb{0xFF, 0x42, 0x01}, fastboot{0xFF, 0x42, 0x03};

constexpr uint16_t modem_vendor = 0x05C6, running_product = 0x9025, loading_product = 0x9008;
constexpr uint16_t boot_loader_vendor = 0x18D1, boot_loader_product = 0xD00D;

Bytes device(uint16_t vendor, uint16_t product, const std::vector<Interface>& interfaces)
{
    Bytes configuration;
    uint8_t number = 0;
    for (const auto& [kind, subkind, protocol] : interfaces) {
        const uint8_t endpoint = number + 1, in = endpoint | 0x80;
        add(configuration, Bytes{9, 4, number++, 0, 2, kind, subkind, protocol, 0});
        add(configuration, Bytes{7, 5, in, 2, 0x00, 0x02, 0});
        add(configuration, Bytes{7, 5, endpoint, 2, 0x00, 0x02, 0});
    }
    // USB 2.0, packets of 64 bytes; maker, product and serial number are texts 1 to 3; one configuration.
    Bytes all{18, 1, 0x00, 0x02, 0, 0, 0, 64};
    add_le16(all, vendor);
    add_le16(all, product);
    add(all, Bytes{0x00, 0x01, 1, 2, 3, 1});
    // Powered by itself, no text.
    constexpr size_t head = 9;
    add(all, Bytes{head, 2});
    add_le16(all, static_cast<uint32_t>(head + configuration.size()));
    add(all, Bytes{number, 1, 0, 0xC0, 0});
    add(all, configuration);
    return all;
}

} // namespace

Bytes usb_fastboot_device()
{
    return device(boot_loader_vendor, boot_loader_product, {fastboot});
}

Bytes usb_adb_device()
{
    return device(boot_loader_vendor, running_product, {adb});
}

UsbNodes::UsbNodes(const fs::path& dev, UsbNodesSettings settings)
    : bus_(dev / "bus/usb/001"), settings_(std::move(settings))
{
    fs::remove_all(bus_); // a tablet that was killed leaves its devices behind
    fs::create_directories(bus_);
    for (const Bytes& descriptors : settings_.others)
        write_file(next_node(), descriptors);
}

fs::path UsbNodes::next_node()
{
    constexpr unsigned most = 127, first = 2;
    std::string name;
    do {
        last_number_ = last_number_ == most ? first : last_number_ + 1;
        name = std::to_string(last_number_);
        name.insert(0, 3 - name.size(), '0');
    } while (fs::exists(bus_ / name));
    return bus_ / name;
}

void UsbNodes::show(UsbFace face)
{
    if (!modem_.empty())
        return;
    modem_ = next_node();
    std::vector<Interface> running{serial};
    if (settings_.adb)
        running.push_back(adb);
    write_file(modem_, face == UsbFace::fastboot  ? usb_fastboot_device()
                       : face == UsbFace::loading ? device(modem_vendor, loading_product, {serial})
                                                  : device(modem_vendor, running_product, running));
}

void UsbNodes::hide()
{
    std::error_code ignored; // the tablet's directory may be gone already
    if (!modem_.empty())
        fs::remove(std::exchange(modem_, {}), ignored);
}

} // namespace sim
