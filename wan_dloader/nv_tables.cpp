#include "wan_dloader/nv_tables.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace {

// Item files of the radio: numbers `first` to `last`, nominally of `size` bytes each.
struct RadioFiles {
    uint16_t first, last, size;
};

constexpr RadioFiles radio_files[] = {
    {20085, 20085, 32}, {20086, 20086, 64}, {20089, 20089, 32}, {20095, 20095, 1},  {20096, 20098, 4},
    {20099, 20099, 16}, {20100, 20100, 32}, {20101, 20101, 64}, {20102, 20102, 4},  {20103, 20103, 2},
    {20104, 20104, 32}, {20106, 20106, 8},  {20107, 20110, 32}, {20120, 20120, 32}, {20121, 20121, 16},
    {20122, 20122, 4},  {20128, 20128, 64}, {20132, 20132, 32}, {20135, 20135, 32}, {20213, 20214, 32},
    {20220, 20220, 64}, {20223, 20223, 32}, {20229, 20229, 1},  {20230, 20232, 4},  {20233, 20233, 16},
    {20234, 20234, 32}, {20235, 20235, 64}, {20236, 20236, 4},  {20237, 20237, 2},  {20238, 20238, 32},
    {20240, 20240, 8},  {20241, 20244, 32}, {20262, 20262, 64}, {20266, 20266, 32}, {20463, 20470, 2},
    {20537, 20544, 2},  {20612, 20617, 2},  {20791, 20791, 64}, {20794, 20794, 32}, {20800, 20800, 1},
    {20801, 20803, 4},  {20804, 20804, 16}, {20805, 20805, 32}, {20806, 20806, 64}, {20807, 20807, 4},
    {20808, 20808, 2},  {20809, 20809, 32}, {20811, 20811, 8},  {20812, 20815, 32}, {20833, 20833, 64},
    {20837, 20837, 32}, {20849, 20849, 64}, {20852, 20852, 32}, {20858, 20858, 1},  {20859, 20861, 4},
    {20862, 20862, 16}, {20863, 20863, 32}, {20864, 20864, 64}, {20865, 20865, 4},  {20866, 20866, 2},
    {20867, 20867, 32}, {20869, 20869, 8},  {20870, 20873, 32}, {20891, 20891, 64}, {20895, 20895, 32},
    {20995, 20995, 4},  {21328, 21335, 32}, {22131, 22131, 8},  {22148, 22148, 16}, {22149, 22149, 32},
    {22150, 22150, 64}, {22151, 22151, 4},  {22155, 22155, 8},  {22156, 22159, 32}, {22882, 22898, 32},
    {22899, 22910, 64},
};

// All the others, behind those of the radio.
constexpr NvFileRow named_files[] = {
    {"/nv/item_files/jcdma/jcdma_mode", 1},
    {"/nv/item_files/mcs/tcxomgr/field_cal_version", 4},
    {"/nv/item_files/mcs/tcxomgr/tcxo_mode", 4},
    {"/nv/item_files/mcs/tcxomgr/xo_factory_cal_debug", 76},
    {"/nv/item_files/modem/mmode/ue_usage_setting", 1},
    {"/nv/item_files/modem/qmi/cat/qmi_cat_mode", 1},
    {"/nv/item_files/modem/uim/gstk/tp_clients", 4},
    {"/nv/item_files/modem/uim/uimdrv/hotswap_card_inserted_level", 2},
    {"/nv/item_files/modem/uim/uimdrv/me_hotswap_configuration", 8},
    {"/nv/item_files/wcdma/cm/wl1_ul_cm_enable", 1},
    {"/nv/item_files/wcdma/l1utils/wl1_dsr_mode", 1},
    {"/nv/item_files/wcdma/rrc/wcdma_rrc_a2_power_opt", 1},
    {"/nv/item_files/wcdma/rrc/wcdma_rrc_fast_return_to_lte_after_csfb", 1},
    {"/nv/item_files/wcdma/rrc/wcdma_rrc_fast_return_to_lte_after_csfb_timer", 2},
    {"/nv/item_files/wcdma/rrc/wcdma_rrc_wtol_cm_support", 1},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_ard_dwell_time", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_ard_mmt_time", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_ard_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_pch_filtecio_lower_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_pch_filtecio_upper_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_pch_min_full_div_cycles", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_pch_oride_val", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_pch_pi_sum_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_qual_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_rscp_thresh", 2},
    {"/nv/item_files/wcdma/rxd/wl1_rxd_tpr_thresh", 2},
    {"/nv/item_files/modem/lte/lte_3gpp_release_ver", 1},
    {"/nv/item_files/modem/mmode/lte_bandpref", 8},
    {"/nv/item_files/modem/nas/exclude_ptmsi_type_field", 1},
    {"/nv/item_files/modem/utils/a2/bam_dynamic_config", 1},
    {"/sd/rat_acq_order", 7},
    {"/nv/item_files/modem/data/3gpp/ps/ser_req_throttle_behavior", 4},
    {"/nv/item_files/modem/data/epc/pdn_throttling_config.txt", 19},
    {"/nv/item_files/modem/nas/aggression_management", 1},
    {"/nv/item_files/modem/uim/gstk/feature_bmsk", 4},
    {"/nv/item_files/modem/qmi/cat/qmi_cat_mode", 1},
};

