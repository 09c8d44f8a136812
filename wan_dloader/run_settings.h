// What this run of wan_dloader was asked to do. Set by the options and by the stages of the run, read by the modules
// that carry it out; 0 at the start. Main thread.
#pragma once

#include <cstdint>
#include <string>

// What to flash, one bit each; set in sFlashMode.
namespace flash_mode {
constexpr uint32_t boot = 0x10000, amss = 0x20000, dsp = 0x40000;
constexpr uint32_t modem_images = boot | amss | dsp;
constexpr uint32_t linux_images = 0x80000;
constexpr uint32_t nv_items = 0x100000;
constexpr uint32_t all_partitions = modem_images | linux_images | nv_items;
constexpr uint32_t erase_efs2 = 0x40000000;        // after the Linux images
constexpr uint32_t erase_when_needed = 0x80000000; // all partitions, where the versions ask for it
constexpr uint32_t whole_update = erase_efs2 | erase_when_needed | all_partitions;
static_assert(all_partitions == 0x1F0000 && whole_update == 0xC01F0000);
} // namespace flash_mode

extern uint32_t sFlashMode;
extern int32_t sFlashAllPartitions; // every partition is written, so the modem's NV data are gone afterwards
extern int32_t s_force_fw_update;   // whatever the versions say; also renews the golden copy of the NV data
extern int32_t s_start_from_dloader;
extern int32_t s_run_in_recovery_mode;
extern int32_t s_ota_update_cfg;

// Where the firmware lies; ends in "/".
extern std::string ImagePath;

// The modem's DIAG port before download mode, the one in download mode, the one after the modem's reset.
extern std::string s_diag_port, s_download_port, s_reset_port;

// Whether the modem is to be reached by its emergency downloader: 1 or 0.
[[nodiscard]] int32_t is_emergency_download_mode();
void set_emergency_download_mode(int32_t on);
