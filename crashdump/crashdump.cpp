// crashdump: saves a crashed modem's memory to files, and runs DIAG test operations.
//
//   crashdump [-p DIR] [-D PORT] [-d] [-v] [-o]            dump into DIR/crashdump/
//   crashdump -t NUMBER | -t KEYWORD | -n ITEM[,INDEX] | -N ITEM:BYTE,...   one operation instead of a dump
//
//   -p DIR   base directory, default /sdcard, at most 127 characters
//   -D PORT  DIAG port, default /dev/ttyUSB0, cut at 127 characters
//   -t N     0 DLOAD mode, 1 offline, 2 fatal error, 3 crash, 4 reboot, 5 fastboot, 6 second DIAG mode
//   -t WORD  DIAG:bytes, DMESG, RUN:file, PULL:path, PUSH:source,destination, SKU; in any case, and what is behind a
//            word that takes no argument does not count
//   -n, -N   read, write one NV item
//   -d -v -o debug texts, traffic, log lines on standard output
//
// A dump is crashdump.lst, which lists the regions, and one file a region. Exit status: 0 done; also for every -t and
// NV operation whatever the modem answered, and for an unknown -t keyword. 1 the dump is not complete. 2 usage shown,
// unusable arguments. 32 no such port, or it cannot be opened. 34 the modem fell silent. 4, 69 a request could not be
// sent.
//
// Kept on purpose: the usage text names an option -P that does not exist; of several operations a -t number wins over a
// -t keyword, and that over -n and -N; a table of exactly 20 regions is refused.

#include "crashdump/crashdump.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/dload_dump.h"
#include "crashdump/modem_cmd.h"
#include "crashdump/nv_item.h"
#include "diag/exchange.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "platform/os.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int version_major = 1;
constexpr int version_minor = 7;

constexpr int32_t status_done = 0;
constexpr int32_t status_incomplete = 1;
constexpr int32_t status_usage = 2;
constexpr int32_t status_no_port = 32;

constexpr size_t path_limit = 128; // of a base directory or a port, with the terminating zero
constexpr const char* list_name = "crashdump.lst";

// What -t NUMBER sends. Each is answered with its own first byte.
struct TestMode {
    const char* message;
    uint8_t length;
    std::array<uint8_t, 6> request;
};

constexpr TestMode test_modes[] = {
    {"Switch to DLOAD mode", 1, {0x3A}},
    {"Switch to OFFLINE mode", 3, {0x29, 0x00, 0x00}},
    {"Generate a fatal error...", 4, {0x4B, 0x25, 0x03, 0x00}},
    {"Invoke crash...", 6, {0x4B, 0x25, 0x0A, 0x00, 0x00, 0x00}},
    {"Invoke reboot...", 3, {0x29, 0x02, 0x00}},
    {"fastboot...", 4, {0x4B, 0x00, 0x50, 0x00}},
    {"Turn on DIAG mode 2", 5, {0x4B, 0x00, 0x31, 0x00, 0x02}},
};
static_assert(std::size(test_modes) == 7);

// What -t KEYWORD runs on the modem. The argument is the text behind the keyword; empty for those that take none.
struct ModemCommand {
    const char* keyword;
    bool takes_argument;
    void (*run)(const std::string& argument);
};

constexpr ModemCommand modem_commands[] = {
    {"DIAG:", true, [](const std::string& bytes) { send_diagcmd(bytes); }},
    {"DMESG", false, [](const std::string&) { dump_mdmkernel_log(); }},
    {"RUN:", true, [](const std::string& file) { run_modem_cmd(file); }},
    {"PULL:", true, [](const std::string& path) { pull_modem_file(path); }},
    {"PUSH:", true, [](const std::string& paths) { push_file2modem(paths); }},
    {"SKU", false, [](const std::string&) { show_modem_sku(); }},
};
constexpr uint32_t no_modem_command = 0xFFFF;

