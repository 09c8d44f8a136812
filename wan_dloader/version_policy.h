// What the modem is and runs, what the firmware package brings, and what follows from that: whether an update is due,
// whether all partitions must be erased first, whether the package is for this modem, and whether this unit may take
// the NV data of its SKU.
//
// Reads that fail lead to the careful answer: no update, SKU 0, no NV data. Version texts are kept as they came, cut at
// 63 characters; in log lines their control characters are blanks. Main thread.
#pragma once

#include "platform/board.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <string_view>

constexpr size_t longest_version = 63;

// ---- what the modem runs and what the package brings ----

extern std::string mdm_revision, mdm_apps_revision; // of the modem: firmware, and its Linux side, "apps"
extern std::string cur_mdm_rev, cur_mdm_apps_rev;   // of the package

// Asks by the AT port /dev/ttyUSB1 for the firmware version; where the modem says neither OK nor ERROR, once more by
// /dev/ttyUSB2. 0 with mdm_revision, which is empty when the answer names no version; else AtcmdStatus, with an ERROR.
[[nodiscard]] int32_t get_modem_version();

// Asks by /dev/ttyUSB0 for the apps version. 0 with mdm_apps_revision, which is empty when the answer has no room for
// one; else the failure of the exchange. Where there is no such port the process ends with 32.
[[nodiscard]] int32_t get_modem_apps_version();

// Both. The failure of the first, with an ERROR and without asking for the second, else 0; a failure of the second is a
// WARNING, and stands in `apps_result`.
[[nodiscard]] int32_t GetModemVers(int32_t& apps_result);

// Reads the package's versions from its fwversion.txt: a line for the firmware, a line for the apps, which may be
// quoted. 0, or 1 with an ERROR when there is no such file or it has fewer lines; what is missing is empty.
[[nodiscard]] int32_t get_cur_fwversion(std::string& fw, std::string& apps);

// ---- what is to be done ----

extern int32_t s_update_modem_fw;              // the modem images are to be flashed
extern int32_t s_update_modem_apps_fw;         // the Linux images are to be flashed
extern int32_t s_need_to_erase_all_partitions; // before that

struct VersionTexts {
    std::string_view modem_fw, modem_apps, package_fw, package_apps;
};

struct DueUpdates {
    int32_t modem_fw, apps; // 1 or 0
};

// Which updates are due, with log lines that say why. Any difference of the texts makes an update due, up or down; but
// none is due when it would bring a modem at RIDGE_02_05_07 or later below that. Everything is due when `forced`.
[[nodiscard]] DueUpdates decide_updates(const VersionTexts& versions, bool forced);

// Reads all versions, those of the modem unless s_force_fw_update is set, and sets the flags of the updates that are
// due. 1 when there is one; 0 also when a version cannot be read.
[[nodiscard]] int32_t NeedToUpdate();

// Whether all partitions must be erased first, as firmware before RIDGE_01_05_0F is on either side: 1, with a WARNING,
// or 0. Judges mdm_revision and cur_mdm_rev; what is not official is older than everything.
[[nodiscard]] int32_t NeedToErasePartitions();

// ---- for which modem ----

extern uint32_t s_modem_sku; // hardware variant of the modem, index into modem_sku_desc; 0 until it is known

// The SKUs that a package is for, one bit each.
namespace fw_config {
constexpr uint32_t ridge = 1, summit = 2, valley = 4;
constexpr uint32_t all = ridge | summit | valley;
} // namespace fw_config

extern uint32_t s_fw_config; // all, unless the package says otherwise

// Asks the modem for its SKU, always by /dev/ttyUSB0, and logs what it is. A modem that does not tell counts as SKU 0;
// where there is no such port the process ends with 32.
void CheckModemSku(uint32_t& sku);

// Appends the name of the SKU's NV update file to the folder `path`, which may be empty.
void gen_sku_nvfile(std::string& path, uint32_t sku);

// Reads the SKUs that the open package is for from its ota_conf.txt, by way of scratch_path. 0, with `config`
// untouched when there is no package, no such file or no such line in it. 1 with an ERROR when the file cannot be
// extracted, or the extracted one not opened.
[[nodiscard]] int32_t CheckFWConfig(uint32_t& config);

// Whether this unit may take the NV data of its SKU: 1, or in recovery mode 0 for a production unit, a board that is
// not known, and when there is no board id.
[[nodiscard]] int32_t IsAllowNVUpdate();

// ---- the texts ----

// The version that an answer to ATI names; none when it names none. Ends at a blank or a line feed.
[[nodiscard]] std::optional<std::string> find_version(std::string_view answer);

// The version text that the modem's reply carries, without the line ends and zeros behind it.
[[nodiscard]] std::string apps_version_of(std::span<const uint8_t> reply);

// `text` without the CR, LF and quote characters it ends with.
[[nodiscard]] std::string_view trim_app_tail(std::string_view text);

// The number at the start of `text`, of at most `count` hex digits. Every character up to the one that is no digit
// shifts, that one and the text's end included: "7_" is 0x70. Versions are compared by that, so it must stay.
[[nodiscard]] uint32_t ConvertHexStr(std::string_view text, size_t count);

struct Version {
    uint32_t major, minor, patch;

    [[nodiscard]] uint32_t value() const { return major << 24 | minor << 16 | patch; }
};

// Reads an official version, such as RIDGE_02_05_07, the fields two hex digits each: 1. Anything else is 0 with a
// WARNING, and all fields zero.
int32_t parse_version_string(Version& version, std::string_view text);

// What a line of ota_conf.txt sets: 0 the SKUs, -1 nothing that is known.
[[nodiscard]] int32_t get_ota_cfg_type(std::string_view line);

// The fw_config bits of the SKUs in `list`, names with commas between them, or ALL. Other names count for nothing.
[[nodiscard]] uint32_t parse_sku_types(std::string_view list);

// Reads ota_conf.txt. The last line with SKUs counts; without one `config` stays. Of lines with more than 254
// characters the rest is left out.
void read_ota_config(FILE* file, uint32_t& config);

// IsAllowNVUpdate in recovery mode, for the board with this id.
[[nodiscard]] int32_t is_nv_update_allowed(std::span<const char, board_id_size> board_id);