constexpr NvFileRow efs_files[] = {
    {"/nv/item_files/rfnv/00020090", 128}, {"/nv/item_files/rfnv/00020133", 128}, {"/nv/item_files/rfnv/00022960", 524},
    {"/nv/item_files/rfnv/00022967", 526}, {"/nv/item_files/rfnv/00022975", 440}, {"/nv/item_files/rfnv/00022976", 450},
    {"/nv/item_files/rfnv/00022978", 440}, {"/nv/item_files/rfnv/00022979", 457},
};

constexpr std::string_view radio_folder = "/nv/item_files/rfnv/";
constexpr size_t radio_digits = 8; // of the number that is a radio file's name

constexpr size_t radio_file_count()
{
    size_t count = 0;
    for (const RadioFiles& files : radio_files)
        count += files.last - files.first + 1U;
    return count;
}

// The radio files' paths, each with its zero.
using RadioPath = std::array<char, radio_folder.size() + radio_digits + 1>;
constexpr auto radio_paths = [] {
    std::array<RadioPath, radio_file_count()> paths{};
    auto path = paths.begin();
    for (const RadioFiles& files : radio_files) {
        for (uint32_t number = files.first; number <= files.last; ++number, ++path) {
            std::ranges::copy(radio_folder, path->begin());
            uint32_t rest = number;
            for (size_t digit = radio_digits; digit-- > 0; rest /= 10)
                (*path)[radio_folder.size() + digit] = static_cast<char>('0' + rest % 10);
        }
    }
    return paths;
}();

constexpr auto item_files = [] {
    std::array<NvFileRow, radio_file_count() + std::size(named_files)> rows{};
    size_t next = 0;
    for (const RadioFiles& files : radio_files) {
        for (uint32_t number = files.first; number <= files.last; ++number, ++next)
            rows[next] = {radio_paths[next].data(), files.size};
    }
    std::ranges::copy(named_files, rows.begin() + radio_file_count());
    return rows;
}();

static_assert(radio_file_count() == 153 && item_files.size() == 189);
static_assert(
    [] {
        uint32_t numbers = 0;
        uint32_t sizes = 0;
        for (const RadioFiles& files : radio_files) {
            const uint32_t count = files.last - files.first + 1U;
            numbers += count * (files.first + files.last) / 2U;
            sizes += count * files.size;
        }
        return numbers == 3228216 && sizes == 4020;
    }(),
    "sums over all radio files: a slip in one row moves them");
static_assert(item_files.front().path == std::string_view("/nv/item_files/rfnv/00020085"));
static_assert(item_files[152].path == std::string_view("/nv/item_files/rfnv/00022910"));
static_assert(item_files[158].path == std::string_view(item_files.back().path), "saved twice");
static_assert(std::size(efs_files) == 8);

} // namespace

constinit const std::span<const NvFileRow> NvItemFileList = item_files;
constinit const std::span<const NvFileRow> EFSFileList = efs_files;

bool is_indexed_nv_item(uint16_t item)
{
    const auto is_entry = [item](const NvItemRow& row) { return row.item == item && row.index != 0; };
    return std::ranges::any_of(NvItemList, is_entry);
}
