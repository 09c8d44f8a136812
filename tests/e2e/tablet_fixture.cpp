#include "tests/e2e/tablet_fixture.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr auto command_deadline = 200s; // two waits of 30 s for a modem, on a busy machine
constexpr auto modem_deadline = 60s;    // to boot, to end, and to show an awaited event

std::string slurp(const fs::path& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

Texts lines_of(const std::string& text)
{
    Texts lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

void must(int error, const std::string& what)
{
    if (error != 0)
        throw std::system_error(error, std::generic_category(), what);
}

// Starts a program with its outputs in files, so that no pipe can fill, and `in` (-1: nothing) as standard input.
pid_t spawn(Texts words, const fs::path& out, const fs::path& err, int in = -1)
{
    std::vector<char*> argv(words.size() + 1, nullptr);
    for (size_t i = 0; i < words.size(); ++i)
        argv[i] = words[i].data();

    posix_spawn_file_actions_t actions;
    must(posix_spawn_file_actions_init(&actions), "spawn");
    if (in >= 0)
        must(posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO), "spawn");
    else
        must(posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0), "spawn");
    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND;
    must(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), flags, 0644), "spawn");
    must(posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), flags, 0644), "spawn");
    pid_t pid = -1;
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    must(error, words[0]);
    return pid;
}

template <typename Condition>
bool wait_until(std::chrono::seconds limit, Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(10ms); // many cases wait side by side
    }
    return true;
}

// The exit status of a child, or -1. One that misses the deadline is killed and fails the case.
int wait_for_exit(pid_t pid, std::chrono::milliseconds limit, const std::string& name)
{
    pollfd child{static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    const int ended = poll(&child, 1, static_cast<int>(limit.count()));
    if (child.fd >= 0)
        (void)close(child.fd);
    if (ended != 1) {
        ADD_FAILURE() << "after " << limit.count() << " ms still runs: " << name;
        (void)kill(pid, SIGKILL);
    }
    int status = -1;
    (void)waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char* setting(const char* name, const char* otherwise)
{
    const char* value = getenv(name); // NOLINT(concurrency-mt-unsafe): one thread
    return value != nullptr ? value : otherwise;
}

// Those of this build, or those of another: with a sanitizer, or of the tablet's processor.
std::string tessel_under_test()
{
    return setting("TESSEL_UNDER_TEST", TESSEL_BINARY);
}

std::string virtual_tablet()
{
    return setting("TABLET_UNDER_TEST", VIRTUAL_TABLET_BINARY);
}

void expect_no_sanitizer_report(const std::string& text)
{
    EXPECT_THAT(text, ::testing::Not(::testing::ContainsRegex("Sanitizer|runtime error:")));
}

} // namespace

Texts Result::records() const
{
    *errors_seen = true;
    Texts texts;
    for (const std::string& line : log)
        texts.push_back(line.substr(line.find(' ') + 1, 1) + line.substr(line.find(": ") + 1));
    return texts;
}

void OnTablet::SetUp()
{
    // Whatever loses its parent becomes our child, so that nothing stays behind unseen.
    must(prctl(PR_SET_CHILD_SUBREAPER, 1), "prctl");
    std::string name = fs::temp_directory_path() / "tablet-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;

    // A sandbox costs more than many a case: who runs them all looks once, and says so.
    if (setting("TABLET_CHECKED", nullptr) != nullptr)
        return;
    const fs::path err = new_file();
    const int status = wait_for_exit(spawn({virtual_tablet(), "check"}, new_file(), err), modem_deadline, "check");
    obstacle_ = slurp(err);
    if (status != 0)
        skip(obstacle_);
}

void OnTablet::skip(const std::string& obstacle)
{
    if (setting("CI", "") == std::string("true"))
        FAIL() << obstacle;
    GTEST_SKIP() << obstacle;
}

void OnPoweredTablet::SetUp()
{
    OnTablet::SetUp();
    if (!IsSkipped() && !HasFatalFailure() && !obstacle().empty())
        skip(obstacle());
}

void OnTablet::modem(const std::string& words, const Texts& more)
{
    Texts command = {virtual_tablet(), "serve", "--root", root(), "--tessel", tessel_under_test(), "--modem"};
    std::istringstream stream(words);
    std::copy(std::istream_iterator<std::string>(stream), {}, std::back_inserter(command));
    command.insert(command.end(), more.begin(), more.end());

    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    modem_stdin_ = ends[1];
    modem_out_ = new_file();
    modem_err_ = new_file();
    modem_ = spawn(command, modem_out_, modem_err_, ends[0]);
    (void)close(ends[0]);

    siginfo_t ended{};
    ASSERT_TRUE(wait_until(modem_deadline,
                           [&] {
                               (void)waitid(P_PID, static_cast<id_t>(modem_), &ended, WEXITED | WNOHANG | WNOWAIT);
                               return ended.si_pid != 0 || slurp(modem_out_).ends_with("ready\n");
                           }) &&
                ended.si_pid == 0)
        << "no modem: " << slurp(modem_err_);
}

void OnTablet::remove_modem()
{
    const pid_t pid = std::exchange(modem_, -1);
    if (pid <= 0)
        return;
    (void)kill(pid, SIGTERM);
    EXPECT_EQ(wait_for_exit(pid, modem_deadline, "modem"), 0) << slurp(modem_err_);
    expect_no_sanitizer_report(slurp(modem_err_));
    (void)close(modem_stdin_);
}

OnTablet::Job OnTablet::start(const std::string& command)
{
    Job job{-1, command, new_file(), new_file()};
    job.pid = spawn({virtual_tablet(), "run", "--root", root(), "--", "sh", "-c", command}, job.out, job.err);
    running_.insert(job.pid);
    return job;
}

Result OnTablet::finish(const Job& job)
{
    SCOPED_TRACE(job.command);
    Result result;
    result.status = wait_for_exit(job.pid, command_deadline, job.command);
    running_.erase(job.pid);
    result.out = slurp(job.out);
    result.err = slurp(job.err);
    expect_no_sanitizer_report(result.err);

    for (const std::string& line : lines_of(result.err)) {
        if (!line.starts_with("radio ") && !line.starts_with("main "))
            continue;
        result.log.push_back(line);
        if (line.find(" E RIL_") == line.find(' '))
            result.error_texts.push_back(line.substr(line.find(": ") + 2));
    }
    finished_.push_back(result);
    return result;
}

std::string OnTablet::read_file(const std::string& path) const
{
    EXPECT_TRUE(fs::is_regular_file(root() + path)) << path;
    return slurp(root() + path);
}

void OnTablet::write_file(const std::string& path, const std::string& bytes) const
{
    const fs::path file = root() + path;
    fs::remove_all(file);
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream << bytes << std::flush) << path;
}

