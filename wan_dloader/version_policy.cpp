#include "wan_dloader/version_policy.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "atcmd/atcmd.h"
#include "crashdump/modem_cmd.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "platform/tar.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

std::string mdm_revision;
std::string mdm_apps_revision;
std::string cur_mdm_rev;
std::string cur_mdm_apps_rev;

int32_t s_update_modem_fw = 0;
int32_t s_update_modem_apps_fw = 0;
int32_t s_need_to_erase_all_partitions = 0;

uint32_t s_modem_sku = 0;
uint32_t s_fw_config = fw_config::all;

namespace {

constexpr const char* at_ports[] = {"/dev/ttyUSB1", "/dev/ttyUSB2"};
constexpr int32_t at_time_out = 3; // seconds
constexpr size_t at_answer_size = 512;

// Reply of the modem's service to the request for the apps version.
namespace apps_version_reply {
constexpr const char* request = "75,0,81,0,12";
constexpr size_t text_at = 6, size = 64;
} // namespace apps_version_reply

constexpr uint32_t no_way_back = 0x02050007;     // from here on, firmware is not replaced by an older one than this
constexpr uint32_t no_erase_needed = 0x0105000F; // from here on, partitions may stay, when it is on both sides

constexpr size_t longest_config_line = 254;
constexpr std::string_view sku_key = "SKU=";

struct SkuName {
    std::string_view name;
    uint32_t bit;
    const char* message;
};

constexpr SkuName sku_names[] = {
    {"RIDGE", fw_config::ridge, "FW OTA Config: RIDGE"},
    {"SUMMIT", fw_config::summit, "FW OTA Config: SUMMIT"},
    {"VALLEY", fw_config::valley, "FW OTA Config: VALLEY"},
};

// Where the board id shows that a unit comes from series production.
struct ProductionMark {
    int32_t type;        // DeviceType
    size_t at;           // index of the build's character
    unsigned char first; // and the first build that counts
};

constexpr ProductionMark production_marks[] = {
    {DEVICE_OSPREY, 3, '4'},
    {DEVICE_PIPIT, 3, '4'},
    {DEVICE_QUAIL, 8, '6'},
};
static_assert(std::ranges::all_of(production_marks, [](const auto& mark) { return mark.at < board_id_size; }));

int32_t ask_for_version(const char* port)
{
    std::array<char, at_answer_size> answer{};
    const int32_t result = atcmd_process_cmd_helper("ati", port, answer, at_time_out);
    if (result == ATCMD_MODEM_ERROR)
        log_error("%s", printable(trim_tail(answer.data())).c_str());
    else if (result == ATCMD_TIMED_OUT)
        log_error("Timed out, failed to receiving response, 0x%x", static_cast<unsigned>(result));
    else if (result != ATCMD_OK)
        log_error("Unknown err_code: 0x%x", static_cast<unsigned>(result));
    if (result != ATCMD_OK)
        return result;

    if (auto version = find_version(answer.data())) {
        mdm_revision = std::move(*version);
        log_info("modem fw rev: %s", printable(mdm_revision).c_str());
    }
    return ATCMD_OK;
}

// Reads the next line of the open modem file, at most 63 characters of it. False at the end of the file.
bool read_version_line(std::string& line)
{
    std::array<char, longest_version + 1> piece{};
    if (!FgetsModemFile(piece))
        return false;
    line = piece.data();

    // The rest of a longer line would otherwise be the next one.
    for (std::string_view last = line; last.size() == longest_version && !last.ends_with('\n'); last = piece.data()) {
        if (!FgetsModemFile(piece))
            break;
    }
    return true;
}

// The lines of get_cur_fwversion.
int32_t read_package_versions(std::string& fw, std::string& apps)
{
    std::string line;
    if (!read_version_line(line)) {
        log_error("Failed to read modem firmware version");
        return 1;
    }
    fw = trim_tail(line);
    log_info("New mdm rev: %s", printable(fw).c_str());

    if (!read_version_line(line)) {
        log_error("%s", s_in_tar_file_mode != 0 ? "Failed to read modem apps firmware version"
                                                : "Failed to read modem apps version");
        return 1;
    }
    if (line.empty())
        return 0;
    const std::string_view text = line;
    apps = trim_app_tail(text.substr(text.starts_with('"') ? 1 : 0));
    log_info("New mdm app rev: %s", printable(apps).c_str());
    return 0;
}

// The version in `text` as a number; 0 for one that is not official.
uint32_t version_value(std::string_view text)
{
    Version version{};
    (void)parse_version_string(version, text); // has said so
    return version.value();
}

} // namespace

