// The small applets: kernel modules, the radio daemon, modem start and stop.
#pragma once

#include "app/applet.h"

// Entries of the applet table. Each logs ERROR and returns 1: this build does not bring them.
int32_t loadm_main(int32_t argc, char** argv, const Applet* row);
int32_t unloadm_main(int32_t argc, char** argv, const Applet* row);
int32_t launchwan_main(int32_t argc, char** argv, const Applet* row);
int32_t shell_main(int32_t argc, char** argv, const Applet* row);
int32_t cond_start_ril_main(int32_t argc, char** argv, const Applet* row);
int32_t start_modem_main(int32_t argc, char** argv, const Applet* row);
int32_t stop_modem_main(int32_t argc, char** argv, const Applet* row);
