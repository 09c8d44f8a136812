#include "wan_dloader/emergency_downloader.h"

#include "app/applet_log.h"

#include <chrono>
#include <sys/stat.h>
#include <thread>

int32_t WaitForDiagPort(const std::string& path, int32_t seconds)
{
    for (; seconds > 0; --seconds) {
        struct stat found = {};
        if (stat(path.c_str(), &found) == 0)
            return 1;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    log_warning("Timeout: DIAG port (%s) doesn't exist", path.c_str());
    return 0;
}
