// AT command applet.
#pragma once

#include "app/applet.h"

int32_t atcmd_main(int32_t argc, char** argv, const Applet* row);
