#include "wan_dloader/nv_copies.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "wan_dloader/emergency_downloader.h"
#include "wan_dloader/fastboot.h"
#include "wan_dloader/nv_backup.h"
#include "wan_dloader/nv_file.h"
#include "wan_dloader/nv_restore.h"
#include "wan_dloader/nv_transfer.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* backup_path = "/data/nvbackup.bin";
constexpr const char* fresh_path = "/data/nvbackup.bin.new"; // a backup that is to take the place of one
constexpr const char* kept_path = "/data/nvbackup.bin.old";  // one that it may be worth less than
constexpr const char* golden_path = "/data/nvbackup_golden.bin";
constexpr const char* fresh_golden_path = "/data/nvbackup_golden.bin.new"; // one that nobody has judged yet
constexpr const char* parked_path = "/data/nvbackup_golden.bintmp";        // the golden copy while a new one is made
constexpr const char* kept_golden_path = "/data/nvbackup_golden.bin.old";  // one of which nobody knows what it held

bool s_kept_before = false; // the last backup of this run may be worth less than the one before it

// Backs the modem up to the file of this name. 0, or 1 with an ERROR when it cannot be made or written whole.
int32_t backup_to(const std::string& port, const std::string& file_name)
{
    if (!open_diag_port(port))
        return 1;
    request_modem_mode(ModemMode::offline);
    // All of them run, so that what can be saved is. A backup that is not on the disk whole must not count as one:
    // the modem may be erased next.
    const int32_t results[] = {NvItemBackup(file_name), NvItemFileBackup(file_name), EfsFileBackup(file_name)};
    NVItemBackupVerify(file_name);
    CloseSerialPort();
    return std::ranges::count(results, 0) == std::ssize(results) ? 0 : 1;
}

// Gives a new copy its name, in the place of one that has it. False with an ERROR when that fails.
bool put_in_place(const char* fresh, const char* name)
{
    if (rename(fresh, name) == 0)
        return true;
    log_error("rename %s: %s", fresh, error_text(errno).c_str());
    return false;
}

// Gives the copy `path` a second name, `name` or that with a number, the first that is free: no copy is given up for
// another one. That name; empty, with an ERROR, when there is none left.
std::string keep_copy(const char* path, const char* name)
{
    constexpr int most = 9;
    std::string free_name = name;
    for (int number = 1; link(path, free_name.c_str()) != 0; ++number) {
        if (errno != EEXIST || number > most) {
            log_error("Failed to link %s to %s: %s", free_name.c_str(), path, error_text(errno).c_str());
            return {};
        }
        free_name = name + std::to_string(number);
    }
    return free_name;
}

// Whether `before` may hold what `fresh` does not. Of two that look damaged the records tell: a modem with a long item
// file gives no other ones.
bool may_hold_less(const NvFileContents& fresh, const NvFileContents& before)
{
    return fresh.holds_less_than(before) || (before.damaged && !fresh.damaged);
}

// ---- the backup ----

// Names what a new backup does not have of the one before.
void report_missing(const NvFileContents& fresh, const NvFileContents& before)
{
    if (const std::string missing = fresh.lacks_of(before); !missing.empty())
        log_warning("Not in the new one: %s", missing.c_str());
}

// Makes the way free for a new backup. One that could not take its place, or was about to, is kept: it is whole. False
// with an ERROR when that fails.
bool clear_fresh_backup()
{
    if (nv_file_contents(fresh_path).whole) {
        const std::string name = keep_copy(fresh_path, kept_path);
        if (name.empty())
            return false;
        log_warning("%s had not taken its place, and is kept as %s", fresh_path, name.c_str());
    }
    (void)unlink(fresh_path); // it may be another name of a file that is needed
    return true;
}

