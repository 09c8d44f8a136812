#include "wan_dloader/run_settings.h"

uint32_t sFlashMode = 0;
int32_t sFlashAllPartitions = 0;
int32_t s_force_fw_update = 0;
int32_t s_start_from_dloader = 0;
int32_t s_run_in_recovery_mode = 0;
int32_t s_ota_update_cfg = 0;

std::string ImagePath = "/sdcard/firmware/";

namespace {
constexpr const char* default_port = "/dev/ttyUSB0";
int32_t s_emergency_download_mode = 0;
} // namespace

std::string s_diag_port = default_port;
std::string s_download_port = default_port;
std::string s_reset_port = default_port;

int32_t is_emergency_download_mode()
{
    return s_emergency_download_mode;
}

void set_emergency_download_mode(int32_t on)
{
    s_emergency_download_mode = on;
}
