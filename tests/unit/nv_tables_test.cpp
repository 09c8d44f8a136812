// A product's list of NV items on its way into the build. What the shipped tables hold is asserted where they stand.
#include "platform/os.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

class NvItemListFile : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(folder.data()), nullptr); }
    void TearDown() override { fs::remove_all(folder); }

    // Makes the source from `text`. Returns the messages, on one line with single blanks; none when the list is good.
    [[nodiscard]] std::string made_from(const std::string& text) const
    {
        std::ofstream(folder + "/list") << text;
        const int status = run_shell("%s -DLIST=%s/list -DSOURCE=%s -P %s >%s/messages 2>&1", CMAKE_BINARY,
                                     folder.c_str(), source().c_str(), NV_ITEM_LIST_SCRIPT, folder.c_str());
        std::ifstream messages(folder + "/messages");
        std::string line;
        for (std::string word; messages >> word;)
            line += word + " ";
        EXPECT_EQ(status != 0, fs::file_size(folder + "/messages") != 0) << line;
        EXPECT_EQ(status == 0, fs::exists(source()));
        return line;
    }
    [[nodiscard]] std::string source() const { return folder + "/source.cpp"; }

    std::string folder = fs::temp_directory_path() / "nv_tables_test-XXXXXX";
};

TEST_F(NvItemListFile, ThatIsNoListIsRefusedByItsLine)
{
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"", "no item in it"},
        {"# 1 128 0\n\n", "no item in it"},
        {"5 128\n", ":1: not 'item size index': 5 128"},
        {"5 128 0 0\n", ":1: not 'item size index': 5 128 0 0"},
        {"5 128 0\n010 128 0\n", ":2: not 'item size index': 010 128 0"},
        {"5 128 0\n6 128 0 x[;\n", "not 'item size index': 6 128 0 x[;"},
        {"5 128 -1\n", "not 'item size index': 5 128 -1"},
        {"65536 128 0\n", ":1: an item is at most 65535"},
        {"18446744073709551616 128 0\n", ":1: not"},
        {"5 0 0\n", ":1: an item is at most"},
        {"5 129 0\n", ":1: an item is at most"},
        {"5 128 256\n", ":1: an item is at most"},
        {"5 128 0\n\n# one more\n4 128 0\n", ":4: items are sorted, but 4 follows 5"},
        {"5 128 1\n", ":1: index 1 of item 5 where 0 is next"},
        {"5 128 0\n5 128 0\n", ":2: index 0 of item 5 where 1 is next"},
        {"5 128 0\n6 128 1\n", ":2: index 1 of item 6 where 0 is next"},
    };
    for (const auto& row : cases)
        EXPECT_THAT(made_from(row.text), HasSubstr(row.message)) << row.text;
}

TEST_F(NvItemListFile, BecomesTheTable)
{
    EXPECT_EQ(made_from("# mine; [ \"all\"\r\n\n  0 128 0\r\n20\t128 0 # first [\n20 1 1 \n\n65535 128 0"), "");
    std::ostringstream text;
    text << std::ifstream(source()).rdbuf();
    EXPECT_THAT(text.str(), HasSubstr("NvItemRow rows[] = {\n    {0, 128, 0},\n    {20, 128, 0},\n    {20, 1, 1},\n"
                                      "    {65535, 128, 0},\n};\n"));
}

} // namespace