// Lets the new backup take the place of the one that is there. That is kept when the new one may hold less, or
// something else: a modem that has lost its NV data gives a complete backup, too, and this may be the last one that is
// worth something. False with an ERROR when either fails; then all is as before.
bool replace_backup()
{
    const NvFileContents fresh = nv_file_contents(fresh_path);
    const NvFileContents before = nv_file_contents(backup_path);
    if (!may_hold_less(fresh, before) && nv_values_doubtful() == 0)
        return put_in_place(fresh_path, backup_path);
    const std::string name = keep_copy(backup_path, kept_path);
    if (name.empty())
        return false;
    if (!put_in_place(fresh_path, backup_path)) {
        (void)unlink(name.c_str());
        return false;
    }
    s_kept_before = true;
    log_warning("The new backup holds %s; the one before, with %s, is kept as %s", fresh.text().c_str(),
                before.text().c_str(), name.c_str());
    report_missing(fresh, before);
    return true;
}

// ---- golden copy ----

// Runs "mv" of one golden file to the place of the other. False with an ERROR when that fails.
bool move_golden(const char* from, const char* to)
{
    if (run_shell("mv %s %s", from, to) == 0)
        return true;
    log_error("Failed to move %s to %s", from, to);
    return false;
}

// A renewal that was cut short, by a power failure say, left the good copy parked: puts it back. One that has the name
// of a golden copy and holds no less was judged before it got that, and stays; half a one gives way to a whole one.
// False with an ERROR when that fails; then nothing else may be done here.
bool undo_cut_renewal()
{
    if (!path_exists(parked_path))
        return true;
    const NvFileContents golden = nv_file_contents(golden_path);
    const NvFileContents parked = nv_file_contents(parked_path);
    if (!golden.holds_less_than(parked) && (golden.whole || !parked.whole))
        return true;
    log_warning("Putting back the golden copy of a renewal that was cut short");
    return move_golden(parked_path, golden_path);
}

// Of a golden copy that is there.
void warn_of_half_copy()
{
    if (!nv_file_contents(golden_path).whole)
        log_warning("%s is not complete, make it anew with -f", golden_path);
}

// Whether what was backed up may become a golden copy; else an ERROR. What may hold less than another does not: a modem
// that has lost its NV data gives a complete backup, too.
bool may_become_golden()
{
    if (nv_values_doubtful() == 0 && !s_kept_before)
        return true;
    log_error("The new golden copy is not kept");
    return false;
}

// Whether the new golden copy may stay, and take the place of the parked one, if there is one; else an ERROR.
bool is_worth_keeping(bool renewal)
{
    if (!may_become_golden())
        return false;
    if (!renewal)
        return true;
    const NvFileContents fresh = nv_file_contents(fresh_golden_path);
    const NvFileContents parked = nv_file_contents(parked_path);
    if (!fresh.holds_less_than(parked))
        return true;
    log_error("The new golden copy holds %s; the old one, with %s, stays", fresh.text().c_str(), parked.text().c_str());
    report_missing(fresh, parked);
    return false;
}

// A new golden copy has taken the place of the parked one. That is given up, but under another name when it is damaged:
// a restore could still find in it what nobody could compare.
void remove_parked_copy()
{
    if (nv_file_contents(parked_path).damaged && !nv_file_contents(golden_path).damaged) {
        const std::string name = keep_copy(parked_path, kept_golden_path);
        if (name.empty())
            return;
        log_warning("The old golden copy is damaged, and is kept as %s", name.c_str());
    }
    if (run_shell("rm %s", parked_path) != 0)
        log_warning("Failed to remove %s", parked_path);
}

bool same_size(const char* path, const char* other)
{
    struct stat one = {};
    struct stat two = {};
    return stat(path, &one) == 0 && stat(other, &two) == 0 && one.st_size == two.st_size;
}

// 1 when there is a source, whether it could be copied or not.
int32_t CopyFile(const std::string& destination, const std::string& source)
{
    struct stat status {};
    if (stat(source.c_str(), &status) != 0) {
        log_warning("Not found: %s", source.c_str());
        return 0;
    }
    const UniqueFd from(open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const UniqueFd to(
        from.valid() ? open(destination.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, status.st_mode & ALLPERMS) : -1);
    if (!to.valid()) {
        log_warning("open: %s", error_text(errno).c_str());
        return 1;
    }
    off_t offset = 0;
    const ssize_t sent = sendfile(to.get(), from.get(), &offset, static_cast<size_t>(status.st_size));
    if (sent != status.st_size)
        log_warning("sendfile returned %d (%s)", static_cast<int>(sent), error_text(sent < 0 ? errno : ENOSPC).c_str());
    if (fsync(to.get()) != 0) {
        log_warning("fsync: %s", error_text(errno).c_str());
        (void)unlink(destination.c_str()); // the modem may be erased next, and it must not count as a copy
    }
    return 1;
}

} // namespace

