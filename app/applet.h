// What an applet is to the dispatcher: a name and an entry function.
#pragma once

#include <cstdint>

struct Applet;

// Runs an applet to completion on the main thread. `argv[0]` is the applet's name as typed, `row` its row of the
// applet table. Returns the exit status of the process.
using AppletMain = int32_t (*)(int32_t argc, char** argv, const Applet* row);

struct Applet {
    const char* name;
    AppletMain main;
};
