#include "wan_dloader/run_settings.h"

uint32_t sFlashMode = 0;
int32_t sFlashAllPartitions = 0;
int32_t s_force_fw_update = 0;
int32_t s_start_from_dloader = 0;
int32_t s_run_in_recovery_mode = 0;
int32_t s_ota_update_cfg = 0;
