// tessel mdmctrl: switches the modem and its USB link, and brings its kernel modules in and out.
//
//   mdmctrl [-o] COMMAND [ARGUMENT]
//
//   -o   copy the log to standard output; only as the first word
//   -h   usage; only as the first word
//
// COMMAND is a row of supported_mdm_control_ops below, in any case of letters. Exit status: the command's result (see
// MdmStatus, and kernel_modules.h for the module codes); 1 for an unknown command, for "power" without its argument and
// with a wrong one (and the usage), else 2 with the usage.
//
// Oddities kept on purpose, since callers live with them:
//   - An unknown command says nothing.
//   - "wanrecover" does what "wanreset2" does; power_wan_recover is reached by no command.
//   - A modem that never shows up gives 26 after "wanon", 25 after "qmion", 1 after "wanreset".
//   - After the last failed attempt of a power-on the modem is reset once more, and left to itself.
//   - "loadusb", "loadqmi" and "loadwan" do not look at what is loaded: a module that is fails them.

#include "mdmctrl/mdmctrl.h"

#include "app/applet_log.h"
#include "app/product.h"
#include "app/wan_common.h"
#include "mdmctrl/kernel_modules.h"
#include "platform/board.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr int version_major = 2;
constexpr int version_minor = 1;

constexpr const char* power_file = "/sys/wan/power";
constexpr const char* usb_enable_file = "/sys/wan/usben";
constexpr const char* bwan_device = "/dev/bwan";
constexpr unsigned long bwan_reset_host = 0xAA01; // ioctl request of the power driver, argument 0

constexpr const char* mdm_diag_port = "/dev/ttyUSB0";
constexpr const char* mdm_normal_ports[] = {"/dev/ttyUSB1", "/dev/ttyUSB2"}; // only in normal mode
constexpr const char* mdm_rmnet0_if = "/sys/class/net/rmnet_usb0";

// A control word, a blank, and the byte that the driver takes for it.
constexpr const char* mdmctrl_off = "off 0";
constexpr const char* mdmctrl_on = "on 1";
constexpr const char* mdmctrl_reset = "reset 2";

constexpr int polls = 30; // of a modem that is coming up, one a second
constexpr int attempts = 2;
constexpr auto settle_time = 1s;      // from power to link
constexpr auto host_reset_time = 5ms; // before the modem is powered again

struct UsbId {
    uint16_t vendor;
    uint16_t product;
    bool operator==(const UsbId&) const = default;
};
constexpr UsbId normal_mdm_pairs[] = {{0x05C6, 0x9018}, {0x05C6, 0x9025}};
constexpr UsbId dload_mdm_pairs[] = {{0x05C6, 0x9008}};

// Class, subclass and protocol of interface 0.
using UsbClass = std::array<uint8_t, 3>;
constexpr UsbClass tablet_dload_class = {0xFF, 0x0B, 0x01}; // with the tablet maker's own vendor id

// A command has one of the handlers, or none: reserved, and not in the usage.
struct MdmControlOp {
    const char* name;
    int32_t (*handler)();
    int32_t (*handler_of_word)(const char* word); // takes the argument
};

// clang-format off
constexpr MdmControlOp supported_mdm_control_ops[] = {
    // name          handler               handler of a word
    {"qmion",        power_qmi_on,         nullptr},
    {"wanon",        power_wan_on,         nullptr},
    {"wanoff",       power_wan_off,        nullptr},
    {"wanontph",     power_wan_on,         nullptr},
    {"wanreset",     power_wan_reset,      nullptr},
    {"wanrecover",   power_wan_reset2,     nullptr},
    {"devicewake",   nullptr,              nullptr},
    {"devicesleep",  nullptr,              nullptr},
    {"power",        nullptr,              power_wan},
    {"loadall",      load_all_modules,     nullptr},
    {"unloadall",    unload_all_modules,   nullptr},
    {"loadusb",      load_usb_modules,     nullptr},
    {"loadwan",      load_wan_module,      nullptr},
    {"loadqmi",      load_qmi_modules,     nullptr},
    {"board_id",     fetch_board_id,       nullptr},
    {"ehci_reset",   ehci_reset,           nullptr},
    {"wanreset2",    power_wan_reset2,     nullptr},
};
// clang-format on
static_assert(std::size(supported_mdm_control_ops) == 17);