enum class NvMode { none, read, write };

// What the command line asks for; reset at the start of a run.
std::string s_crashdump_path;
int32_t s_crashdump_test;              // -t was given a number
int32_t s_test_mode;                   // that number
uint32_t test_cmd_f;                   // index into modem_commands
std::optional<std::string> s_argument; // of that command
std::string s_port;
NvMode s_nv_mode;
uint32_t s_nv_item;
uint32_t s_nv_index;
NvPacket s_nv_packet;

void usage(const char* name)
{
    (void)printf("\n%s version: %d.%d\n\n", name, version_major, version_minor);
    (void)printf("Usage: %s -p <path> -P <port> [options]\n\n"
                 "\t-p <PATH to save RAM dump files>\n"
                 "\t-D Modem Port when crashing\n"
                 "\t-d Enable debug message\n"
                 "\t-o Output to console\n"
                 "\t-h Help\n\n",
                 name);
}

// ---- command line ----

void reset_state()
{
    s_crashdump_path.clear();
    s_crashdump_debug = 0;
    s_verbose = 0;
    s_crashdump_test = 0;
    s_test_mode = 0;
    test_cmd_f = no_modem_command;
    s_argument.reset();
    s_port = "/dev/ttyUSB0";
    s_nv_mode = NvMode::none;
    s_nv_item = 0;
    s_nv_index = 0;
    s_nv_packet.fill(0);
}

// -t. False when the text is neither a number nor a keyword.
[[nodiscard]] bool choose_test(const char* text)
{
    if (*text >= '0' && *text <= '9') {
        s_crashdump_test = 1;
        s_test_mode = text_to_int(text);
        return true;
    }
    for (uint32_t i = 0; i < std::size(modem_commands); ++i) {
        const ModemCommand& command = modem_commands[i];
        const size_t length = strlen(command.keyword);
        if (strncasecmp(text, command.keyword, length) == 0) {
            test_cmd_f = i;
            s_argument = text + length;
            return true;
        }
    }
    log_error("Invalid command: %s\n", printable(text).c_str());
    return false;
}

// -n ITEM[,INDEX]
void choose_nv_read(const char* text)
{
    const char* comma = strchr(text, ',');
    s_nv_mode = NvMode::read;
    s_nv_item = static_cast<uint32_t>(text_to_int(text));
    s_nv_index = comma == nullptr ? 0 : static_cast<uint32_t>(text_to_int(comma + 1));
    s_argument.reset();
}

// Takes one option. Returns the exit status where the run ends with it.
std::optional<int32_t> take_option(int option, const char* text, const char* name)
{
    switch (option) {
    case 'p':
        if (strlen(text) >= path_limit) {
            log_error("Crashdump path is too long.");
            return status_usage;
        }
        s_crashdump_path = std::string(text) + "/";
        return std::nullopt;
    case 'D':
        s_port = std::string(text).substr(0, path_limit - 1);
        return std::nullopt;
    case 't':
        return choose_test(text) ? std::nullopt : std::optional(status_done);
    case 'n':
        choose_nv_read(text);
        return std::nullopt;
    case 'N':
        log_info("NV string: %s", printable(text).c_str());
        s_nv_mode = NvMode::write;
        return nv_parse(s_nv_packet, text) > 0 ? std::nullopt : std::optional(status_usage);
    case 'd':
        s_crashdump_debug = 1;
        return std::nullopt;
    case 'v':
        s_verbose = 1;
        return std::nullopt;
    case 'o':
        tessel_stdout_on_off(1);
        log_debug("stdout ON");
        return std::nullopt;
    default:
        usage(name);
        return status_usage;
    }
}

std::optional<int32_t> take_options(int32_t argc, char** argv)
{
    reset_state();
    optind = 1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no second thread yet
    for (int option = 0; (option = getopt(argc, argv, "p:D:t:n:N:dvho")) != -1;) {
        if (const auto status = take_option(option, optarg, argv[0]))
            return status;
    }
    if (s_crashdump_path.empty())
        s_crashdump_path = "/sdcard";
    s_crashdump_path += s_crashdump_path.ends_with('/') ? "crashdump/" : "/crashdump/";
    return std::nullopt;
}

