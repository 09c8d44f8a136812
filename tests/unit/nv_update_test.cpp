#include "wan_dloader/nv_update.h"

#include "app/wan_common.h"
#include "platform/os.h"

#include <gtest/gtest.h>
#include <limits>
#include <vector>

using namespace std::string_literals;

namespace {

// A file to read `text` from, which must outlive it.
UniqueFile file_of(std::string& text)
{
    return UniqueFile(fmemopen(text.data(), text.size(), "r"));
}

std::string rest_of(FILE* file)
{
    std::string rest;
    for (int c = getc(file); c != EOF; c = getc(file))
        rest += static_cast<char>(c);
    return rest;
}

} // namespace

TEST(NvUpdate, TrimsAndClassifiesLines)
{
    using enum NvRecordType;
    struct {
        std::string line;
        std::string trimmed; // of the blanks it begins with
        bool comment;
        NvRecordType type;
    } const rows[] = {
        {"", "", true, other},
        {" \t", "", true, other},
        {"\n", "\n", false, other},
        {" \r\n", "\r\n", false, other},
        {"\t# NV ITEM=1", "# NV ITEM=1", true, other},
        {"x#", "x#", false, other},
        {" NV ITEM=1 ", "NV ITEM=1 ", false, nv_item},
        {"NV ITEM FILE=", "NV ITEM FILE=", false, nv_item_file},
        {"NV ITEM", "NV ITEM", false, other},
        {"NV ITEM =1", "NV ITEM =1", false, other},
        {"NV ITEM FILE", "NV ITEM FILE", false, other},
        {"nv item=1", "nv item=1", false, other},
        {"EFS FILE=/NV ITEM=", "EFS FILE=/NV ITEM=", false, efs_file},
        {"\tDEL EFS FILE=a", "DEL EFS FILE=a", false, del_efs_file},
        {"DEL  EFS FILE=a", "DEL  EFS FILE=a", false, other},
        {"\0EFS FILE="s, "\0EFS FILE="s, false, other},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(trim_buf(row.line), row.trimmed) << row.line;
        EXPECT_EQ(is_comment_line(row.trimmed), row.comment) << row.line;
        EXPECT_EQ(get_nvtype(row.trimmed), row.type) << row.line;
    }
}

// Whatever is no number must not pass for 0, which is an item, and a length.
TEST(NvUpdate, NumbersAreFoundByName)
{
    constexpr int32_t most = std::numeric_limits<int32_t>::max(), least = std::numeric_limits<int32_t>::min();
    struct {
        const char* text;
        const char* name;
        int32_t value;
    } const rows[] = {
        {"NV ITEM=123, INDEX=4\r\n", "NV ITEM", 123},
        {"NV ITEM=123, INDEX=4\r\n", "INDEX", 4},
        {"NV ITEM=0,INDEX:007", "INDEX", 7},
        {"SIZE= \t+12,", "SIZE", 12},
        {"SIZE=12\t# bytes", "SIZE", 12},
        {"SIZE=-3", "SIZE", -3},
        {"SIZE=2147483648", "SIZE", most},
        {"SIZE=-99999999999999999999", "SIZE", least},
        {"NV ITEM=1", "INDEX", -1},
        {"", "SIZE", -1},
        {"SIZE", "SIZE", -1},
        {"SIZE=", "SIZE", -1},
        {"SIZE=\n", "SIZE", -1},
        {"SIZE = 4", "SIZE", -1},
        {"SIZE=x4", "SIZE", -1},
        {"SIZE=- 4", "SIZE", -1},
        {"SIZE=0x20C", "SIZE", -1},
        {"SIZE=12SIZE=13", "SIZE", -1},
        {"EFS FILE=/SIZE1,SIZE=4", "SIZE", -1},
    };
    for (const auto& row : rows)
        EXPECT_EQ(get_field_int(row.text, row.name), row.value) << row.text;
}

