#include "mdmctrl/system.h"

#include "app/applet_log.h"

namespace {
int32_t refuse(const Applet* row)
{
    log_error("Applet [%s] is not part of this build", row->name);
    return 1;
}
} // namespace

int32_t loadm_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t unloadm_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t launchwan_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t shell_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t cond_start_ril_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t start_modem_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}

int32_t stop_modem_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    return refuse(row);
}
