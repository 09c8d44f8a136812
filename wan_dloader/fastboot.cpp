#include "wan_dloader/fastboot.h"

#include "platform/os.h"

#include <chrono>
#include <thread>

void StopRilDaemon()
{
    (void)run_shell("stop ril-daemon"); // there may be none, so that there is nothing to judge
    std::this_thread::sleep_for(std::chrono::seconds(10));
}

void StartRilDaemon()
{
    (void)run_shell("start ril-daemon &");
}
