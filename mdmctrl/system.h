// The seven small applets: kernel modules by name, a command line, the radio daemon, modem start and stop.
//
// What they say themselves goes to standard output; what the functions they call say goes to the log. Main thread.
#pragma once

#include "app/applet.h"

// Entries of the applet table, `argv[0]` the applet's name. Exit status: see system.cpp.
int32_t loadm_main(int32_t argc, char** argv, const Applet* row);
int32_t unloadm_main(int32_t argc, char** argv, const Applet* row);
int32_t launchwan_main(int32_t argc, char** argv, const Applet* row);
int32_t shell_main(int32_t argc, char** argv, const Applet* row);
int32_t cond_start_ril_main(int32_t argc, char** argv, const Applet* row);
int32_t start_modem_main(int32_t argc, char** argv, const Applet* row);
int32_t stop_modem_main(int32_t argc, char** argv, const Applet* row);
