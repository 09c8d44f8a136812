// Firmware update applet.
#pragma once

#include "app/applet.h"

// Entry of the applet table. Options and exit statuses stand at the head of wan_dloader.cpp. With -n the process ends
// here.
[[nodiscard]] int32_t wan_dloader_main(int32_t argc, char** argv, const Applet* row);
