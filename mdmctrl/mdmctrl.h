// Modem power applet.
#pragma once

#include "app/applet.h"

// Entry of the applet table. Logs ERROR and returns 1: this build does not bring it.
int32_t mdmctrl_main(int32_t argc, char** argv, const Applet* row);