// ---- what the modem runs and what the package brings ----

int32_t get_modem_version()
{
    mdm_revision.clear();
    int32_t result = ATCMD_OK;
    for (const char* port : at_ports) {
        result = ask_for_version(port);
        if (result == ATCMD_OK || result == ATCMD_MODEM_ERROR)
            break;
    }
    return result;
}

int32_t get_modem_apps_version()
{
    using namespace apps_version_reply;
    mdm_apps_revision.clear();
    std::array<uint8_t, size> reply{};
    uint32_t length = 0;

    (void)open_serial_port("/dev/ttyUSB0"); // ends the process where it fails
    const int32_t result = send_diagcmd2(request, reply, length);
    close_serial_port();
    if (result != 0)
        return result;

    mdm_apps_revision = apps_version_of(std::span(reply).first(length));
    log_info("Modem apps rev: %s", printable(mdm_apps_revision).c_str());
    return 0;
}

int32_t GetModemVers(int32_t& apps_result)
{
    if (const int32_t result = get_modem_version(); result != ATCMD_OK) {
        log_error("Failed to get modem firmware version!");
        return result;
    }
    apps_result = get_modem_apps_version();
    if (apps_result != 0)
        log_warning("Failed to get modem apps firmware version!");
    return 0;
}

int32_t get_cur_fwversion(std::string& fw, std::string& apps)
{
    fw.clear();
    apps.clear();
    if (OpenModemFile("fwversion.txt") < 0) {
        log_error("Not found modem firmware version file");
        return 1;
    }
    const int32_t result = read_package_versions(fw, apps);
    CloseModemFile();
    return result;
}

// ---- what is to be done ----

DueUpdates decide_updates(const VersionTexts& versions, bool forced)
{
    const std::string package_fw = printable(versions.package_fw);
    if (forced) {
        log_info("Force updating modem firmware to %s", package_fw.c_str());
        log_info("Force updating modem apps firmware to %s", printable(versions.package_apps).c_str());
        return {1, 1};
    }

    const uint32_t modem_value = version_value(versions.modem_fw);
    const uint32_t package_value = version_value(versions.package_fw);
    if (modem_value >= no_way_back && package_value < no_way_back) {
        log_warning("Don't allow downgrading modem firmware version to %s (older than 02_05_07)!", package_fw.c_str());
        return {0, 0};
    }

    const DueUpdates due = {versions.modem_fw != versions.package_fw ? 1 : 0,
                            versions.modem_apps != versions.package_apps ? 1 : 0};
    if (due.modem_fw == 0)
        log_warning("modem FW version is %s, there is no need to update", package_fw.c_str());
    if (due.apps == 0)
        log_warning("modem apps FW version is %s, there is no need to update",
                    printable(versions.package_apps).c_str());
    return due;
}

int32_t NeedToUpdate()
{
    const bool forced = s_force_fw_update != 0;
    int32_t apps_result = 0;
    if (!forced && (GetModemVers(apps_result) != 0 || apps_result != 0))
        return 0;
    if (get_cur_fwversion(cur_mdm_rev, cur_mdm_apps_rev) != 0 && !forced)
        return 0;

    const DueUpdates due = decide_updates({mdm_revision, mdm_apps_revision, cur_mdm_rev, cur_mdm_apps_rev}, forced);
    s_update_modem_fw = due.modem_fw;
    s_update_modem_apps_fw = due.apps;
    return due.modem_fw != 0 || due.apps != 0 ? 1 : 0;
}

int32_t NeedToErasePartitions()
{
    const uint32_t modem_value = version_value(mdm_revision);
    const uint32_t package_value = version_value(cur_mdm_rev);
    if (modem_value < no_erase_needed) {
        log_warning("Modem firmware version (%s) is older than 01_05_0F", printable(mdm_revision).c_str());
        return 1;
    }
    if (package_value < no_erase_needed) {
        log_warning("New modem firmware version (%s) is older than 01_05_0F", printable(cur_mdm_rev).c_str());
        return 1;
    }
    return 0;
}

// ---- for which modem ----

void CheckModemSku(uint32_t& sku)
{
    if (get_modem_sku(sku) != 0)
        sku = 0;
    if (sku < modem_sku_desc.size())
        log_info("MODEM TYPE: %s", modem_sku_desc[sku]);
    else
        log_info("MODEM TYPE: UNKNOWN - %d", static_cast<int>(sku));
}