// ---- memory dump ----

bool write_failed(const std::string& path)
{
    log_error("Failed to write %s: %s", printable(path).c_str(), error_text(errno).c_str());
    return false;
}

bool is_control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

std::string without_controls(std::string name)
{
    std::ranges::replace_if(name, is_control, '?');
    return name;
}

// The list file: what the modem offers, whether or not a file of it can be saved.
[[nodiscard]] bool write_list(std::span<const MemoryRegion> regions)
{
    const std::string path = s_crashdump_path + list_name;
    UniqueFile file = make_file(path);
    if (file == nullptr) {
        log_error("Failed to create the dump list file: %s", printable(path).c_str());
        return false;
    }
    (void)fprintf(file.get(), "File name:  base address, size\n");
    for (const MemoryRegion& region : regions)
        (void)fprintf(file.get(), "%s: 0x%08X, 0x%04X\n", without_controls(region.file_name.data()).c_str(),
                      region.base, region.length);
    return fclose(file.release()) == 0 || write_failed(path);
}

// The name comes from the modem: it must name a file in the dump directory, not the list of the others (some file
// systems know only one case), and not steer who reads it.
bool is_region_name(std::string_view name)
{
    const auto is_forbidden = [](char c) { return c == '/' || is_control(c); };
    return !name.empty() && name != "." && name != ".." && strcasecmp(name.data(), list_name) != 0 &&
           std::ranges::none_of(name, is_forbidden);
}

enum class Saved { yes, no, cannot_create };

[[nodiscard]] Saved save_region(const MemoryRegion& region)
{
    const char* name = region.file_name.data();
    if (!is_region_name(name)) {
        log_error("Refused the file name of a memory region: %s", without_controls(name).c_str());
        return Saved::no;
    }
    const std::string path = s_crashdump_path + name;
    log_info("%s", printable(path).c_str());
    UniqueFile file = make_file(path);
    if (file == nullptr) {
        log_error("Failed to create the dump file: %s", printable(path).c_str());
        return Saved::cannot_create;
    }
    (void)setvbuf(file.get(), nullptr, _IONBF, 0); // a full disk shows at the chunk that no longer fits
    log_info("To read (0x%08X, 0x%04X)", region.base, region.length);
    (void)fetch_memory_region(file.get(), region.base, region.length);
    // A short region is what the modem gave, and no failure.
    const int64_t saved = ftello(file.get());
    if (saved >= 0 && saved < int64_t{region.length})
        log_warning("%s: %u of %u bytes saved", name, static_cast<unsigned>(saved), region.length);
    const bool failed = ferror(file.get()) != 0;
    if (fclose(file.release()) != 0 || failed) {
        (void)write_failed(path);
        return Saved::no;
    }
    return Saved::yes;
}

