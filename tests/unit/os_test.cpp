#include "platform/os.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

TEST(Os, QuotedNamesNameTheirFileAndNothingElse)
{
    std::string folder = fs::temp_directory_path() / "os_test-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    for (const std::string name :
         {"plain-1.2_3", "two words", "it's", "'", "$(touch owned)", "`touch owned`", "a;touch owned", "\"", "\\", "*",
          "~", "a\nb", "&", "-n", "--", "#x", "$HOME", "\xff\xfe"}) {
        EXPECT_EQ(run_shell("cd %s && : > %s", folder.c_str(), shell_quote_path(name).c_str()), 0) << name;
        EXPECT_TRUE(fs::remove(fs::path(folder) / name)) << name;
        EXPECT_TRUE(fs::is_empty(folder)) << name;
    }
    EXPECT_TRUE(fs::remove(folder));
    EXPECT_EQ(shell_quote("/sdcard/f+1,2:3@4%5=.bin"), "/sdcard/f+1,2:3@4%5=.bin");
    EXPECT_EQ(shell_quote(""), "''");
    EXPECT_EQ(shell_quote("-f"), "-f"); // no path
}

TEST(Os, DescriptorsHaveOneOwner)
{
    const auto is_open = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    std::array<int, 2> fds{};
    ASSERT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
    UniqueFd owner(fds[0]);
    {
        UniqueFd lender(fds[1]);
        owner = std::move(lender);
        EXPECT_FALSE(is_open(fds[0]));
    }
    EXPECT_TRUE(is_open(fds[1]));
    const UniqueFd heir(std::move(owner));
    owner = UniqueFd();
    EXPECT_TRUE(is_open(heir.get()));
    EXPECT_EQ(heir.get(), fds[1]);
}

TEST(Os, FilesAreNotInheritedByCommands)
{
    const UniqueFile file = open_file("/dev/null", "w");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fcntl(fileno(file.get()), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(open_file("/nowhere/file", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Os, FilesOfTheSystemAreNoPipesOrDevices)
{
    std::string folder = fs::temp_directory_path() / "os_test-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string pipe = folder + "/pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::pair<std::string, int> rows[] = {
        {pipe, EINVAL}, {"/dev/zero", EINVAL}, {folder, EISDIR}, {"/nowhere/file", ENOENT}};
    for (const auto& [path, error] : rows) {
        EXPECT_EQ(open_regular_file(path), nullptr) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_NE(open_regular_file("/proc/self/status"), nullptr);
    fs::remove_all(folder);
}

// A dump of a region of 3 GiB, where a position has 32 bits unless told otherwise.
TEST(Os, FilesGrowBeyondTwoGibibytes)
{
    std::string folder = fs::temp_directory_path() / "os_test-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/dump";
    constexpr int64_t hole = int64_t{3} << 30;
    UniqueFile file = open_file(path, "w+");
    ASSERT_EQ(fseeko(file.get(), hole, SEEK_SET), 0);
    EXPECT_EQ(fwrite("end", 1, 3, file.get()), 3U);
    EXPECT_EQ(ftello(file.get()), hole + 3);
    EXPECT_EQ(fclose(file.release()), 0);
    EXPECT_TRUE(path_exists(path));
    file = open_regular_file(path);
    ASSERT_NE(file, nullptr);
    std::string line;
    EXPECT_TRUE(fseeko(file.get(), hole, SEEK_SET) == 0 && read_line(file.get(), line, 4));
    EXPECT_EQ(line, "end");
    fs::remove_all(folder);
}

TEST(Os, LinesAreReadWholeOrUpToTheLimit)
{
    using namespace std::string_literals;
    const struct {
        std::string text;
        std::vector<std::string> lines; // with a limit of 4
    } rows[] = {
        {"", {}},
        {"\n", {""}},
        {"a\n\nb", {"a", "", "b"}},
        {"1234\n12345\n123456789\nx\n", {"1234", "1234", "1234", "x"}},
        {"12345", {"1234"}},
        {"\xff\n\0a\r\n"s, {"\xff", "\0a\r"s}}, // neither the byte that looks like the end nor a zero is one
    };
    for (const auto& row : rows) {
        const UniqueFile file(tmpfile());
        ASSERT_EQ(fwrite(row.text.data(), 1, row.text.size(), file.get()), row.text.size());
        rewind(file.get());
        std::vector<std::string> lines;
        for (std::string line; read_line(file.get(), line, 4);)
            lines.push_back(line);
        EXPECT_EQ(lines, row.lines) << row.text;
    }
}

TEST(Os, EndOfProcessFlushesAndKeepsTheStatus)
{
    const auto end = [] {
        (void)dup2(STDERR_FILENO, STDOUT_FILENO);
        (void)printf("last words");
        end_process(78);
    };
    EXPECT_EXIT(end(), ::testing::ExitedWithCode(78), "last words");
}
