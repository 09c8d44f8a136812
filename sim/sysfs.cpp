#include "sysfs.h"

namespace sim {

namespace {

constexpr const char* network = "class/net/rmnet_usb0";

} // namespace

Sysfs::Sysfs(fs::path sys, SysfsSettings settings) : sys_(std::move(sys)), settings_(std::move(settings))
{
    for (const UsbPlace& place : usb_places)
        if (*place.directory != '\0')
            fs::remove_all(sys_ / place.directory);
    hide_network();
}

Sysfs::~Sysfs()
{
    hide_device();
    hide_network();
}

void Sysfs::show_device(UsbFace face)
{
    const fs::path directory = sys_ / settings_.place->directory;
    if (*settings_.place->directory == '\0' || std::exchange(device_, true))
        return;
    const fs::path interface = directory / (directory.filename().string() + ":1.0");
    fs::create_directories(interface);
    for (const UsbFile& file : usb_files) {
        std::optional<std::string> text = file.texts[static_cast<size_t>(face)];
        if (const auto given = settings_.texts.find(file.name); given != settings_.texts.end())
            text = given->second;
        if (text)
            write_file((file.of_interface ? interface : directory) / file.name, bytes_of(*text));
    }
}

void Sysfs::hide_device()
{
    std::error_code ignored; // the tablet's directory may be gone already
    if (std::exchange(device_, false))
        fs::remove_all(sys_ / settings_.place->directory, ignored);
}

void Sysfs::show_network()
{
    fs::create_directories(sys_ / network);
}

void Sysfs::hide_network()
{
    std::error_code ignored;
    fs::remove_all(sys_ / network, ignored);
}

} // namespace sim