[[nodiscard]] int32_t save_regions(std::span<const MemoryRegion> regions)
{
    const auto start = std::chrono::steady_clock::now();
    int32_t result = status_done;
    for (size_t i = 0; i < regions.size(); ++i) {
        const MemoryRegion& region = regions[i];
        const bool seen = std::ranges::count(regions.first(i), region.file_name, &MemoryRegion::file_name) != 0;
        if (seen && is_region_name(region.file_name.data()))
            log_warning("Overwriting the file of a memory region of the same name: %s", region.file_name.data());
        const Saved saved = save_region(region);
        if (saved == Saved::cannot_create)
            return status_incomplete;
        if (saved == Saved::no)
            result = status_incomplete;
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    log_info("Total time=%d seconds", static_cast<int>(std::chrono::floor<std::chrono::seconds>(elapsed).count()));
    return result;
}

// A dump that was broken off leaves the rest of an unframed reply on the line. It ends with no flag, so that the first
// answer would be taken for more of it.
void forget_what_is_on_the_line()
{
    constexpr auto settle_time = std::chrono::milliseconds(100); // of what is still on its way
    std::this_thread::sleep_for(settle_time);
    pktio_set_unframed_read(0); // the mode that it is in: bytes from before a switch are dropped
}

[[nodiscard]] int32_t dump_memory()
{
    forget_what_is_on_the_line();
    if (check_dload_mode() == 0) {
        log_error("Not in DLOAD mode");
        return status_incomplete;
    }
    if (get_dload_version(s_dload_version) == 0) {
        log_error("Failed to retrieve parameter information");
        return status_incomplete;
    }
    log_info("DLOAD version = %d", s_dload_version);
    if (s_dload_version <= last_framed_dload_version) {
        log_info("  Framed Memory Read");
        s_dload_memory_size = framed_chunk_size;
    } else {
        log_info("  High-Speed (Unframed) Memory Read");
        s_dload_memory_size = unframed_chunk_size;
    }

    std::array<MemoryRegion, max_memory_regions> table{};
    uint32_t count = 0;
    if (get_memory_regions_info(table, count) == 0) {
        log_error("Failed to fetch modem memory regions, possibly modem doesn't crash");
        return status_incomplete;
    }
    const auto regions = std::span<const MemoryRegion>(table).first(count);
    if (regions.empty())
        log_warning("The modem offers no memory regions");
    if (!write_list(regions))
        return status_incomplete;
    return save_regions(regions);
}

// ---- the other operations ----

// Sends the request of test mode `mode`; numbers without one send nothing (WARNING). What the reply says is not looked
// at.
int32_t test_invoke_crash(int32_t mode)
{
    if (mode >= 0 && static_cast<size_t>(mode) < std::size(test_modes)) {
        const TestMode& test = test_modes[mode];
        log_info("%s", test.message);
        (void)send_pkt_with_rsp(std::span(test.request).first(test.length), test.request.front());
    } else {
        log_warning("No such test mode: %d", mode);
    }
    return 1;
}

// A later -n takes a command's argument away.
[[nodiscard]] int32_t run_modem_command(const ModemCommand& command)
{
    if (command.takes_argument && !s_argument) {
        log_error("Missing argument of %s", command.keyword);
        return status_usage;
    }
    command.run(s_argument.value_or(""));
    return status_done;
}

// Runs what was asked for on the open port; the first that was chosen wins.
[[nodiscard]] int32_t dispatch()
{
    if (s_crashdump_test != 0) {
        (void)test_invoke_crash(s_test_mode);
        return status_done;
    }
    if (test_cmd_f < std::size(modem_commands))
        return run_modem_command(modem_commands[test_cmd_f]);
    if (s_nv_mode == NvMode::read) {
        nvitem_read(s_nv_item, s_nv_index);
        return status_done;
    }
    if (s_nv_mode == NvMode::write) {
        nvitem_write(s_nv_packet);
        return status_done;
    }
    return dump_memory();
}

} // namespace

int32_t crashdump_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    if (argc <= 1) {
        usage(argv[0]);
        return status_usage;
    }
    if (const auto status = take_options(argc, argv))
        return *status;

    struct stat file_status {};
    if (stat(s_crashdump_path.c_str(), &file_status) != 0)
        (void)run_shell("mkdir -p %s",
                        shell_quote_path(s_crashdump_path).c_str()); // its failure shows when a file is made
    if (stat(s_port.c_str(), &file_status) != 0) {
        log_error("port: %s isn't found.", printable(s_port).c_str());
        return status_no_port;
    }

    log_info("Opening port: %s", printable(s_port).c_str());
    (void)open_serial_port(s_port.c_str()); // ends the process where it fails
    const int32_t result = dispatch();
    close_serial_port();
    return result;
}
