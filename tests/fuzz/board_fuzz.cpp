// What the kernel's files say of board, modem and modules.
#include "platform/board.h"

#include "mdmctrl/kernel_modules.h"
#include "tests/fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

void read_board()
{
    // Nothing may be written behind the sixteen.
    std::array<char, board_id_size + 1> id{};
    id[board_id_size - 1] = id[board_id_size] = '#';
    if (read_board_id(id) == 0)
        require(id[board_id_size - 1] == '#' && id[board_id_size] == '#', "an id has 16 characters");
    const int32_t type = get_device_type2();
    require(type == DEVICE_UNKNOWN || (type >= DEVICE_OSPREY && type <= DEVICE_QUAIL), "a type is known or not");
    std::array<char, board_id_size> again{};
    (void)get_board_id(again);
    require(again.back() == '\0', "an id ends");
    if (const char* description = get_device_desc())
        require(strlen(description) <= 63, "a description is cut");
}

void read_modem()
{
    uint16_t vid = 0, pid = 0;
    (void)get_usb_vidpid(vid, pid);
    uint8_t device_class = 0, subclass = 0, protocol = 0;
    (void)get_usb_classes(device_class, subclass, protocol);
}

} // namespace

void fuzz_one(Input& input)
{
    constexpr const char* files[] = {
        "/proc/vpd/board_id",
        "/proc/board_id",
        "/proc/product_name",
        "/proc/product_name_extra",
        "/proc/version",
        "/proc/modules",
        "/sys/devices/msm_ehci_host/usb1/1-1/",
        "/sys/devices/msm_ehci_host/usb1/1-1/idVendor",
        "/sys/devices/msm_ehci_host/usb1/1-1/idProduct",
        "/sys/devices/msm_ehci_host/usb1/1-1/1-1:1.0/",
        "/sys/devices/msm_ehci_host/usb1/1-1/1-1:1.0/bInterfaceClass",
        "/sys/devices/msm_ehci_host/usb1/1-1/1-1:1.0/bInterfaceSubClass",
        "/sys/devices/msm_ehci_host/usb1/1-1/1-1:1.0/bInterfaceProtocol",
    };
    const uint16_t present = input.u16();
    for (size_t i = 0; i < std::size(files); ++i) {
        if ((present >> i & 1) != 0)
            add_file(files[i], input.piece());
    }
    read_board();
    read_modem();
    (void)get_os_version();
    require((check_loaded_modules() == 0) == ((present >> 5 & 1) != 0), "a list that is there is read");
}
