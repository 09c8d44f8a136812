#include "wan_dloader/version_policy.h"

#include "app/wan_common.h"
#include "platform/os.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <tuple>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace {

// An image folder with nothing in it but a fwversion.txt.
class PackageVersions : public testing::Test {
protected:
    void SetUp() override { ImagePath = std::string(mkdtemp(folder_.data())) + "/"; }
    void TearDown() override
    {
        std::filesystem::remove_all(folder_);
        ImagePath = image_path_;
    }

    int32_t read(const std::string& text)
    {
        EXPECT_GE(fputs(text.c_str(), open_file(ImagePath + "fwversion.txt", "w").get()), 0);
        return get_cur_fwversion(fw_, apps_);
    }

    std::string fw_, apps_;
    std::string folder_ = "/tmp/version-XXXXXX";
    std::string image_path_ = ImagePath;
};

} // namespace

TEST(VersionPolicy, FindsTheVersionsInAnswers)
{
    const std::pair<std::string, std::optional<std::string>> at_rows[] = {
        {"Model: x\nRevision: RIDGE_02_05_07  [date]\nRevision: R2\nOK\n", "RIDGE_02_05_07"},
        {"Revision: " + std::string(70, 'v'), std::string(63, 'v')},
        {"Revision: R1\rx\nOK", "R1\rx"},
        {"Revision:", ""},
        {"revision: a\nOK\n", std::nullopt},
    };
    for (const auto& [answer, version] : at_rows)
        EXPECT_EQ(find_version(answer), version) << answer;

    const std::string header = "K\0Q\0\x0C\0"s;
    const std::pair<std::string, std::string> diag_rows[] = {
        {"", ""}, {header, ""}, {header + "\r\n\0"s, ""}, {header + "A1\r\n\0\0\n"s, "A1"}, {header + "A\n\0B"s, "A\n"},
    };
    for (const auto& [reply, version] : diag_rows)
        EXPECT_EQ(apps_version_of(std::vector<uint8_t>(reply.begin(), reply.end())), version);
}

// A field that lacks its second digit is sixteen times too large; those behind it are read where they are not.
TEST(VersionPolicy, ParsesVersions)
{
    const std::pair<const char*, uint32_t> rows[] = {
        {"RIDGE_02_05_07", 0x02050007}, {"RIDGE_FF_fe_0F1", 0xFFFE000F}, {"RIDGE_2_05_07", 0x20500070},
        {"RIDGE_02_5x_7", 0x02500070},  {"RIDGE_02_05", 0x02050000},     {"RIDGE", 0},
    };
    Version version{};
    for (const auto& [text, value] : rows) {
        EXPECT_EQ(parse_version_string(version, text), 1) << text;
        EXPECT_EQ(version.value(), value) << text;
    }
    version = {1, 1, 1};
    for (const char* text : {"ridge_02_05_07", "RIDG", ""})
        EXPECT_EQ(parse_version_string(version, text), 0) << text;
    EXPECT_EQ(version.value(), 0U);
}

TEST(VersionPolicy, DecidesWhatIsDue)
{
    struct {
        VersionTexts versions;
        std::pair<int32_t, int32_t> due; // modem firmware, apps
    } const rows[] = {
        {{"RIDGE_02_05_07", "A1", "RIDGE_02_05_06", "A2"}, {0, 0}}, // a downgrade: not the apps either
        {{"RIDGE_02_05_07", "A1", "test build", "A2"}, {0, 0}},
        {{"RIDGE_02_05_08", "A1", "RIDGE_02_05_07", "A1"}, {1, 0}},
        {{"RIDGE_02_05_06", "A1", "RIDGE_01_00_00", "A2"}, {1, 1}},
        {{"test build", "A1", "RIDGE_01_00_00", "A1"}, {1, 0}},
        {{"RIDGE_01_05_0F", "A1", "RIDGE_01_05_0F", "A1"}, {0, 0}},
        {{"RIDGE_01_05_0F", "A1", "RIDGE_01_05_0F", "A1 "}, {0, 1}},
        {{"RIDGE_01_05_0F", "A1", "RIDGE_01_05_0f", "A1"}, {1, 0}}, // the texts count
    };
    for (const auto& row : rows) {
        const DueUpdates due = decide_updates(row.versions, false);
        EXPECT_EQ(std::pair(due.modem_fw, due.apps), row.due)
            << row.versions.modem_fw << " " << row.versions.package_fw;
        EXPECT_EQ(decide_updates(row.versions, true).apps, 1);
    }
}