bool sync_data_folder()
{
    const UniqueFd folder(open("/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fsync(folder.get()) == 0)
        return true;
    log_warning("fsync /data: %s", error_text(errno).c_str());
    return false;
}

int32_t BackupQCN(const std::string& port)
{
    log_info("Backup QCN ...");
    if (!await_diag_port(port))
        return 1;
    if (!path_exists(backup_path))
        return backup_to(port, backup_path);
    // The one that is there may be the only one: it stays until the new one is on the disk.
    const bool may_begin = clear_fresh_backup();
    const bool is_made = may_begin && backup_to(port, fresh_path) == 0;
    if (is_made && replace_backup())
        return 0;
    log_error("No new backup: %s is the one from before", backup_path);
    if (is_made)
        log_warning("The new one is %s", fresh_path);
    else if (may_begin)
        (void)unlink(fresh_path);
    return 1;
}

int32_t BackupGoldenQCN(const std::string& port)
{
    log_info("Backup Golden QCN ...");
    if (!undo_cut_renewal())
        return 1;
    const bool renewal = path_exists(golden_path);
    if (renewal && s_force_fw_update == 0) {
        log_info("Golden QCN backup file already exists!");
        warn_of_half_copy();
        return 0;
    }
    if (renewal && !move_golden(golden_path, parked_path))
        return 1;

    (void)unlink(fresh_golden_path);
    // Half a copy by the name of a golden one would stand in the way of a whole one for ever.
    if (backup_to(port, fresh_golden_path) != 0 || !is_worth_keeping(renewal) ||
        !put_in_place(fresh_golden_path, golden_path)) {
        (void)unlink(fresh_golden_path);
        if (renewal)
            (void)move_golden(parked_path, golden_path);
        return 1;
    }
    if (renewal && sync_data_folder())
        remove_parked_copy();
    return 0;
}

int32_t RemoveNVBackup()
{
    // What the modem did not take may be nowhere else.
    if (nv_values_unrestored() != 0 && path_exists(backup_path)) {
        const std::string name = keep_copy(backup_path, kept_path);
        if (name.empty())
            return 1;
        log_error("Not all NV data were restored: the backup is kept as %s", name.c_str());
    }
    const int32_t status = run_shell("rm %s", backup_path);
    if (path_exists(backup_path))
        log_warning("Failed to remove %s", backup_path); // a later run would take it for its own
    return status;
}

int32_t RestoreQCN(const std::string& port)
{
    log_info("Restore QCN ...");
    return restore_nv_data(port, backup_path);
}

int32_t RestoreGoldenQCN(const std::string& port)
{
    log_info("Restore Golden QCN ...");
    if (sFlashAllPartitions != 0 && !undo_cut_renewal())
        return 1;
    return restore_nv_data(port, golden_path);
}

int32_t EraseAndRestoreQCN(const std::string& port)
{
    constexpr int32_t patience = 30; // seconds
    if ((sFlashMode & flash_mode::erase_efs2) == 0) {
        if (WaitForDiagPort(port, patience) == 0 || EnterFastbootMode(port) == 0)
            return 1;
        log_info("Erase EFS2");
        erase_partition("EFS2");
        (void)run_shell("fastboot reboot");
    }
    return RestoreQCN(port);
}

int32_t MakeGoldenCopy()
{
    if (!undo_cut_renewal())
        return 1;
    if (path_exists(golden_path)) {
        warn_of_half_copy();
        return 1;
    }
    if (!may_become_golden())
        return 1;
    (void)unlink(fresh_golden_path); // a longer one would keep its tail
    const int32_t result = CopyFile(fresh_golden_path, backup_path);
    if (!same_size(fresh_golden_path, backup_path) || !put_in_place(fresh_golden_path, golden_path))
        (void)unlink(fresh_golden_path);
    return result;
}
