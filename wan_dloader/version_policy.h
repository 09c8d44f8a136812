// What the modem is, and what may be done to it. Main thread.
#pragma once

#include <cstdint>

extern uint32_t s_modem_sku; // hardware variant of the modem, index into modem_sku_desc; 0 until it is known

// Asks the modem for its SKU, always by /dev/ttyUSB0, and logs what it is. A modem that does not tell counts as SKU 0;
// where there is no such port the process ends with 32.
void CheckModemSku(uint32_t& sku);
