#include "wan_dloader/version_policy.h"

#include "app/applet_log.h"
#include "crashdump/modem_cmd.h"

uint32_t s_modem_sku = 0;

void CheckModemSku(uint32_t& sku)
{
    if (get_modem_sku(sku) != 0)
        sku = 0;
    if (sku < modem_sku_desc.size())
        log_info("MODEM TYPE: %s", modem_sku_desc[sku]);
    else
        log_info("MODEM TYPE: UNKNOWN - %d", static_cast<int>(sku));
}