TEST(VersionPolicy, OldFirmwareOnEitherSideAsksForErasure)
{
    const std::tuple<const char*, const char*, int32_t> rows[] = {
        {"RIDGE_01_05_0F", "RIDGE_01_05_0F", 0},
        {"RIDGE_01_05_0E", "RIDGE_02_05_07", 1},
        {"RIDGE_02_05_07", "RIDGE_01_05_0E", 1},
    };
    for (const auto& [modem, package, erase] : rows) {
        mdm_revision = modem;
        cur_mdm_rev = package;
        EXPECT_EQ(NeedToErasePartitions(), erase) << modem << " " << package;
    }
}

TEST_F(PackageVersions, AreTheTwoLinesOfTheirFile)
{
    EXPECT_EQ(get_cur_fwversion(fw_, apps_), 1); // no file yet
    const std::string longest(63, 'v');
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"R1\nA1", "R1", "A1"},
        {"R1\r\n\"A1\"\r\n", "R1", "A1"},
        {"\"R1\"\n\"\"A\"1\"\"\n", "\"R1\"", "\"A\"1"},
        {"\n\"\nA1\n", "", ""},
        {longest + "\nA1\n", longest, "A1"}, // what is cut off is no line of its own
        {longest + longest + longest + "\n" + longest + "A\n", longest, longest},
    };
    for (const auto& [text, fw, apps] : rows) {
        EXPECT_EQ(read(text), 0) << text;
        EXPECT_EQ(fw_, fw) << text;
        EXPECT_EQ(apps_, apps) << text;
    }
    EXPECT_EQ(read(""), 1);
    EXPECT_EQ(read("R1\n"), 1);
}

// Texts of the package and the modem are shown, but end no line.
TEST_F(PackageVersions, ForgeNoLogLine)
{
    const std::string text = "x#\nERROR:#y\r\033\x7f";
    testing::internal::CaptureStdout();
    tessel_stdout_on_off(1);
    EXPECT_EQ(read("\rx\ry\n\033\x7fz\n"), 0);
    (void)decide_updates({text, text, text, text}, false);
    (void)decide_updates({text, text, text, text}, true);
    mdm_revision = cur_mdm_rev = text;
    EXPECT_EQ(NeedToErasePartitions(), 1);
    mdm_revision = "RIDGE_02_05_07";
    EXPECT_EQ(NeedToErasePartitions(), 1);
    tessel_stdout_on_off(0);
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::ranges::count(console, '\n'), 2 + 4 + 2 + 3 + 2) << console;
    EXPECT_EQ(console.find_first_of("\r\033\x7f"), std::string::npos) << console;
}

TEST(VersionPolicy, NamesTheNvFileOfTheSku)
{
    const std::tuple<std::string, uint32_t, const char*> rows[] = {
        {"", 0, "nvitems.txt"},
        {"/a", 1, "/a/nvitems_summit.txt"},
        {"/a/", 2, "/a/nvitems_valley.txt"},
        {"", 3, "nvitems.txt"},
    };
    for (auto [path, sku, name] : rows) {
        gen_sku_nvfile(path, sku);
        EXPECT_EQ(path, name);
    }
}

TEST(VersionPolicy, ReadsTheSkusOfAPackage)
{
    const std::pair<std::string, uint32_t> rows[] = {
        {"SKU=SUMMIT,VALLEY\n", 6},     {"SKU=ALL,RIDGE", 7},
        {"SKU= SUMMIT\n", 0},           {"SKU=,,SUMMIT,,summit,RIDGEX\n", 2},
        {" \tSKU=VALLEY\r\n", 4},       {"SKU=RIDGE\n# SKU=ALL\n\n \nsku=ALL\nSKU =ALL\n", 1},
        {"SKU=RIDGE\nSKU=SUMMIT\n", 2}, {std::string(254, '#') + "SKU=RIDGE\n", 0x55}, // not a line of its own
    };
    for (auto [text, types] : rows) {
        uint32_t config = 0x55;
        read_ota_config(UniqueFile(fmemopen(text.data(), text.size(), "r")).get(), config);
        EXPECT_EQ(config, types) << text;
    }
}

TEST(VersionPolicy, ProductionUnitsKeepTheirNvData)
{
    const std::pair<const char*, int32_t> rows[] = {
        {"0c03", 1},     {"0c14", 0},      {"0d1\xff", 0},   {"0d0", 1},          {"0c03999999999999", 1},
        {"00109999", 1}, {"001099995", 1}, {"001099996", 0}, {"00109999\xff", 0}, {"0b03", 0},
    };
    for (const auto& [text, allowed] : rows) {
        std::array<char, board_id_size> id{};
        std::ranges::copy(std::string_view(text), id.begin());
        EXPECT_EQ(is_nv_update_allowed(id), allowed) << text;
    }
}
