// The copies of the modem's NV data in /data: the backup, the golden copy, and what is kept of those before.
//
// Everything runs on the main thread and blocks, with the NV data locked (lock_nv_data); ports are paths of DIAG ttys.
// A backup leaves the modem offline, a restore resets it.
#pragma once

#include <cstdint>
#include <string>

// Puts the names of the files in /data on the disk, too: copies may be all that is left soon. False with a WARNING when
// that fails.
bool sync_data_folder();

// Backs up to /data/nvbackup.bin. 0, or 1 when the port does not appear within 30 s. Single items that cannot be read
// are left out (WARNING); a backup file that cannot be written is an ERROR, and 1. A backup that is there stays until
// the new one is on the disk (/data/nvbackup.bin.new until then), and when the new one holds less, or perhaps another's
// values, or the old one is damaged, as /data/nvbackup.bin.old, or .old1 to .old9, the first name that is free
// (WARNING). One that is made, but cannot take the old one's place, stays as /data/nvbackup.bin.new (ERROR, WARNING,
// and 1); the next backup gives it such a name, too (WARNING).
[[nodiscard]] int32_t BackupQCN(const std::string& port);

// The same to /data/nvbackup_golden.bin, unless that exists: then 0, with a WARNING when it is not complete. With
// s_force_fw_update it is made anew, and the old one is put back when that fails or the new one holds less, or perhaps
// another's values (ERROR); of a first one that fails, or may hold another's values, nothing stays, but one without the
// values that could not be read (ERROR) does. Until it is judged the new one is /data/nvbackup_golden.bin.new. An old
// one that is damaged is kept as /data/nvbackup_golden.bin.old, or with a number (WARNING). A renewal that was cut
// short is undone before anything else (WARNING).
[[nodiscard]] int32_t BackupGoldenQCN(const std::string& port);

// Removes /data/nvbackup.bin. The shell's raw status. When the last restore left something out it is kept under another
// name, as above (ERROR); 1 when that fails (ERROR), and nothing is removed. WARNING when it stays.
int32_t RemoveNVBackup();

// Restores from the backup, or from the golden copy, when sFlashAllPartitions is set; otherwise nothing is done. 0, or
// 1 with an ERROR when the port does not appear within 30 s. Failures of single steps are ERRORs and no failure of the
// whole; a file that is not complete is a WARNING, and what can be read of it is restored.
[[nodiscard]] int32_t RestoreQCN(const std::string& port);
[[nodiscard]] int32_t RestoreGoldenQCN(const std::string& port);

// Erases EFS2 by fastboot, unless the Linux image stage does that (flash_mode::erase_efs2), then RestoreQCN. 0, or 1
// when the port does not appear, or from RestoreQCN.
[[nodiscard]] int32_t EraseAndRestoreQCN(const std::string& port);

// Makes the golden copy from the backup file where there is none yet. 1 when there is one, or there was a backup to
// copy from, or the last backup of this run may hold another's values, or less than the one before (ERROR, and no copy
// is made); 0 with a WARNING when there was none to copy from.
[[nodiscard]] int32_t MakeGoldenCopy();
