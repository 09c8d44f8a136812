#include "wan_dloader/update_flow.h"

#include "app/applet_log.h"
#include "crashdump/modem_cmd.h"
#include "mdmctrl/kernel_modules.h"
#include "mdmctrl/mdmctrl.h"
#include "platform/os.h"
#include "platform/tar.h"
#include "wan_dloader/emergency_downloader.h"
#include "wan_dloader/fastboot.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/nv_backup.h"
#include "wan_dloader/nv_copies.h"
#include "wan_dloader/nv_transfer.h"
#include "wan_dloader/nv_update.h"
#include "wan_dloader/run_settings.h"
#include "wan_dloader/streaming_download.h"
#include "wan_dloader/version_policy.h"

#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

namespace {

constexpr int32_t status_done = 0;
constexpr int32_t status_failed = 1;

// What a step says when it ends the run, as its exit status; nothing when the run goes on.
using EndOfRun = std::optional<int32_t>;
constexpr EndOfRun go_on = std::nullopt;

bool modem_images_requested()
{
    return (sFlashMode & flash_mode::modem_images) != 0;
}

// Whether everything is to be erased first, as was asked for and is needed.
bool erases_all_partitions()
{
    return (sFlashMode & flash_mode::erase_when_needed) != 0 && s_need_to_erase_all_partitions != 0;
}

// Recovery mode, where nobody else has powered the modem. 0, or the first failure.
int32_t power_up()
{
    (void)run_shell("echo on > /sys/devices/msm_ehci_host/usb2/power/control"); // boards without it need none
    if (const int32_t result = load_usb_modules(); result != 0)
        return result;
    if (const int32_t result = load_wan_module(); result != 0)
        return result;
    return power_wan_on();
}

// ---- what the package is ----

bool is_for_this_modem()
{
    const uint32_t sku = s_modem_sku & 0xFF;
    constexpr uint32_t config_bits = 32;
    if (sku < config_bits && (s_fw_config >> sku & 1) != 0)
        return true;
    const char* name = s_modem_sku < modem_sku_desc.size() ? modem_sku_desc[s_modem_sku] : "UNKNOWN";
    log_warning("The modem FW is not for %s", name);
    return false;
}

// A package without firmware has the NV update files and little else. One that cannot be counted counts as that, too.
bool is_nv_only_package()
{
    constexpr int32_t most_files = 3;
    return tar_get_files_count() <= most_files;
}

// The NV update files of the modem's SKU: its own, and the one that every unit of it gets.
struct NvUpdateFiles {
    std::string own, all;
};

NvUpdateFiles nv_update_files()
{
    constexpr std::string_view extension = ".txt";
    NvUpdateFiles names;
    gen_sku_nvfile(names.own, s_modem_sku);
    names.all = names.own.substr(0, names.own.size() - extension.size()) + "_all.txt";
    return names;
}

// ---- before the flash is written ----

// Whether there is a programmer that can reach an erased modem; else an ERROR.
bool has_emergency_downloader()
{
    if (emergency_downloader_exist() != 0)
        return true;
    log_error("Not found emergency downloader");
    return false;
}

// Whether the package has what the run would end for the want of, the modem being erased by then; else an ERROR.
bool can_revive_modem()
{
    if (!has_emergency_downloader())
        return false;
    const std::string table = modem_img.at(static_cast<size_t>(sSelectedModel)).partition_table;
    if (!modem_images_requested() || check_img(table, 0) == 0)
        return true;
    log_error("Unable to open partition file %s", printable(path_of_image(table)).c_str());
    return false;
}

// Whether the backup that was made has all that the modem could be read; else an ERROR, unless the user knows better.
bool has_whole_backup()
{
    const uint32_t unread = nv_values_unread();
    if (unread == 0)
        return true;
    const bool forced = s_force_fw_update != 0;
    log_error("%s: %u values of the modem are not whole in its backup",
              forced ? "Erasing all the same" : "Nothing is erased", static_cast<unsigned>(unread));
    return forced;
}

// Ends the run behind the backup, which takes the modem offline, unless it failed before: it starts anew, and serves as
// it did.
EndOfRun leave_modem_as_it_was()
{
    log_info("Nothing was changed: the modem starts anew");
    restart_modem(s_diag_port);
    return status_failed;
}

// Erases the modem where that was asked for and is needed, having saved what is one of a kind, and made sure that the
// run will not end for a reason that can be known before.
EndOfRun prepare_flash()
{
    log_info(">>> Verify if needing to erase all partitions ...");
    s_need_to_erase_all_partitions = NeedToErasePartitions();
    const bool copies_linux_images = (sFlashMode & flash_mode::linux_images) != 0;
    if (!erases_all_partitions()) {
        log_warning("   No need to erase all partitions!");
        const bool due =
            copies_linux_images && modem_images_requested() && s_update_modem_apps_fw != 0 && s_update_modem_fw != 0;
        return due && !has_room_for_linux_images() ? EndOfRun(status_failed) : go_on;
    }
    log_warning("   Need to erase all partitions!!!");
    sFlashAllPartitions = 1;
    if (!can_revive_modem())
        return status_failed;
    if (BackupQCN(s_diag_port) != 0 || !has_whole_backup())
        return leave_modem_as_it_was();
    (void)MakeGoldenCopy(); // a second copy is welcome, not required
    if (copies_linux_images && !has_room_for_linux_images())
        return leave_modem_as_it_was();
    (void)sync_data_folder();
    if (EraseAllPartitions(s_diag_port) != 0)
        return status_failed;
    set_emergency_download_mode(1); // what is left is the boot ROM
    return go_on;
}

// The outcome of the way into download mode.
enum class Entry { ready, not_there, failed };

Entry enter_emergency_download()
{
    constexpr int32_t patience = 30; // seconds
    if (!has_emergency_downloader())
        return Entry::failed;
    if (WaitForDiagPort(s_download_port, patience) == 0)
        return Entry::failed;
    log_info("Emergency download - jump to DLOAD");
    return Entry::ready;
}

Entry enter_download_mode()
{
    if (is_emergency_download_mode() != 0)
        return enter_emergency_download();
    if (IsDiagMode(s_diag_port) == 0)
        return IsDLoadMode(s_download_port) != 0 ? Entry::ready : Entry::not_there;

    log_info(">>> STAGE2: Backup NV items ...");
    if (erases_all_partitions())
        (void)BackupQCN(s_diag_port); // nothing is erased on this way
    else
        log_info("   Skipping...");
    if (modem_images_requested()) {
        (void)Switch2DLoadMode(s_diag_port);
        (void)CheckSerialReEnumerate(s_download_port.c_str());
    }
    return Entry::ready;
}

// ---- the stages that write ----

EndOfRun update_modem_images()
{
    if (!modem_images_requested()) {
        log_info("Skip updating MODEM images");
        return go_on;
    }
    log_info(">>> STAGE3: Update MODEM images ...");
    log_info("Updating modem firmware from %s to %s", printable(mdm_revision).c_str(), printable(cur_mdm_rev).c_str());
    if (const int32_t result = UpdateModemImages(s_download_port); result != 0)
        return result;
    // After an overriding flash it goes to fastboot mode, which has no port.
    if (sFlashAllPartitions == 0 && s_parti_overwrite == 0)
        (void)CheckSerialReEnumerate(s_reset_port.c_str());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    return go_on;
}

void update_linux_images()
{
    log_info(">>> STAGE4: Update LINUX images ...");
    log_info("Updating modem apps firmware from %s to %s", printable(mdm_apps_revision).c_str(),
             printable(cur_mdm_apps_rev).c_str());
    if ((sFlashMode & flash_mode::linux_images) == 0) {
        log_info("    Skip updating LINUX images");
        return;
    }
    const bool unconfirmed = Switch2FastbootMode(s_diag_port) == 0;
    (void)UpdateLinuxImages(unconfirmed ? 1 : 0); // the modem's port tells what came of it
    (void)CheckSerialReEnumerate(s_reset_port.c_str());
}

void restore_nv_items(int32_t& status)
{
    log_info(">>> STAGE5: Restore NV items ...");
    if (sFlashAllPartitions == 0 || s_need_to_erase_all_partitions == 0)
        return;
    const bool erases = (sFlashMode & flash_mode::erase_when_needed) != 0;
    status = erases ? EraseAndRestoreQCN(s_reset_port) : RestoreQCN(s_reset_port);
    if (status != 0)
        return;
    (void)RemoveNVBackup();
    wait_for_reset_modem(s_reset_port); // NV updates would meet a modem on its way out
}

// ---- NV update files ----

// Copies a member of the package to `copy`, and adds that to `files`.
void fetch_nv_file(const std::string& member, const char* copy, std::vector<std::string>& files)
{
    if (tar_fextract_to(member, copy) == 0)
        files.emplace_back(copy);
    else
        log_warning("Failed to fetch NV file %s", member.c_str());
}

std::vector<std::string> nv_files_of_package(bool own_allowed)
{
    const NvUpdateFiles names = nv_update_files();
    std::vector<std::string> files;
    if (own_allowed) {
        log_info("NV file (NON-PVT): %s", names.own.c_str());
        fetch_nv_file(names.own, scratch_path, files);
    }
    log_info("NV file (ALL): %s", names.all.c_str());
    fetch_nv_file(names.all, second_scratch_path, files);
    return files;
}

std::vector<std::string> nv_files_of_folder()
{
    const std::string folder = "/sdcard/firmware/"; // whatever the image folder is
    const NvUpdateFiles names = nv_update_files();
    std::vector<std::string> files;
    const auto add = [&](const std::string& path) {
        if (path_exists(path))
            files.push_back(path);
        else
            log_warning("NV file %s: %s", path.c_str(), error_text(errno).c_str());
    };
    add(folder + names.own);
    add(folder + names.all);
    return files;
}

// The last stages, to which every way leads that has not failed. The exit status of the run.
int32_t finish(int32_t status)
{
    log_info(">>> STAGE6: Update the given NV items ...");
    const bool own_allowed = IsAllowNVUpdate() != 0;
    if ((sFlashMode & flash_mode::nv_items) == 0) {
        log_info("    Skip updating NV items");
    } else {
        const auto files = s_in_tar_file_mode != 0 ? nv_files_of_package(own_allowed) : nv_files_of_folder();
        if (!files.empty())
            status = UpdateNV2(files, s_reset_port);
    }
    log_info(">>> STAGE7: Completed!");
    return status;
}

// ---- the run ----

int32_t update_from_nv_only_package()
{
    if (tar_seek_file(nv_update_files().own) < 0) {
        log_error("Invalid firmware package");
        return status_failed;
    }
    if (tar_get_files_count() < 0) // the list is full: what else the package has is not known
        log_warning("A package of 20 files or more counts as one of NV files: no image is written");
    log_info("Only update NV items");
    return finish(status_done);
}

// From download mode on, in which the modem's images can be written if `in_download_mode`.
int32_t write_flash(bool in_download_mode)
{
    if (in_download_mode && s_update_modem_fw != 0) {
        if (const EndOfRun end = update_modem_images())
            return *end;
    }
    int32_t status = status_done;
    if (s_update_modem_apps_fw != 0) {
        update_linux_images();
        restore_nv_items(status); // only behind this gate
    }
    return finish(status);
}

int32_t run_stages()
{
    if (CheckFWConfig(s_fw_config) != 0) {
        log_error("Failed to detect FW config!");
        return status_done;
    }
    if (!is_for_this_modem())
        return status_done;
    if (is_nv_only_package())
        return update_from_nv_only_package();

    log_info(">>> STAGE1: Verify image files to be updated ...");
    if (modem_images_requested() && CheckImageFiles() == images_no_downloader) {
        log_info("    SKIP firmware update ...");
        return finish(status_done);
    }
    // Without a decision no update is due: the gates behind it stay closed.
    if (s_start_from_dloader != 0)
        return write_flash(true);

    if (NeedToUpdate() == 0)
        return finish(status_done);
    if (s_ota_update_cfg != 0 && s_update_modem_fw == 0)
        sFlashMode &= ~flash_mode::modem_images;
    if (const EndOfRun end = prepare_flash())
        return *end;
    const Entry entry = enter_download_mode();
    return entry == Entry::failed ? status_failed : write_flash(entry == Entry::ready);
}

} // namespace

int32_t run_update()
{
    const auto start = std::chrono::steady_clock::now();
    if (!lock_nv_data())
        return status_failed; // two runs would write half of the flash each
    if (s_run_in_recovery_mode != 0) {
        if (const int32_t result = power_up(); result != 0) {
            log_error("Failed to power on the modem: %d", static_cast<int>(result));
            return result;
        }
    } else {
        StopRilDaemon();
    }
    CheckModemSku(s_modem_sku);
    (void)InitTarFile(); // what cannot be read is no package with firmware

    const int32_t status = run_stages();

    log_info(">>> Exiting...");
    DeinitTarFile();
    if (s_run_in_recovery_mode == 0)
        StartRilDaemon();
    const auto spent = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    log_info("Total time=%d seconds", static_cast<int>(spent.count()));
    return status;
}
