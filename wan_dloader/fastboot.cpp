#include "wan_dloader/fastboot.h"

#include "app/applet_log.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "platform/tar.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"
#include "wan_dloader/streaming_download.h"
#include "wan_dloader/version_policy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>

namespace {

using std::chrono::seconds;

// DIAG request: subsystem 0, command 0x50. Answered in kind, or with 13 by firmware that does not know it.
constexpr std::array<uint8_t, 4> fastboot_request{0x4B, 0x00, 0x50, 0x00};
constexpr uint8_t dispatch_code = 0x4B, unknown_command_code = 0x13;

constexpr int32_t boot_time = 30; // tries of a second each

// In the order of erasing: the partition table goes last.
constexpr std::array partitions_to_erase{"sbl2", "rpm",    "dsp1",     "dsp2",          "EFS2", "aboot",
                                         "boot", "system", "userdata", "oem_partition", "mibib"};
static_assert(std::string_view(partitions_to_erase.back()) == "mibib");

// Reader thread.
int32_t diag_callback(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    const uint8_t code = get_u8(packet, 0);
    return code == dispatch_code || code == unknown_command_code ? 0 : 1;
}

void kill_adb_server()
{
    (void)run_shell("adb kill-server");
    std::this_thread::sleep_for(seconds(2));
}

// Brings the modem to where its images can be written, or finds it there. 0 or the result of UpdateLinuxImages.
int32_t check_fastboot_mode()
{
    kill_adb_server();
    if (wait_for_device_ready(USB_ADB, 1) == 0)
        return Switch2FastbootModeByADB() != 0 ? 0 : 1;
    log_info("Check fastboot mode");
    const int32_t result = wait_for_device_ready(USB_FASTBOOT, sFlashAllPartitions != 0 ? boot_time : 1);
    if (result != 0)
        log_error("Not in fastboot mode");
    return result;
}

// The second name that an image may have in a package.
std::string other_name_of(const LinuxImage& image)
{
    return std::string(image.partition) + ".img";
}

// `file` as the shell takes it. What fails is left as it is, and changes no status.
void flash_partition(const char* partition, const std::string& file)
{
    if (run_shell("fastboot flash %s %s", partition, file.c_str()) != 0)
        log_error("Failed to flash partition %s", partition);
}

// One image of the package, by way of a scratch copy.
void flash_from_package(const LinuxImage& image)
{
    if (tar_fextract_to(image.file, scratch_path) != 0 && tar_fextract_to(other_name_of(image), scratch_path) != 0) {
        log_warning("Failed to fetch partition %s's image file", image.partition);
        return;
    }
    log_debug("Flash the partition: %s", image.partition);
    flash_partition(image.partition, scratch_path);
}

void flash_from_folder(const LinuxImage& image)
{
    const std::string path = path_of_image(image.file);
    log_debug("Flash %s", image.file);
    if (!path_exists(path)) {
        log_warning("%s: %s", printable(path).c_str(), error_text(errno).c_str());
        return;
    }
    flash_partition(image.partition, shell_quote_path(path));
}

} // namespace

void StopRilDaemon()
{
    (void)run_shell("stop ril-daemon"); // there may be none, so that there is nothing to judge
    std::this_thread::sleep_for(seconds(10));
}

void StartRilDaemon()
{
    (void)run_shell("start ril-daemon &");
}

int32_t wait_for_device_ready(UsbDeviceKind kind, int32_t tries)
{
    for (; tries > 0; --tries) {
        const int32_t devices = list_devices(kind);
        if (devices == 1)
            return 0;
        if (devices > 1) {
            log_warning("Too many devices");
            return 1;
        }
        std::this_thread::sleep_for(seconds(1));
    }
    log_warning("Wait for device: timeout");
    return wait_timed_out;
}

