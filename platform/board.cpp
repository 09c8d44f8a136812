#include "platform/board.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// Indexed by the device type.
constexpr const char* s_device_types[] = {"KESTREL", "LARK", "MERLIN", "OSPREY", "PIPIT", "QUAIL"};
static_assert(std::string_view(s_device_types[DEVICE_OSPREY]) == "OSPREY");
static_assert(std::string_view(s_device_types[DEVICE_QUAIL]) == "QUAIL" && std::size(s_device_types) == 6);

// Newer kernels keep it with the vital product data.
constexpr const char* board_id_files[] = {"/proc/vpd/board_id", "/proc/board_id"};

// Where the modem may hang on the bus: two ports of the EHCI host, one of the XHCI host.
constexpr const char* mdm_vidpid_entries[] = {
    "/sys/devices/msm_ehci_host/usb1/1-1/",
    "/sys/devices/msm_ehci_host/usb2/2-1/",
    "/sys/bus/usb/devices/usb1/1-2/",
};

// The interface 0 of each of them.
constexpr const char* mdm_if_entries[] = {
    "/sys/devices/msm_ehci_host/usb1/1-1/1-1:1.0/",
    "/sys/devices/msm_ehci_host/usb2/2-1/2-1:1.0/",
    "/sys/bus/usb/devices/usb1/1-2/1-2:1.0/",
};
static_assert(std::size(mdm_vidpid_entries) == std::size(mdm_if_entries));

constexpr uint16_t no_usb_id = 0xFFFF;

// Cleared with every read and never filled: the id goes to the caller's buffer. It stays in this form on purpose.
std::array<char, board_id_size> board_id;

std::array<char, 64> s_dev_desc;

// Reads one line, its line feed included, into `room`, which holds a text afterwards in any case.
void read_text(FILE* file, std::span<char> room)
{
    if (room.size() < 2 || fgets(room.data(), static_cast<int>(room.size()), file) == nullptr)
        room.front() = '\0'; // a failed read leaves anything there
}

// The first directory that exists, or null.
const char* find_entry(std::span<const char* const> entries)
{
    const auto found = std::ranges::find_if(entries, path_exists);
    return found == entries.end() ? nullptr : *found;
}

// Reads a number of at most `digits` hexadecimal digits, as the kernel writes ids. -1 with errno when there is none.
int32_t read_hex(const std::string& path, size_t digits)
{
    const UniqueFile file = open_regular_file(path);
    if (!file)
        return -1;
    std::array<char, 32> line{};
    errno = 0;
    read_text(file.get(), line);
    std::string_view text = line.data();
    const std::string number(next_token(text, " \t\r\n").substr(0, digits));
    if (number.empty() || isxdigit(static_cast<unsigned char>(number.front())) == 0) {
        errno = errno != 0 ? errno : EINVAL;
        return -1;
    }
    return static_cast<int32_t>(strtol(number.c_str(), nullptr, 16));
}

uint16_t _get_usb_id(const std::string& path)
{
    const int32_t id = read_hex(path, 4);
    if (id < 0) {
        log_error("Read USB ID failed: %d - %s", errno, error_text(errno).c_str());
        return no_usb_id;
    }
    return static_cast<uint16_t>(id);
}

int32_t _get_usb_if_id(const std::string& path, uint8_t& byte)
{
    const int32_t id = read_hex(path, 2);
    if (id < 0) {
        log_error("Read USB I/F ID failed: %d - %s", errno, error_text(errno).c_str());
        return -1;
    }
    byte = static_cast<uint8_t>(id);
    log_debug("id=%02x", byte);
    return 0;
}

// A board id may be shorter than its fields; what it lacks shows as a blank, as what no record can hold does.
char shown(char c)
{
    return printable({&c, 1}).front();
}

} // namespace

int32_t read_board_id(std::span<char> buf)
{
    if (buf.size() < board_id_size) {
        log_error("Not enough buffer size < %d", static_cast<int>(board_id_size));
        return -1;
    }
    board_id.fill('\0');
    const char* path = find_entry(board_id_files);
    if (path == nullptr) {
        log_error("%s failed: unknown device!", "read_board_id");
        return -1;
    }
    const UniqueFile file = open_regular_file(path);
    if (!file) {
        log_error("%s failed: %s", "read_board_id", error_text(errno).c_str());
        return -1;
    }
    if (fread(buf.data(), 1, board_id_size - 1, file.get()) < 1) {
        log_error("failed to read");
        return -1;
    }
    return 0;
}