OnTablet::Files OnTablet::files_in(const std::string& path) const
{
    Files files;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(root() + path, none)) {
        if (entry.is_regular_file())
            files[entry.path().filename()] = slurp(entry.path());
    }
    return files;
}

OnTablet::Files OnTablet::all_in(const std::string& folder) const
{
    const fs::path top = root() + "/modem/" + folder;
    Files files;
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
        if (entry.is_regular_file())
            files[entry.path().lexically_relative(top)] = slurp(entry.path());
    }
    return files;
}

Texts OnTablet::journal() const
{
    return lines_of(slurp(root() + "/modem/journal.txt"));
}

Texts OnTablet::requests() const
{
    const std::string start = "request ttyUSB0 ";
    Texts texts;
    for (const std::string& line : journal()) {
        if (line.starts_with(start))
            texts.push_back(line.substr(start.size()));
    }
    return texts;
}

Texts OnTablet::actions()
{
    Texts texts = journal();
    std::erase_if(texts, [](const std::string& line) {
        return !line.starts_with("write ") && !line.starts_with("ioctl ") && !line.starts_with("ran ");
    });
    const size_t seen = std::exchange(actions_seen_, texts.size());
    texts.erase(texts.begin(), texts.begin() + static_cast<ptrdiff_t>(seen));
    return texts;
}

void OnTablet::wait_for_journal(const std::string& text, size_t count) const
{
    EXPECT_TRUE(wait_until(modem_deadline,
                           [&] {
                               const std::string journal = slurp(root() + "/modem/journal.txt");
                               size_t found = 0;
                               for (size_t at = 0; found < count && (at = journal.find(text, at)) != std::string::npos;
                                    at += text.size())
                                   ++found;
                               return found >= count;
                           }))
        << "not in the journal: " << count << " times " << text;
}

Texts OnTablet::complaints()
{
    complaints_seen_ = true;
    Texts texts = journal();
    std::erase_if(texts, [](const std::string& line) { return !line.starts_with("complaint: "); });
    return texts;
}

void OnTablet::TearDown()
{
    for (const pid_t pid : running_)
        (void)wait_for_exit(pid, 0s, "a job that the case did not finish");
    for (const Result& result : finished_)
        EXPECT_TRUE(*result.errors_seen || result.error_texts.empty()) << "errors not looked at:\n" << result.err;
    EXPECT_TRUE(complaints_seen_ || complaints().empty()) << "the modem found fault with what it was sent";
    if (HasFailure())
        std::cerr << "The modem's journal:\n"
                  << slurp(root() + "/modem/journal.txt") << "What it said:\n"
                  << slurp(modem_err_);

    remove_modem();
    EXPECT_TRUE(wait_until(5s, [] { return waitpid(-1, nullptr, WNOHANG) == -1; })) << "a process was left behind";
    fs::remove_all(folder_);
}
