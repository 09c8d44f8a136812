// tessel loadm NAME...          insmod of each; 0, or 1 when one failed
// tessel unloadm NAME...        rmmod of each; 0
// tessel launchwan [-i] [-u]    load all modules, power the modem on; -u: only unload them
// tessel start_modem [-i]       load all modules, power the modem on
// tessel stop_modem [-i]        power the modem off, unload all modules; 0
// tessel cond_start_ril [-i]    load all modules, start the radio daemon
// tessel shell WORD...          run a command line
//
//   -i   work on a Wi-Fi-only unit, too
//   -h   usage, as after any unknown option
//
// Exit status: 2 with the usage (`shell`: 0), 3 on a Wi-Fi-only unit; the codes of kernel_modules.h and MdmStatus; for
// `shell` and `cond_start_ril` the raw status that system() gave, of which a caller sees the low eight bits: 0 for a
// command that ended, whatever its exit status was, and the number of the signal for one that was killed.
//
// Oddities kept on purpose, since callers live with them:
//   - `launchwan -u` asks neither for the kind of unit, nor does it power the modem off before.
//   - Failures of rmmod count for nothing.
//   - The words of `shell` are joined with a blank behind each, and mean what they mean to the shell.
//
// Decided here:
//   - Names of modules are quoted where the shell would see more in them than a name.
//   - A command line of more than 511 characters is refused (`shell`: 2).

#include "mdmctrl/system.h"

#include "mdmctrl/command_line.h"
#include "mdmctrl/kernel_modules.h"
#include "mdmctrl/mdmctrl.h"
#include "platform/board.h"
#include "platform/os.h"

#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <unistd.h>

namespace {

constexpr int tools_version_major = 1;
constexpr int tools_version_minor = 2;

enum SystemStatus : int32_t { SYSTEM_USAGE = 2, SYSTEM_WIFI_ONLY = 3 };

struct SystemOptions {
    bool ignore_device_type = false;
    bool unload = false;
    bool usage = false;
};

void loadm_usage()
{
    (void)puts("usage:");
    (void)puts("  loadm <module name1> <module name2> ...");
}

void unloadm_usage()
{
    (void)puts("usage:");
    (void)puts("  unloadm <module name1> <module name2> ...");
}

void shell_usage()
{
    (void)puts("usage:");
    (void)puts("  shell <command>");
}

void usage(const char* name, const char* unload_line)
{
    (void)printf("\n%s version: %d.%d\n\n", name, tools_version_major, tools_version_minor);
    (void)printf("Usage:\n  %s [option]\n    -i: ignore device type checking\n%s    -h: help\n", name, unload_line);
}

void launchwan_usage(const char* name)
{
    usage(name, "    -u: unload all modules\n");
}

void cond_start_ril_usage(const char* name)
{
    usage(name, "");
}

void start_modem_usage(const char* name)
{
    usage(name, "");
}

void stop_modem_usage(const char* name)
{
    usage(name, "");
}

// `letters` are the applet's options. With an unknown one, or -h, it is the usage that is wanted.
SystemOptions take_options(int32_t argc, char** argv, const char* letters)
{
    SystemOptions options;
    optind = 1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    for (int option = 0; (option = getopt(argc, argv, letters)) != -1;) {
        if (option == 'i')
            options.ignore_device_type = true;
        else if (option == 'u')
            options.unload = true;
        else
            options.usage = true;
    }
    return options;
}

// Whether there is a modem to work on, or the user says so. Else tells why nothing is done.
bool has_modem(const SystemOptions& options)
{
    if (options.ignore_device_type || is_wifi_only() == 0)
        return true;
    (void)puts("It's a WiFi-only device. Stop!");
    return false;
}

// The options -i and -h, and the question for a modem. The exit status when there is nothing more to do.
std::optional<int32_t> begin(int32_t argc, char** argv, void (*show_usage)(const char*))
{
    const SystemOptions options = take_options(argc, argv, "ih");
    if (options.usage) {
        show_usage(argv[0]);
        return SYSTEM_USAGE;
    }
    if (!has_modem(options))
        return SYSTEM_WIFI_ONLY;
    return std::nullopt;
}

int32_t bring_up()
{
    if (const int32_t result = load_all_modules(); result != 0)
        return result;
    return power_wan_on();
}

} // namespace

int32_t loadm_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    const auto names = std::span(argv, static_cast<size_t>(argc)).subspan(1);
    if (names.empty()) {
        loadm_usage();
        return SYSTEM_USAGE;
    }
    return load_modules(names);
}

int32_t unloadm_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    const auto names = std::span(argv, static_cast<size_t>(argc)).subspan(1);
    if (names.empty()) {
        unloadm_usage();
        return SYSTEM_USAGE;
    }
    for (const char* name : names)
        if (const std::string command = "rmmod " + shell_quote(name); command_fits(command))
            (void)run_shown(command);
    return 0;
}

int32_t launchwan_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    const SystemOptions options = take_options(argc, argv, "iuh");
    if (options.usage) {
        launchwan_usage(argv[0]);
        return SYSTEM_USAGE;
    }
    if (options.unload)
        return unload_all_modules();
    return has_modem(options) ? bring_up() : static_cast<int32_t>(SYSTEM_WIFI_ONLY);
}

int32_t shell_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    std::string command;
    for (const char* word : std::span(argv, static_cast<size_t>(argc)).subspan(1))
        command.append(word).append(" ");
    if (command.empty()) {
        shell_usage();
        return 0;
    }
    return command_fits(command) ? run_shell("%s", command.c_str()) : static_cast<int32_t>(SYSTEM_USAGE);
}

int32_t cond_start_ril_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    if (const auto status = begin(argc, argv, cond_start_ril_usage))
        return *status;
    if (const int32_t result = load_all_modules(); result != 0)
        return result;
    return run_shell("start ril-daemon");
}

int32_t start_modem_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    if (const auto status = begin(argc, argv, start_modem_usage))
        return *status;
    return bring_up();
}

int32_t stop_modem_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    if (const auto status = begin(argc, argv, stop_modem_usage))
        return *status;
    (void)power_wan_off();
    return unload_all_modules();
}
