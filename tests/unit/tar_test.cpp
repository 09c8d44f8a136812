// Archives made byte by byte: whole ones as writers make them, forged and damaged ones.
#include "platform/tar.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

// Its size as its writer would put it, or in `size`.
std::string member(const std::string& name, const std::string& data, char type = '0', const std::string& size = "")
{
    std::array<char, 12> octal{};
    (void)snprintf(octal.data(), octal.size(), "%011zo", data.size());
    std::string block = name + std::string(124 - name.size(), '\0') + (size.empty() ? octal.data() : size);
    block.resize(512);
    block[156] = type;
    return block + data + std::string((512 - data.size() % 512) % 512, '\0');
}

std::string text_of(size_t size)
{
    std::string text;
    while (text.size() < size)
        text += static_cast<char>('!' + text.size() % 89) + std::string(text.size() % 3 == 0 ? "\n" : "");
    return text.substr(0, size);
}

const std::string end(1024, '\0');

struct Tar : ::testing::Test {
    void SetUp() override { folder = mkdtemp(folder.data()); }
    void TearDown() override
    {
        tar_deinit();
        fs::remove_all(folder);
    }
    int32_t init(const std::string& bytes) const
    {
        std::ofstream(folder + "/tar", std::ios::binary) << bytes;
        return tar_init(folder + "/tar");
    }
    std::string extracted(const std::string& name) const
    {
        EXPECT_EQ(tar_fextract_to(name, folder + "/out"), 0);
        std::ifstream file(folder + "/out", std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::string folder = fs::temp_directory_path() / "tar_test-XXXXXX";
};

void fails(const std::string& error, const std::function<int32_t()>& call)
{
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(call(), -1) << error;
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr(" E RIL_TESSEL: " + error + "\n"));
}

} // namespace

TEST_F(Tar, SizesAreReadAsWritersPadThem)
{
    const auto size_in = [&](const std::string& field) {
        return init(member("m", std::string(512, 'x'), '0', field) + end) == 0 ? tar_get_file_size(0) : -1;
    };
    for (const std::string& five :
         {"00000000005"s, "0000000005 "s, "      5 "s, "000000000005"s, "5"s, "5\0x"s, "5 9"s})
        EXPECT_EQ(size_in(five), 5) << five;
    EXPECT_EQ(size_in("\x80\0\0\0\0\0\0\0\0\0\2\1"s), 513);
    for (const std::string& bad : {"00000000008"s, "-0000000005"s, "0x5"s, "\xFF"s, "\xB5"s, "\x80\0\0\0\x80"s})
        fails("Failed to get files in tar file", [&] { return static_cast<int32_t>(size_in(bad)); });
}

TEST_F(Tar, ListsWhatWritersMake)
{
    const std::string longest(100, 'n'), file = member("./a", "1");
    std::string many;
    for (char name = 'a'; name < 'z'; ++name)
        many += member({name}, "1");
    const std::tuple<std::string, std::string, int32_t> rows[] = {
        {end, "", 0},
        {member("dir/sub/name.bin", "1") + file + end, "name.bin a ", 2},
        {member(longest, "1") + member("../..", "1") + member("dir/", "1") + end, longest + " ..  ", 3},
        {member("././@LongLink", "long/name", 'L') + file + end, "a ", 1},
        {member("./PaxHeaders/a", "20 mtime=1.5\n", 'x') + file + end, "a ", 1},
        {file + member("dir/", "", '5') + file + end, "a ", 1},
        {many + end, "a b c d e f g h i j k l m n o p q r s t ", -1},
        {member("x\ny", "12345") + end, "x\ny ", 1},
    };
    for (const auto& [bytes, names, count] : rows) {
        ASSERT_EQ(init(bytes), 0);
        std::string list;
        for (int32_t slot = 0; const char* name = tar_get_file_name(slot); ++slot)
            list += name + " "s;
        EXPECT_EQ(list, names);
        EXPECT_EQ(tar_get_files_count(), count);
    }
    for (const auto& show : {tar_show_files, tar_show_files2}) {
        ::testing::internal::CaptureStderr();
        show();
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "radio I RIL_TESSEL: name: x y, size=5, offset=512\n");
    }
}

// As an archive is to which a newer file was appended.
TEST_F(Tar, OfTwoMembersTheFirstCounts)
{
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(init(member("a", "old") + member("x/a", "new") + end), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "radio W RIL_TESSEL: a is in tar file more than once, the first one counts\n");
    EXPECT_EQ(extracted("a"), "old");
}

// Its data stand packed in the archive, and would be flashed so.
TEST_F(Tar, SparseFilesAreRefused)
{
    const std::string text = "20 mtime=1.5\n22 GNU.sparse.major=1\n22 GNU.sparse.minor=0\n";
    for (const std::string& sparse : {member("a", "1", 'S'), member("./PaxHeaders/a", text, 'x')}) {
        std::string tar = member("b", "1");
        tar.append(sparse).append(member("c", "1")).append(end);
        fails("a is a sparse file in tar file", [&] { return init(tar); });
    }
}

