// tessel: one executable, eleven applets for the modem on this tablet's USB host port.
//
//   tessel APPLET [ARGUMENTS]
//
// The applet is named by the last path component of the first argument and gets the rest of the command line, its own
// name first. Exit status: the applet's; 2 when no applet is named, 5 when there is none of that name.

#include "app/applet.h"
#include "app/applet_log.h"
#include "app/wan_common.h"
#include "atcmd/atcmd.h"
#include "crashdump/crashdump.h"
#include "mdmctrl/mdmctrl.h"
#include "mdmctrl/system.h"
#include "platform/os.h"
#include "wan_dloader/wan_dloader.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int version_major = 4;
constexpr int version_minor = 5;

constexpr int32_t status_no_applet = 2;
constexpr int32_t status_unknown_applet = 5;

// The usage text lists the applets in this order.
constexpr Applet s_applet_list[] = {
    {"atcmd", atcmd_main},
    {"mdmctrl", mdmctrl_main},
    {"wan_dloader", wan_dloader_main},
    {"crashdump", crashdump_main},
    {"loadm", loadm_main},
    {"unloadm", unloadm_main},
    {"launchwan", launchwan_main},
    {"shell", shell_main},
    {"cond_start_ril", cond_start_ril_main},
    {"start_modem", start_modem_main},
    {"stop_modem", stop_modem_main},
};
static_assert(std::size(s_applet_list) == 11);

void tessel_usage([[maybe_unused]] const char* program)
{
    (void)printf("\ntessel version: %d.%d\n\n", version_major, version_minor);
    (void)printf("Usage: tessel [applet] [applet arguments]\n       applets:\n");
    for (const Applet& applet : s_applet_list)
        (void)printf("\t\t%s\n", applet.name);
    (void)printf("\n");
}

// A null name, which is what an overlong one gives, is in no row.
const Applet* find_applet(const char* name)
{
    for (const Applet& applet : s_applet_list) {
        if (name != nullptr && strcmp(applet.name, name) == 0)
            return &applet;
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    keep_standard_descriptors();
    keep_child_statuses();
    (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // a log file has each line also of a run that is killed
    if (argc <= 1) {
        log_error("Missing applet name");
        tessel_usage(argc == 1 ? argv[0] : "tessel");
        return status_no_applet;
    }

    const char* name = get_filename(argv[1]);
    const Applet* applet = find_applet(name);
    if (applet == nullptr) {
        log_error("Applet [%s] is not found", name == nullptr ? argv[1] : name);
        tessel_usage(argv[0]);
        return status_unknown_applet;
    }
    return applet->main(argc - 1, argv + 1, applet);
}
