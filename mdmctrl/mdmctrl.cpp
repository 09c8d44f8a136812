#include "mdmctrl/mdmctrl.h"

#include "app/applet_log.h"

int32_t mdmctrl_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    log_error("Applet [%s] is not part of this build", row->name);
    return 1;
}