TEST_F(Tar, AnArchiveCutAnywhereIsNone)
{
    const std::string whole = member("a", text_of(1)) + member("b", text_of(512)) + member("c", text_of(700)) + end;
    for (size_t size = 0; size < whole.size() - 512; size += 128) {
        fails("Failed to get files in tar file", [&] { return init(whole.substr(0, size)); });
        EXPECT_EQ(tar_fopen("a"), -1);
    }
    fails("tar_init was not called", [&] { return tar_fextract_to("a", folder + "/out"); });
    ASSERT_EQ(mkfifo((folder + "/fifo").c_str(), 0600), 0);
    for (const std::string& path : {folder + "/fifo", folder, folder + "/none", "/dev/zero"s, ""s}) {
        EXPECT_EQ(init(whole), 0);
        fails("Failed to open tar file " + path, [&] { return tar_init(path); });
        EXPECT_EQ(tar_seek_file("a"), -1); // nothing is left of the one before
    }
}

TEST_F(Tar, MembersAreReadToTheirEndAndNotBeyond)
{
    std::vector<uint8_t> bytes(10);
    for (const size_t size : {1U, 511U, 512U, 513U, 4096U, 9000U}) {
        ASSERT_EQ(init(member("before", "b") + member("m", text_of(size)) + member("after", text_of(600)) + end), 0);
        EXPECT_EQ(extracted("m"), text_of(size));
        for (const size_t room : {1U, 2U, 3U, 512U, 20000U}) {
            std::string in_bytes, in_lines;
            std::vector<char> line(room + 1);
            bytes.resize(room);
            for (int32_t slot = tar_fopen("m"); slot == 1 && tar_feof() == 0;)
                in_bytes.append(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(tar_fread(bytes)));
            for (int32_t slot = tar_fopen("m"); slot == 1 && tar_fgets(line) != nullptr;)
                in_lines += line.data();
            EXPECT_TRUE(in_bytes == text_of(size) && in_lines == in_bytes) << size << ' ' << room;
        }
        ASSERT_EQ(tar_fopen("m"), 1);
        EXPECT_EQ(extracted("before"), "b"); // leaves the position in front of the open one
        EXPECT_EQ(tar_fread(bytes), 0);
        EXPECT_EQ(tar_fclose(), 0);
        EXPECT_EQ(tar_fread(bytes), -1);
    }
    constexpr uint32_t gibibyte = 1U << 30;
    constexpr uint64_t large = uint64_t{5} * gibibyte;
    (void)init(member("large", "", '0', "50000000000"));
    fs::resize_file(folder + "/tar", 512 + large);
    std::ofstream(folder + "/tar", std::ios::binary | std::ios::app) << member("m", "data") + end;
    ASSERT_EQ(tar_init(folder + "/tar"), 0);
    EXPECT_EQ(tar_get_file_size(0), static_cast<int64_t>(large));
    EXPECT_EQ(tar_get_file_offset(1), static_cast<int64_t>(large) + 1024);
    EXPECT_EQ(extracted("m"), "data");
    bytes.resize(10);
    ASSERT_EQ(tar_fopen("m"), 1);
    EXPECT_EQ(tar_fread(bytes), 4);
    EXPECT_EQ(tar_feof(), 1);
}

// What has the name of the target may be another name of a file that is needed.
TEST_F(Tar, NothingElseIsWrittenOver)
{
    const std::string other = folder + "/other", target = folder + "/out";
    std::ofstream(other) << "needed";
    ASSERT_EQ(init(member("m", "data") + end), 0);
    for (const bool is_symlink : {false, true}) {
        is_symlink ? fs::create_symlink(other, target) : fs::create_hard_link(other, target);
        EXPECT_EQ(extracted("m"), "data");
        EXPECT_EQ(fs::file_size(other), 6U);
        fs::remove(target);
    }
    fs::create_symlink(folder + "/none", target);
    EXPECT_EQ(extracted("m"), "data");
    EXPECT_FALSE(fs::exists(folder + "/none"));
}

TEST_F(Tar, NothingPartialIsHandedOut)
{
    const std::string target = folder + "/out", pipe = folder + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(init(member("m", text_of(9000)) + member("far", "", '0', "\x80\0\0\0\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s)),
              0);
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", target, "The file name to be extracted is NULL"},
        {"m", "", "The target file name is NULL"},
        {"M", target, "Failed to find the file M"},
        {"m", folder, "Failed to open file " + folder},
        {"m", pipe, "Failed to open file " + pipe},
        {"m", "/dev/full", "Failed to copy the file m to /dev/full"},
        {"far", target, "The file far is cut short"},
    };
    for (const auto& [name, path, error] : rows)
        fails(error, [&name = name, &path = path] { return tar_fextract_to(name, path); });
    EXPECT_TRUE(fs::exists("/dev/full") && !fs::exists(target));

    ASSERT_EQ(tar_fopen("m"), 0);
    fs::resize_file(folder + "/tar", 5000);
    std::vector<uint8_t> bytes(9000);
    fails("Failed to read the tar file", [&] { return static_cast<int32_t>(tar_fread(bytes)); });
    EXPECT_EQ(tar_feof(), 1); // or whoever reads to the end would never find it
    fails("The file m is cut short", [&] { return tar_fopen("m"); });
}