// Neither waits for a carrier nor takes the port as a controlling terminal.
bool can_open(const std::string& port)
{
    const UniqueFd fd(open(port.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    return fd.get() > 0;
}

// Asks once a second until `there(path)`. 0, or 25 when the time is over.
int32_t poll_for(bool (*there)(const std::string&), const char* path)
{
    for (int i = 0; i < polls; ++i) {
        if (there(path))
            return 0;
        std::this_thread::sleep_for(1s);
    }
    return MDM_NOT_ENUMERATED;
}

void switch_on()
{
    // A driver file that fails was logged; whether the modem comes up decides.
    (void)wan_control("on");
    std::this_thread::sleep_for(settle_time);
    (void)usb_control("on");
}

} // namespace

int32_t mdmctrl_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    int32_t first = 1;
    if (argc > 1 && std::string_view(argv[1]) == "-o") {
        tessel_stdout_on_off(1);
        log_debug("stdout ON");
        ++first;
    }
    if (first == argc || std::string_view(argv[1]) == "-h") {
        mdmctrl_usage();
        return MDM_USAGE;
    }
    return execute_mdm_cmd(argc - first, argv + first);
}

int32_t execute_mdm_cmd(int32_t argc, char** argv)
{
    int32_t result = MDM_FAILED;
    for (const MdmControlOp& op : supported_mdm_control_ops) {
        if (strcasecmp(op.name, argv[0]) != 0)
            continue;
        if (op.handler != nullptr)
            result = op.handler();
        else if (op.handler_of_word != nullptr && argc > 1)
            result = op.handler_of_word(argv[1]);
    }
    return result;
}

void mdmctrl_usage()
{
    (void)printf("\nmdmctrl version: %d.%d\n\n", version_major, version_minor);
    (void)puts(
        "Usage: mdmctrl [-o] <cmd>\n       -o : Output to console\n       -h : Display this usage\n       <cmd>:");
    for (const MdmControlOp& op : supported_mdm_control_ops) {
        if (op.handler_of_word != nullptr)
            (void)printf("\t%s \t[on][off][reset]\n", op.name);
        else if (op.handler != nullptr)
            (void)printf("\t%s\n", op.name);
    }
}

const char* mdmctrl_get_write_buf(const char* word)
{
    if (word == nullptr)
        return nullptr;
    const std::string_view given = word;
    for (const std::string_view control : {mdmctrl_off, mdmctrl_on, mdmctrl_reset}) {
        const size_t length = control.find(' ');
        if (given.size() == length && strncasecmp(word, control.data(), length) == 0)
            return &control[length + 1];
    }
    log_warning("Invalid modem control command: %s", printable(word).c_str());
    return nullptr;
}

int32_t mdmctrl_write(const char* path, const char* word)
{
    const UniqueFd file(open(path, O_RDWR | O_CLOEXEC));
    if (!file.valid()) {
        log_error("Unable to open file %s (%s)", path, error_text(errno).c_str());
        return MDM_FAILED;
    }
    const char* byte = mdmctrl_get_write_buf(word);
    if (byte == nullptr) {
        mdmctrl_usage();
        return MDM_FAILED;
    }
    if (write(file.get(), byte, 1) != 1) {
        log_error("Failed to write to %s (%s)", path, error_text(errno).c_str());
        return MDM_FAILED;
    }
    return 0;
}

int32_t wan_control(const char* word)
{
    return mdmctrl_write(power_file, word);
}

int32_t usb_control(const char* word)
{
    const bool reset = word != nullptr && strcasecmp(word, "reset") == 0;
    return mdmctrl_write(usb_enable_file, reset ? "on" : word);
}

int32_t power_wan(const char* word)
{
    const int32_t result = wan_control(word);
    return result == 0 ? usb_control(word) : result;
}

int32_t check_modem_on()
{
    return poll_for(can_open, mdm_diag_port);
}

int32_t check_modem_rmnet0_on()
{
    return poll_for(path_exists, mdm_rmnet0_if);
}

