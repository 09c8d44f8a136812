#include "mdmctrl/kernel_modules.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "mdmctrl/command_line.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>

namespace {

constexpr const char* module_directory = "/system/lib/modules/";
constexpr const char* modules_file = "/proc/modules";
constexpr size_t line_limit = 126;             // more than any module's name; the rest of a line is not looked at
constexpr size_t list_limit = size_t{1} << 22; // far more than any kernel lists; a file without an end is no list

struct KernelModule {
    const char* file_name = nullptr;   // in the module directory
    const char* module_name = nullptr; // in /proc/modules, where "-" has become "_"
    bool loaded = false;
};

// In the order of loading: what a module needs stands above it.
KernelModule usb_modules[] = {
    {"usbserial.ko", "usbserial"},
    {"usb_wwan.ko", "usb_wwan"},
    {"ehci-hcd.ko", "ehci_hcd"},
    {"option.ko", "option"},
};
KernelModule qmi_modules[] = {
    {"rmnet_usb.ko", "rmnet_usb"},
};
KernelModule bwan_module[] = {
    {"bwan.ko", "bwan"},
};

// Result when insmod fails, row by row. The last USB row has the smallest.
constexpr int32_t usb_modules_err[] = {20, 21, 22, 19};
constexpr int32_t qmi_modules_err[] = {27};
constexpr int32_t bwan_module_err[] = {18};
static_assert(std::size(usb_modules) == std::size(usb_modules_err));
static_assert(std::size(qmi_modules) == std::size(qmi_modules_err));
static_assert(std::size(bwan_module) == std::size(bwan_module_err));

// Every table there is.
constexpr std::span<KernelModule> module_tables[] = {bwan_module, usb_modules, qmi_modules};

void mark_all(bool loaded)
{
    for (const auto table : module_tables)
        for (KernelModule& row : table)
            row.loaded = loaded;
}

void mark_loaded(std::string_view module_name)
{
    for (const auto table : module_tables)
        for (KernelModule& row : table)
            if (module_name == row.module_name)
                row.loaded = true;
}

// What the kernel says is loaded. Nothing, with errno, when it cannot be read.
std::optional<std::string> read_list()
{
    const UniqueFile file = open_regular_file(modules_file);
    if (!file)
        return std::nullopt;
    std::string list;
    std::array<char, 4096> piece{};
    for (size_t count = 0; (count = fread(piece.data(), 1, piece.size(), file.get())) > 0;) {
        list.append(piece.data(), count);
        if (list.size() > list_limit) {
            errno = EFBIG;
            return std::nullopt;
        }
    }
    return ferror(file.get()) == 0 ? std::optional(list) : std::nullopt;
}

int32_t load_table(std::span<KernelModule> table, std::span<const int32_t> errors)
{
    for (size_t i = 0; i < table.size(); ++i) {
        KernelModule& row = table[i];
        if (row.loaded || is_kernel_module(row.file_name) == 0)
            continue;
        if (load_module(row.file_name) != 0)
            return errors[i];
        row.loaded = true;
    }
    return 0;
}

// From the last row to the first.
void unload_table(std::span<KernelModule> table)
{
    for (size_t i = table.size(); i-- > 0;) {
        if (!table[i].loaded)
            continue;
        (void)unload_module(table[i].module_name); // one that is in use stays, and the rest is tried all the same
        table[i].loaded = false;
    }
}

// The path that insmod gets for a name of `loadm`.
std::string module_path(const std::string& name)
{
    const std::string path = name.find('/') == std::string::npos ? module_directory + name : name;
    // A dot anywhere counts as a suffix, one in a folder's name as well.
    return path.find('.') == std::string::npos ? path + ".ko" : path;
}

} // namespace

int32_t is_kernel_module(const char* file_name)
{
    return path_exists(std::string(module_directory) + file_name) ? 1 : 0;
}

int32_t check_loaded_modules()
{
    const auto list = read_list();
    if (!list) {
        log_error("File open failed: %s", error_text(errno).c_str());
        return 1;
    }
    mark_all(false);
    for (std::string_view rest = *list; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        std::string_view words = line.substr(0, line_limit);
        mark_loaded(next_token(words, " \t\r\v\f"));
    }
    return 0;
}

int32_t load_module(const char* file_name)
{
    return run_shell("insmod %s%s", module_directory, file_name);
}

int32_t unload_module(const char* module_name)
{
    return run_shell("rmmod %s", module_name);
}

int32_t load_usb_modules()
{
    return load_table(usb_modules, usb_modules_err);
}

int32_t load_qmi_modules()
{
    return load_table(qmi_modules, qmi_modules_err);
}

int32_t load_wan_module()
{
    return load_table(bwan_module, bwan_module_err);
}

int32_t load_all_modules()
{
    if (check_loaded_modules() != 0)
        return 1;
    for (const auto load : {load_usb_modules, load_qmi_modules, load_wan_module})
        if (const int32_t result = load(); result != 0)
            return result;
    // From here on the radio user may switch the modem. Units without the power driver have no such files.
    (void)run_shell("chown radio.radio /sys/wan/*");
    (void)run_shell("chmod 660 /sys/wan/*");
    return 0;
}

int32_t unload_all_modules()
{
    if (check_loaded_modules() != 0)
        mark_all(true);
    unload_table(bwan_module);
    unload_table(qmi_modules);
    unload_table(usb_modules);
    return 0;
}

int32_t load_modules(std::span<char* const> names)
{
    int32_t result = 0;
    for (const char* name : names) {
        const std::string command = "insmod " + shell_quote_path(module_path(name));
        if (!command_fits(command) || run_shown(command) != 0)
            result = 1;
    }
    return result;
}