const char* get_device_desc()
{
    constexpr size_t longest = 62; // characters of the name; with the second line one more, the blank
    s_dev_desc.fill('\0');
    const UniqueFile name = open_regular_file("/proc/product_name");
    if (!name)
        return nullptr;
    read_text(name.get(), std::span(s_dev_desc).first(longest + 1));

    const UniqueFile extra = open_regular_file("/proc/product_name_extra");
    if (!extra)
        return s_dev_desc.data();
    const size_t length = strnlen(s_dev_desc.data(), longest);
    s_dev_desc[length] = ' ';
    if (length < longest)
        read_text(extra.get(), std::span(s_dev_desc).subspan(length + 1, longest - length));
    return s_dev_desc.data();
}

int32_t is_wifi_only()
{
    return path_exists("/proc/product_features/wan") ? 0 : 1;
}

void show_device_type(int32_t type)
{
    if (type >= 0 && static_cast<size_t>(type) < std::size(s_device_types))
        log_info("DEVICE TYPE: %s", s_device_types[type]);
    else
        log_info("DEVICE TYPE: UNKNOWN - %d", type);
}

int32_t get_device_type(std::span<const char> id)
{
    constexpr size_t type_code_size = 4;
    if (id.size() < type_code_size)
        return DEVICE_UNKNOWN;
    const std::string_view type_code(id.data(), type_code_size);
    if (type_code.starts_with("0c"))
        return DEVICE_OSPREY;
    if (type_code.starts_with("0d"))
        return DEVICE_PIPIT;
    return type_code == "0010" ? DEVICE_QUAIL : DEVICE_UNKNOWN;
}

int32_t get_device_type2()
{
    std::array<char, board_id_size> id{};
    return read_board_id(id) == 0 ? get_device_type(id) : DEVICE_UNKNOWN;
}

int32_t get_board_id(std::span<char> buf)
{
    if (const int32_t result = read_board_id(buf); result != 0)
        return result;

    if (const char* description = get_device_desc()) {
        log_info("%s:", description); // the line feed of its file included
        log_info("\tType code: %c%c%c", shown(buf[0]), shown(buf[1]), shown(buf[2]));
        log_info("\tRevision : %c%c ", shown(buf[3]), shown(buf[4]));
        log_info("\tVariant  : %c%c ", shown(buf[5]), shown(buf[6]));
        return 0;
    }

    const int32_t type = get_device_type(buf);
    if (type >= 0 && static_cast<size_t>(type) < std::size(s_device_types))
        log_info("Device type: %s", s_device_types[type]);
    else
        log_warning("Unknown device: %.*s", static_cast<int>(strnlen(buf.data(), buf.size())), buf.data());
    return type;
}

int32_t get_os_version()
{
    const UniqueFile file = open_regular_file("/proc/version");
    if (!file) {
        log_error("Not found: %d - %s\n", errno, error_text(errno).c_str());
        return -1;
    }
    constexpr std::string_view label = "Linux version ";
    std::array<char, 64> line{};
    read_text(file.get(), line);
    const std::string_view text = line.data();
    const bool found = text.starts_with(label) && text.size() > label.size() &&
                       isdigit(static_cast<unsigned char>(text[label.size()])) != 0;
    const int32_t version = found ? text_to_int(std::string(text.substr(label.size()))) : -1;
    log_debug("OS version: %d", version);
    return version;
}

int32_t get_usb_vidpid(uint16_t& vid, uint16_t& pid)
{
    const char* entry = find_entry(mdm_vidpid_entries);
    if (entry == nullptr)
        return -1;
    vid = _get_usb_id(std::string(entry) + "idVendor");
    pid = _get_usb_id(std::string(entry) + "idProduct");
    return 0;
}

int32_t get_usb_classes(uint8_t& device_class, uint8_t& subclass, uint8_t& protocol)
{
    const char* entry = find_entry(mdm_if_entries);
    if (entry == nullptr)
        return -1;
    if (_get_usb_if_id(std::string(entry) + "bInterfaceClass", device_class) != 0 ||
        _get_usb_if_id(std::string(entry) + "bInterfaceSubClass", subclass) != 0)
        return -1;
    return _get_usb_if_id(std::string(entry) + "bInterfaceProtocol", protocol);
}
