#include "wan_dloader/wan_dloader.h"

#include "app/applet_log.h"

int32_t wan_dloader_main(int32_t /*argc*/, char** /*argv*/, const Applet* row)
{
    log_error("Applet [%s] is not part of this build", row->name);
    return 1;
}
