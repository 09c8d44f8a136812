// Backup files that are damaged or forged: what can be read of one is what it holds.
#include "wan_dloader/nv_file.h"

#include "platform/os.h"
#include "wan_dloader/nv_backup.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

using namespace std::string_literals;
using ::testing::ElementsAre;

namespace {

// A chunk of two files: "/a" with two bytes, "" with none.
const std::string two_files = "\3\0/a\0\2\0xy\1\0\0\0\0"s;
constexpr size_t first_file = 9;

std::string le32(uint32_t number)
{
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(number >> shift & 0xFF);
    return bytes;
}

// An unnamed file with `bytes`, at its beginning.
UniqueFile file_of(const std::string& bytes)
{
    UniqueFile file(tmpfile());
    EXPECT_EQ(fwrite(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    rewind(file.get());
    return file;
}

// How many files can be read of a chunk; nothing that is read lies beyond it.
int files_in(FILE* file, uint32_t size)
{
    NvChunkReader records(file, {nv_chunk_header::efs_files, 0xFFFFFFFF, size});
    for (int count = 0;; ++count) {
        const auto path = records.read_path();
        const auto length = path ? records.read_number() : std::nullopt;
        std::vector<uint8_t> data(length.value_or(0));
        if (!length || !records.read(data))
            return count;
        EXPECT_LE(ftello(file), static_cast<off_t>(size));
    }
}

// The log of a walk through a file with `bytes`, a record as "I text", without its first and last line.
std::vector<std::string> verified(const std::string& bytes)
{
    std::string name = std::filesystem::temp_directory_path() / "nv_file_test-XXXXXX";
    const UniqueFd made(mkstemp(name.data()));
    std::ofstream(name, std::ios::binary) << bytes;
    ::testing::internal::CaptureStderr();
    NVItemBackupVerify(name);
    std::istringstream log(::testing::internal::GetCapturedStderr());
    std::filesystem::remove(name);
    std::vector<std::string> records;
    for (std::string line; std::getline(log, line);)
        records.push_back(line.substr(6, 1) + line.substr(line.find(": ") + 1));
    EXPECT_EQ(records.front(), "I >>> Start verifying nvbackup file ...");
    records.erase(records.begin());
    if (records.back() == "I >>> Completed nvbackup file verifying: OK")
        records.pop_back();
    return records;
}

std::string header(uint32_t chunks)
{
    return "\1\0VNPUKB\0\0\1\0"s + le32(chunks);
}

std::string chunk(uint32_t tag, uint32_t count, const std::string& records)
{
    return le32(tag) + le32(count) + le32(static_cast<uint32_t>(records.size())) + records;
}

} // namespace

TEST(NvFile, RecordsEndWhereTheChunkOrTheFileEnds)
{
    for (uint32_t size = 0; size <= two_files.size(); ++size) {
        const int whole = size < first_file ? 0 : size < two_files.size() ? 1 : 2;
        EXPECT_EQ(files_in(file_of(two_files).get(), size), whole) << size;
        EXPECT_EQ(files_in(file_of(two_files.substr(0, size)).get(), 0xFFFFFFFF), whole) << size;
    }
}

TEST(NvFile, PathEndsWithItsZeroOrItsLength)
{
    const struct {
        std::string bytes;
        std::optional<std::string> path;
    } rows[] = {
        {"\2\0ab"s, "ab"},
        {"\3\0a\0b"s, std::nullopt},
        {"\1\0\0"s, ""},
        {"\0\0"s, ""},
        {"\1"s, std::nullopt},
        {"\3\0ab"s, std::nullopt},
        {"\xFF\xFF"
         "ab"s,
         std::nullopt},
    };
    for (const auto& row : rows) {
        const UniqueFile file = file_of(row.bytes);
        EXPECT_EQ(NvChunkReader(file.get(), {0, 1, 100}).read_path(), row.path);
    }
}

TEST(NvFile, NothingIsLeftOutBeyondTheEnd)
{
    const UniqueFile file = file_of("abc");
    NvChunkReader records(file.get(), {0, 1, 0xFFFFFFFF});
    EXPECT_FALSE(records.skip(4));
    EXPECT_FALSE(records.skip(0xFFFFFFFF));
    EXPECT_TRUE(records.skip(3));
    EXPECT_FALSE(records.skip(1));
    EXPECT_TRUE(records.skip(0));
}

TEST(NvFile, VerifyingEndsWithTheFile)
{
    using namespace nv_chunk_header;
    EXPECT_THAT(verified(""), ElementsAre("E Not a valid NV backup file"));
    EXPECT_THAT(verified(header(0)), ElementsAre("I Total chunks: 0"));
    EXPECT_THAT(verified(header(0xFFFFFFFF)), ElementsAre("I Total chunks: -1", "I >>> -1", "E Missing chunks: -1"));
    // An unknown chunk is no chunk: what follows its header is looked at as the next one.
    EXPECT_THAT(verified(header(3) + chunk(0x42504103, 0, "") + chunk(nv_items, 1, std::string(130, 'x'))),
                ElementsAre("I Total chunks: 3", "I >>> 3", "E Missing chunks: 3", "I >>> 2", "I NV Item chunk:",
                            "I \tNV items: 1", "I \tTotal size: 130", "I >>> 1", "E Missing chunks: 1"));
    // More files than there are, and a chunk that is larger than the file.
    EXPECT_THAT(verified(header(1) + chunk(efs_files, 0xFFFFFFFF, two_files)),
                ElementsAre("I Total chunks: 1", "I >>> 1", "I EFS File chunk:", "I \tEFS files: -1",
                            "I \tTotal size: 14", "I    0 /a", "I    1 ", "E NV backup file ends inside record 2"));
    EXPECT_THAT(verified(header(1) + le32(nv_item_files) + le32(1) + le32(0xFFFFFFFF) + two_files.substr(0, 8)),
                ElementsAre("I Total chunks: 1", "I >>> 1", "I NV Item File chunk:", "I \tNV item files: 1",
                            "I \tTotal size: -1", "I    0 /a", "E NV backup file ends inside record 0",
                            "E NV backup file ends inside a chunk"));
    EXPECT_THAT(verified(header(1) + le32(nv_items) + le32(2) + le32(260) + std::string(259, 'x')),
                ElementsAre("I Total chunks: 1", "I >>> 1", "I NV Item chunk:", "I \tNV items: 2",
                            "I \tTotal size: 260", "E NV backup file ends inside a chunk"));
}

TEST(NvFile, HoldsWhatARestoreFinds)
{
    using namespace nv_chunk_header;
    const std::string items = chunk(nv_items, 2, "\1\0\0"s + std::string(126, '\0') + "x" + std::string(130, '\0')),
                      files = chunk(nv_item_files, 2, two_files), none = chunk(efs_files, 0, "");
    const std::string all = header(3) + items + files + none;
    const struct {
        std::string bytes, contents;
        bool whole, damaged;
    } rows[] = {
        {all, "2 NV items (1 not zero), 2 item files (2 bytes), 0 EFS files (0 bytes)", true, false},
        {all + "x", "2 NV items (1 not zero), 2 item files (2 bytes), 0 EFS files (0 bytes)", false, false},
        {header(3) + none + items + files, "2 NV items (1 not zero), 2 item files (2 bytes), 0 EFS files (0 bytes)",
         false, false},
        {header(2) + items + files, "2 NV items (1 not zero), 2 item files (2 bytes), 0 EFS files (0 bytes)", false,
         false},
        // The second one is still being made, or is not counted.
        {header(1) + items + chunk(nv_item_files, 0, "") + two_files,
         "2 NV items (1 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false, false},
        {header(1) + items + files, "2 NV items (1 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false,
         true},
        // A size that reaches beyond the file hides the chunk behind it.
        {header(3) + items + le32(nv_item_files) + le32(2) + le32(0xFFFF) + two_files + chunk(efs_files, 2, two_files),
         "2 NV items (1 not zero), 2 item files (2 bytes), 0 EFS files (0 bytes)", false, true},
        {header(3) + items + chunk(0x42504103, 2, two_files) + chunk(efs_files, 2, two_files),
         "2 NV items (1 not zero), 0 item files (0 bytes), 2 EFS files (2 bytes)", false, true},
        {header(3) + items + chunk(nv_item_files, 1, two_files) + none,
         "2 NV items (1 not zero), 1 item files (2 bytes), 0 EFS files (0 bytes)", false, true},
        {header(3) + items + chunk(nv_item_files, 9, "\3\0/a\0\x09\0xy"s) + chunk(efs_files, 2, two_files),
         "2 NV items (1 not zero), 0 item files (0 bytes), 2 EFS files (2 bytes)", false, true},
        {all.substr(0, 200), "1 NV items (1 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false, false},
        {header(1) + chunk(nv_items, 2, "\x14" + std::string(129, '\0') + "\x14\0\1"s + std::string(127, '\0')),
         "2 NV items (0 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false, false},
        {"x" + all, "0 NV items (0 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false, true},
        {"", "0 NV items (0 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes)", false, false},
    };
    std::string name = std::filesystem::temp_directory_path() / "nv_file_test-XXXXXX";
    const UniqueFd made(mkstemp(name.data()));
    for (const auto& row : rows) {
        std::ofstream(name, std::ios::binary) << row.bytes;
        EXPECT_EQ(nv_file_contents(name).text(), row.contents);
        EXPECT_EQ(nv_file_contents(name).whole, row.whole) << row.contents;
        EXPECT_EQ(nv_file_contents(name).damaged, row.damaged) << row.bytes.size();
    }
    std::ofstream(name, std::ios::binary) << all;
    EXPECT_THAT(nv_file_contents(name).names, ElementsAre("", "/a", "NV item 1"));
    const std::string zeros(127, '\0');
    std::ofstream(name, std::ios::binary) << header(1) + chunk(nv_items, 2, "\x14\0\1"s + zeros + "\x14\0\2x"s + zeros);
    EXPECT_THAT(nv_file_contents(name).names, ElementsAre("NV item 20 index 2"));
    std::filesystem::remove(name);
    const NvFileContents one = {true, 1, 1, 1, 1, 1, 1};
    EXPECT_FALSE(one.holds_less_than(one));
    for (uint64_t NvFileContents::*const field :
         {&NvFileContents::items, &NvFileContents::filled_items, &NvFileContents::item_files,
          &NvFileContents::item_file_bytes, &NvFileContents::efs_files, &NvFileContents::efs_file_bytes}) {
        NvFileContents two = one;
        two.*field = 2;
        EXPECT_TRUE(one.holds_less_than(two));
        EXPECT_FALSE(two.holds_less_than(one));
    }
    // As much, but not the same.
    NvFileContents two = one, three = one;
    two.names = {"/a", "/b"};
    three.names = {"/a", "/c\n", "/d", "/e", "/f", "/g"};
    EXPECT_TRUE(two.holds_less_than(three));
    EXPECT_TRUE(three.holds_less_than(two));
    EXPECT_FALSE(two.holds_less_than(one));
    EXPECT_EQ(two.lacks_of(three), "/c , /d, /e and 2 more");
    EXPECT_EQ(three.lacks_of(two), "/b");
    EXPECT_EQ(two.lacks_of(one), "");
}

TEST(NvFile, OnlyAFileOfTheChunksThatAreExpectedIsExtended)
{
    using namespace nv_chunk_header;
    const std::string items = header(1) + chunk(nv_items, 1, std::string(130, 'x'));
    const std::string all = items + chunk(nv_item_files, 2, two_files) + chunk(efs_files, 0, "");
    std::string name = std::filesystem::temp_directory_path() / "nv_file_test-XXXXXX";
    const UniqueFd made(mkstemp(name.data()));
    for (const std::string& bytes : {""s, header(1), items.substr(0, 100), items + "x", all}) {
        std::ofstream(name, std::ios::binary) << bytes;
        EXPECT_EQ(NvItemFileBackup(name), 1);
        EXPECT_EQ(EfsFileBackup(name), 1);
        std::ostringstream left;
        left << std::ifstream(name, std::ios::binary).rdbuf();
        EXPECT_EQ(left.str(), bytes);
    }
    std::filesystem::remove(name);
}