void gen_sku_nvfile(std::string& path, uint32_t sku)
{
    constexpr const char* suffixes[] = {"", "_summit", "_valley"}; // by SKU
    if (!path.empty() && !path.ends_with('/'))
        path += '/';
    path += "nvitems";
    if (sku < std::size(suffixes))
        path += suffixes[sku];
    path += ".txt";
}

int32_t CheckFWConfig(uint32_t& config)
{
    constexpr const char* name = "ota_conf.txt";
    if (tar_fextract_to(name, scratch_path) != 0) {
        if (tar_seek_file(name) >= 0)
            return 1; // what cannot be looked into may exclude this modem
        log_info("No OTA update config file found!");
        return 0;
    }
    const UniqueFile file = open_file(scratch_path, "r");
    if (file == nullptr) {
        log_error("Failed to open OTA config file");
        return 1;
    }
    read_ota_config(file.get(), config);
    return 0;
}

int32_t IsAllowNVUpdate()
{
    if (s_run_in_recovery_mode == 0)
        return 1;
    std::array<char, board_id_size> board_id{};
    return read_board_id(board_id) == 0 ? is_nv_update_allowed(board_id) : 0;
}

// ---- the texts ----

std::optional<std::string> find_version(std::string_view answer)
{
    constexpr std::string_view label = "Revision";
    constexpr size_t version_at = label.size() + 2; // a colon and a blank are between
    const size_t found = answer.find(label);
    if (found == std::string_view::npos)
        return std::nullopt;
    const std::string_view text = answer.substr(std::min(found + version_at, answer.size()));
    return std::string(text.substr(0, std::min(text.find_first_of(" \n"), longest_version)));
}

std::string apps_version_of(std::span<const uint8_t> reply)
{
    using namespace std::string_view_literals;
    const auto carried = reply.subspan(std::min(reply.size(), apps_version_reply::text_at));
    std::string text(carried.begin(), carried.end());
    text.resize(text.find_last_not_of("\r\n\0"sv) + 1);
    return text.substr(0, std::min(text.find('\0'), longest_version)); // a zero ends it also before
}

std::string_view trim_app_tail(std::string_view text)
{
    return text.substr(0, text.find_last_not_of("\r\n\"") + 1);
}

uint32_t ConvertHexStr(std::string_view text, size_t count)
{
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        value *= 16; // before the digit is looked at, see the header
        const int32_t digit = i < text.size() ? hex2int(text[i]) : -1;
        if (digit < 0)
            break;
        value += static_cast<uint32_t>(digit);
    }
    return value;
}

int32_t parse_version_string(Version& version, std::string_view text)
{
    constexpr size_t major_at = 6, minor_at = 9, patch_at = 12, digits = 2;
    version = {};
    if (!text.starts_with("RIDGE")) {
        log_warning("Not official version: %s", printable(text).c_str());
        return 0;
    }
    const auto field = [text](size_t at) { return ConvertHexStr(text.substr(std::min(at, text.size())), digits); };
    version = {field(major_at), field(minor_at), field(patch_at)};
    return 1;
}

int32_t get_ota_cfg_type(std::string_view line)
{
    return line.starts_with(sku_key) ? 0 : -1;
}

uint32_t parse_sku_types(std::string_view list)
{
    uint32_t types = 0;
    std::string_view rest = trim_tail(list);
    for (auto name = next_token(rest, ","); !name.empty(); name = next_token(rest, ",")) {
        if (name == "ALL") {
            log_info("FW OTA Config: ALL");
            return fw_config::all;
        }
        const auto* sku = std::ranges::find(sku_names, name, &SkuName::name);
        if (sku == std::end(sku_names))
            continue;
        log_info("%s", sku->message);
        types |= sku->bit;
    }
    return types;
}

void read_ota_config(FILE* file, uint32_t& config)
{
    std::string line;
    while (read_line(file, line, longest_config_line)) {
        const std::string_view text = trim_buf(line);
        if (!is_comment_line(text) && get_ota_cfg_type(text) == 0)
            config = parse_sku_types(text.substr(sku_key.size()));
    }
}

int32_t is_nv_update_allowed(std::span<const char, board_id_size> board_id)
{
    const int32_t type = get_device_type(board_id);
    show_device_type(type);
    const auto* mark = std::ranges::find(production_marks, type, &ProductionMark::type);
    if (mark == std::end(production_marks))
        return 0;
    if (static_cast<unsigned char>(board_id[mark->at]) >= mark->first) {
        log_info("PVT");
        return 0;
    }
    log_info("NOT PVT");
    return 1;
}