MdmMode get_modem_mode()
{
    UsbId id{};
    UsbClass interface_class{};
    if (get_usb_vidpid(id.vendor, id.product) != 0 ||
        get_usb_classes(interface_class[0], interface_class[1], interface_class[2]) != 0)
        return MDM_MODE_UNKNOWN;
    log_info("USB vid/pid: %04x/%04x", id.vendor, id.product);
    log_info("USB I/F0 classes: %02x/%02x/%02x", interface_class[0], interface_class[1], interface_class[2]);

    if (id.vendor == TABLET_USB_VID)
        return interface_class == tablet_dload_class ? MDM_MODE_DLOAD : MDM_MODE_NORMAL;
    if (std::ranges::count(normal_mdm_pairs, id) != 0)
        return MDM_MODE_NORMAL;
    return std::ranges::count(dload_mdm_pairs, id) != 0 ? MDM_MODE_DLOAD : MDM_MODE_UNKNOWN;
}

MdmMode get_modem_mode_no_root()
{
    if (!can_open(mdm_normal_ports[0]))
        return MDM_MODE_DLOAD;
    return can_open(mdm_normal_ports[1]) ? MDM_MODE_NORMAL : MDM_MODE_UNKNOWN;
}

int32_t power_qmi_on()
{
    log_info("%s", "power_qmi_on");
    switch_on();
    for (int i = 0; i < attempts; ++i) {
        if (check_modem_rmnet0_on() == 0)
            return 0;
        log_warning("qmion failed, resetting");
        (void)wan_control("reset"); // as in switch_on
    }
    log_error("Timeout waiting for modem to enumerate");
    return MDM_NOT_ENUMERATED;
}

int32_t power_wan_on()
{
    log_info("%s", "power_wan_on");
    switch_on();
    for (int i = 0; i < attempts; ++i) {
        if (check_modem_on() == 0 && get_modem_mode_no_root() == MDM_MODE_NORMAL) {
            log_info("modem: READY");
            return 0;
        }
        log_warning("wanon failed, resetting");
        (void)wan_control("reset"); // as in switch_on
    }
    log_error("modem: DLOAD or UNKNOWN mode");
    return MDM_NOT_NORMAL;
}

int32_t power_wan_off()
{
    log_info("%s", "power_wan_off");
    (void)usb_control("off"); // the modem is switched off even where its link cannot be
    (void)wan_control("off");
    return 0;
}

int32_t power_wan_reset()
{
    log_info("%s", "power_wan_reset");
    (void)wan_control("reset"); // as in switch_on
    std::this_thread::sleep_for(settle_time);
    (void)usb_control("on");
    if (check_modem_on() != 0)
        return MDM_FAILED;
    if (get_modem_mode() != MDM_MODE_NORMAL) {
        log_error("dload or unknown mode");
        return MDM_FAILED;
    }
    log_info("modem: READY");
    return 0;
}

int32_t power_wan_reset2()
{
    log_info("%s", "power_wan_reset2");
    (void)power_wan_off();
    switch (get_device_type2()) {
    case DEVICE_OSPREY:
    case DEVICE_PIPIT:
        if (ehci_reset() != 0)
            return MDM_FAILED;
        break;
    case DEVICE_QUAIL:
        xhci_reload();
        break;
    default:
        break;
    }
    std::this_thread::sleep_for(host_reset_time);
    return power_wan_on();
}

int32_t power_wan_recover()
{
    log_info("%s -> reset", "power_wan_recover");
    return power_wan_reset() != 0 ? static_cast<int32_t>(MDM_FAILED) : check_modem_rmnet0_on();
}

int32_t ehci_reset()
{
    log_info("TESSEL: %s", "ehci_reset");
    if (!path_exists(bwan_device))
        return 0;
    const UniqueFd device(open(bwan_device, O_RDWR | O_CLOEXEC));
    if (!device.valid()) {
        log_error("TESSEL: %s: Not supported", "ehci_reset");
        return MDM_FAILED;
    }
    if (ioctl(device.get(), bwan_reset_host, 0UL) != 0)
        log_error("TESSEL: %s: Invalid command", "ehci_reset");
    return 0;
}

void xhci_reload()
{
    (void)run_shell("echo f9400000.ssusb > /sys/bus/platform/drivers/msm-dwc3/unbind");
    (void)run_shell("echo f9400000.ssusb > /sys/bus/platform/drivers/msm-dwc3/bind");
}

int32_t fetch_board_id()
{
    std::array<char, board_id_size> id{};
    (void)get_board_id(id); // it has said what there is to say
    return 0;
}