TEST(NvUpdate, APathThatIsNotGivenStaysAsItWas)
{
    struct {
        const char* text;
        int32_t length;
        const char* path; // afterwards
    } const rows[] = {
        {"EFS FILE=/a b ,SIZE=1", 5, "/a b "},
        {"EFS FILE=/c SIZE=1", -1, "/a b "},
        {"EFS FILE", -1, "/a b "},
        {"EFS FILE=", -1, "/a b "},
        {"FILE=/c,", -1, "/a b "},
        {"EFS FILE=/d,/e,", 2, "/d"},
        {"EFS FILE=,SIZE=1", 0, ""},
    };
    std::string path;
    for (const auto& row : rows) {
        EXPECT_EQ(get_field_str(row.text, "EFS FILE", path), row.length) << row.text;
        EXPECT_EQ(path, row.path) << row.text;
    }
}

TEST(NvUpdate, DataEndWithTheFileOrAtTheNextHeader)
{
    const std::string blanks(248, ' '); // "0A\n" behind them ends a line of 250 characters
    struct {
        std::string text;
        std::string data; // what the buffer begins with afterwards
        int32_t count;
        std::string rest; // what is left in the file
        std::string error;
    } const rows[] = {
        {"0A0b 0C", "\x0A\x0B\x0C", 3, "", ""},
        {"0A X1 0B", "\x0A", 1, "", ""},
        {"0A\r\n \t0B\t0C 0\n\n0D", "\x0A\x0B\x0C\x0D", 4, "", ""},
        {"0 A0\n0G\n0\nff", "\xFF", 1, "", ""},
        {"# 01\n01 # 02\n\n", "\x01", 1, "", ""},
        {"01\n# a=b\n02", "\x01", 1, "# a=b\n02", ""},
        {" 01\n\tNV ITEM=1\n02\n", "\x01", 1, "\tNV ITEM=1\n02\n", ""},
        {"x=\n", "", 0, "x=\n", ""},
        {"\n", "", 0, "", ""},
        // Room for eight bytes, and for one line beyond them.
        {"01 02 03 04\n05 06 07 08\n", "\1\2\3\4\5\6\7\x08", 8, "", ""},
        {"01 02 03 04\n05 06 07 08 0\n", "\1\2\3\4\5\6\7\x08", 8, "", ""},
        {"01 02 03 04\n05 06 07 08 09\n0A\nx=", "\1\2\3\4\5\6\7\x08", 8,
         "x=", "radio E RIL_TESSEL: UpdateNV: data beyond 8 bytes refused\n"},
        // Lines of 254 and 255 characters.
        {blanks + "0A 0B \n0C", "\x0A\x0B\x0C", 3, "", ""},
        {"01\n" + blanks + "0A 0B  \n0C\n", "\x01", -1, "0C\n",
         "radio E RIL_TESSEL: UpdateNV: line with a zero byte or more than 254 characters refused: " + blanks +
             "0A 0B \n"},
        {"01\n#" + blanks + blanks + "\n02", "\x01\x02", 2, "", ""},
        {"01\nx=" + blanks + blanks + "\n02", "\x01", 1, "x=" + blanks + blanks + "\n02", ""},
        {"01\n02\0 03\n"s, "\x01", -1, "",
         "radio E RIL_TESSEL: UpdateNV: line with a zero byte or more than 254 characters refused: 02\n"},
        {"\0"s, "", -1, "",
         "radio E RIL_TESSEL: UpdateNV: line with a zero byte or more than 254 characters refused: \n"},
    };
    for (const auto& row : rows) {
        std::string text = row.text;
        const UniqueFile file = file_of(text);
        std::vector<uint8_t> buffer(9, '#'); // the last one is a guard
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(get_data(std::span(buffer).first(8), file.get()), row.count) << row.text;
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), row.error) << row.text;
        EXPECT_EQ(std::string(buffer.begin(), buffer.end()), row.data + std::string(9 - row.data.size(), '#'))
            << row.text;
        EXPECT_EQ(rest_of(file.get()), row.rest) << row.text;
    }
}

// Data that end because the card was pulled out are not the record's.
TEST(NvUpdate, DataThatCannotBeReadAreNone)
{
    const UniqueFile folder = open_file("/", "r");
    ASSERT_NE(folder, nullptr);
    std::vector<uint8_t> buffer(8);
    EXPECT_EQ(get_data(buffer, folder.get()), -1);
}
