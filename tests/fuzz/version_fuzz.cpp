// Versions of modem and package, SKUs, and the file that says for which ones a package is.
#include "wan_dloader/version_policy.h"

#include "tests/fuzz/harness.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>

namespace {

void read_versions(const Bytes& bytes)
{
    const std::string text(bytes.begin(), bytes.end());
    if (const auto found = find_version(text)) {
        require(found->size() <= longest_version && text.find(*found) != std::string::npos, "a version is cut");
        require(found->find_first_of(" \n") == std::string::npos, "a version ends at a blank");
    }
    require(apps_version_of(bytes).size() <= longest_version, "an apps version is cut");
    const std::string_view trimmed = trim_app_tail(text);
    require(text.starts_with(trimmed) &&
                (trimmed.empty() || std::string("\r\n\"").find(trimmed.back()) == std::string::npos),
            "quotes and line ends are gone");
    require(ConvertHexStr(text, 2) <= 0xFF, "two digits are a byte");

    Version version{};
    if (parse_version_string(version, text) == 0)
        require(version.value() == 0, "what is not official is older than everything");
    require(version.major <= 0xFF && version.minor <= 0xFF && version.patch <= 0xFF, "a field is a byte");
}

void decide(const std::string& modem, const std::string& package)
{
    constexpr uint32_t no_way_back = 0x02050007;
    const VersionTexts texts = {modem, "A1", package, "A2"};
    const DueUpdates forced = decide_updates(texts, true);
    require(forced.modem_fw == 1 && forced.apps == 1, "what is forced is due");
    const DueUpdates due = decide_updates(texts, false);
    Version before{}, after{};
    (void)parse_version_string(before, modem);
    (void)parse_version_string(after, package);
    const bool back = before.value() >= no_way_back && after.value() < no_way_back;
    require(due.apps == (back ? 0 : 1), "apps that differ are due");
    require(due.modem_fw == (back || modem == package ? 0 : 1), "there is no way back");
}

void read_package(const Bytes& versions)
{
    ImagePath = "/data/";
    add_file("/data/fwversion.txt", versions);
    std::string fw, apps;
    (void)get_cur_fwversion(fw, apps);
    require(fw.size() <= longest_version && apps.size() <= longest_version, "a version is cut");
}

void read_config(const Bytes& bytes)
{
    const NamelessFile text(bytes);
    const UniqueFile file = open_file(text.path(), "r");
    constexpr uint32_t none_yet = 0x100;
    uint32_t config = none_yet;
    read_ota_config(file.get(), config);
    const std::string all(bytes.begin(), bytes.end());
    require(config == none_yet ? true : config <= fw_config::all && all.find("SKU=") != std::string::npos,
            "SKUs come from their line");
    require(parse_sku_types(all) <= fw_config::all, "there are three SKUs");
}

void allow(const Bytes& bytes)
{
    std::array<char, board_id_size> id{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), id.size()), id.begin());
    require(is_nv_update_allowed(id) <= 1, "it is allowed or not");
}

} // namespace

void fuzz_one(Input& input)
{
    const std::string other = input.text();
    const Bytes bytes = input.rest();
    read_versions(bytes);
    decide({bytes.begin(), bytes.end()}, other);
    read_package(bytes);
    read_config(bytes);
    allow(bytes);
}