int32_t Switch2FastbootMode(const std::string& port)
{
    if (s_parti_overwrite != 0) {
        log_info("Overwrite - jump to fastboot check");
    } else {
        log_info("Entering fastboot mode: DIAG");
        if (!path_exists(port)) {
            log_warning("Switch2FastbootMode: not found DIAG port (%s)", printable(port).c_str());
            return 0;
        }
        (void)OpenSerialPort(port.c_str());
        const int32_t result = SendPktWithCallback(fastboot_request, dispatch_code, diag_callback);
        CloseSerialPort();
        if (result == exchange_timed_out)
            log_info("Sent fastboot DIAG command");
        if (result == exchange_accepted && sResponseBuf != nullptr && *sResponseBuf == unknown_command_code) {
            log_warning("Current modem FW doesn't support switching to fastboot mode by DIAG command");
            return 0;
        }
    }
    if (wait_for_device_ready(USB_FASTBOOT, boot_time) == 0)
        return 1;
    log_error("Failed to enter fastboot mode: DIAG");
    std::this_thread::sleep_for(seconds(1));
    return 0;
}

int32_t Switch2FastbootModeByADB()
{
    log_info("Entering fastboot mode: ADB");
    (void)run_shell("adb shell sys_reboot bootloader");
    if (wait_for_device_ready(USB_FASTBOOT, boot_time) == 0)
        return 1;
    log_error("Failed to enter fastboot mode: ADB");
    kill_adb_server();
    return 0;
}

int32_t EnterFastbootMode(const std::string& port)
{
    if (Switch2FastbootMode(port) == 0)
        (void)Switch2FastbootModeByADB();
    return 1;
}

bool has_room_for_linux_images()
{
    int64_t needed = 0;
    for (const LinuxImage& image : linux_images) {
        const int32_t slot = tar_seek_file(image.file);
        needed = std::max(needed, tar_get_file_size(slot >= 0 ? slot : tar_seek_file(other_name_of(image))));
    }
    struct statvfs room {};
    if (statvfs("/data", &room) != 0)
        return true; // a tablet that cannot tell can have it all the same
    int64_t available = static_cast<int64_t>(room.f_bfree) * static_cast<int64_t>(room.f_frsize);
    struct stat before {};
    if (lstat(scratch_path, &before) == 0 && !S_ISLNK(before.st_mode)) {
        if (!S_ISREG(before.st_mode)) {
            log_error("%s is in the way of the Linux images", scratch_path);
            return false;
        }
        if (before.st_nlink == 1)
            available += before.st_size; // which it gives way to
    }
    if (needed <= available)
        return true;
    log_error("No room in /data for the Linux images: %lld bytes needed, %lld free", static_cast<long long>(needed),
              static_cast<long long>(available));
    return false;
}

void erase_partition(const char* partition)
{
    if (run_shell("fastboot erase %s", partition) != 0)
        log_warning("Failed to erase partition %s", partition); // not every modem has all of them
}

int32_t UpdateLinuxImages(int32_t check)
{
    if (check != 0) {
        if (const int32_t result = check_fastboot_mode(); result != 0)
            return result;
    }
    log_info("Start flashing linux images");
    for (const LinuxImage& image : linux_images) {
        if (s_in_tar_file_mode != 0)
            flash_from_package(image);
        else
            flash_from_folder(image);
    }
    if (s_in_tar_file_mode != 0)
        (void)run_shell("rm %s", scratch_path);
    if ((sFlashMode & flash_mode::erase_efs2) != 0 && s_need_to_erase_all_partitions != 0) {
        log_info("Erase EFS2 and then reboot");
        erase_partition("EFS2");
    }
    SendReset();
    if (check != 0)
        (void)run_shell("adb kill-server");
    return 0;
}

int32_t EraseAllPartitions(const std::string& port)
{
    if (EnterFastbootMode(port) == 0)
        return 1;
    for (const char* partition : partitions_to_erase)
        erase_partition(partition);
    (void)run_shell("fastboot reboot");
    return 0;
}
