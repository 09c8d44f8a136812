#include "tablet.h"

#include "text.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

namespace sim {

namespace {

// What the tablet tells of itself. The board id names the board in its first characters.
constexpr std::pair<const char*, std::string_view> texts[] = {
    {"proc/board_id", "0c01020300000001\n"},
    {"proc/version", "Linux version 3.4.0-tablet (build@tablet) #1 SMP PREEMPT Mon Jan 1 12:00:00 UTC 2024\n"},
    {"proc/modules", "bwan 8652 0 - Live 0x00000000\n"
                     "rmnet_usb 14210 0 - Live 0x00000000\n"
                     "option 13371 0 - Live 0x00000000\n"
                     "ehci_hcd 45212 0 - Live 0x00000000\n"
                     "usb_wwan 10230 1 option, Live 0x00000000\n"
                     "usbserial 27418 2 option,usb_wwan, Live 0x00000000\n"},
    {"modem/kernel.log", "[    0.000000] Linux version 3.0.8-modem (build@modem) #1 PREEMPT\n"
                         "[    0.000000] Machine: virtual modem\n"
                         "[    1.204512] diag: ready\n"
                         "[    2.817003] rmnet: link is up\n"},
    {"modem/files/etc/version", "virtual modem\n"},
};

constexpr const char* directories[] = {
    "dev/pts",
    "proc",
    "sys",
    "data",
    "sdcard",
    "system/bin",
    "modem/memory",
    "modem/nv",
    "modem/files/data",
    "modem/files/etc",
    "modem/files/tmp",
    "modem/files/var",
};

// Of the real /dev, what every program expects.
constexpr const char* devices[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

// Of the caller's environment, what sanitizers, coverage and terminals need.
constexpr const char* kept_variables[] = {
    "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "TERM", "LANG",
};

void link_to(const fs::path& target, const fs::path& link)
{
    fs::remove(link);
    fs::create_symlink(target, link);
}

std::vector<std::string> sandbox_command(const fs::path& root, const std::vector<std::string>& command)
{
    std::vector<std::string> words{"bwrap"};
    const auto say = [&words](std::initializer_list<std::string> more) { words.insert(words.end(), more); };

    // A process namespace of its own, so that nothing that the command left running outlives it.
    say({"--die-with-parent", "--unshare-pid", "--ro-bind", "/usr", "/usr"});
    for (const std::string name : {"bin", "sbin", "lib", "lib64"})
        say({"--symlink", "usr/" + name, "/" + name});
    say({"--bind", root / "dev", "/dev"});
    for (const char* device : devices)
        say({"--dev-bind", device, device});
    say({"--dev-bind", "/dev/pts", "/dev/pts"});
    // The real process files are where the link proc/self leads; the tablet's own stand in /proc.
    say({"--proc", "/.proc"});
    for (const std::string name : {"proc", "sys", "data", "sdcard"})
        say({"--bind", root / name, "/" + name});
    for (const auto& entry : fs::directory_iterator(root / "system/bin"))
        if (fs::exists(entry.path()))
            say({"--ro-bind", fs::canonical(entry.path()), "/system/bin" / entry.path().filename()});
    say({"--tmpfs", "/tmp", "--chdir", "/data", "--clearenv", "--setenv", "HOME", "/data"});
    say({"--setenv", "PATH", "/system/bin:/usr/bin:/bin:/usr/sbin:/sbin"});
    for (const char* name : kept_variables)
        if (const char* value = std::getenv(name))
            say({"--setenv", name, value});
    say({"--"});
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

constexpr const char* install_hint = "bubblewrap is not installed; install the package \"bubblewrap\" (program bwrap)";

// The switch of the kernel that forbids namespaces to ordinary users, with the way to turn it.
std::string forbidding_switch()
{
    struct Switch {
        const char* name;
        const char* forbids;
        const char* allows;
    };
    constexpr Switch switches[] = {
        {"kernel.unprivileged_userns_clone", "0", "1"},
        {"kernel.apparmor_restrict_unprivileged_userns", "1", "0"},
        {"user.max_user_namespaces", "0", "10000"},
    };
    for (const Switch& row : switches) {
        std::string path = std::string("/proc/sys/") + row.name;
        std::replace(path.begin(), path.end(), '.', '/');
        const auto value = read_file(path);
        if (value && trimmed(*value) == row.forbids)
            return std::string("the kernel forbids namespaces; allow them with: sysctl -w ") + row.name + "=" +
                   row.allows;
    }
    return "the kernel forbids namespaces here; run as root, or outside of this container";
}

void remove_tree(const fs::path& path)
{
    // What ran in the tablet may be dying still, and write.
    constexpr int tries = 50;
    std::error_code error;
    for (int i = 0; i < tries && fs::exists(path, error); ++i) {
        fs::remove_all(path, error);
        if (error)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace

void make_tablet(const fs::path& root, const std::optional<fs::path>& tessel)
{
    for (const char* name : directories)
        fs::create_directories(root / name);
    for (const char* device : devices)
        write_file(root / std::string_view(device).substr(1), std::string_view());
    link_to("/.proc/self", root / "proc/self");
    link_to("/proc/self/fd", root / "dev/fd");
    for (const auto& [name, text] : texts)
        if (!fs::exists(root / name))
            write_file(root / name, text);
    if (tessel)
        link_to(fs::canonical(*tessel), root / "system/bin/tessel");
}

void enter_tablet(const fs::path& root, const std::vector<std::string>& command)
{
    std::vector<std::string> words = sandbox_command(root, command);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    if (errno == ENOENT)
        throw std::runtime_error(install_hint);
    throw std::system_error(errno, std::generic_category(), "bwrap");
}

pid_t start_in_tablet(const fs::path& root, const std::vector<std::string>& command)
{
    const pid_t parent = getpid();
    const pid_t child = must(fork(), "fork");
    if (child != 0)
        return child;

    // The sandbox dies with its parent by itself; this covers the moment before it is up.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    constexpr int not_found = 127;
    if (getppid() == parent) {
        try {
            enter_tablet(root, command);
        } catch (const std::exception& error) {
            (void)!write(STDERR_FILENO, error.what(), std::string_view(error.what()).size());
            (void)!write(STDERR_FILENO, "\n", 1);
        }
    }
    _exit(not_found);
}

int exit_status(int wait_status)
{
    constexpr int signal_base = 128;
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : signal_base + WTERMSIG(wait_status);
}

std::optional<std::string> sandbox_obstacle()
{
    const TemporaryRoot root;
    make_tablet(root.path(), std::nullopt);
    std::array<int, 2> ends{};
    must(pipe2(ends.data(), O_CLOEXEC), "pipe");
    const Fd reader(ends[0]);
    Fd writer(ends[1]);

    // What bwrap complains about is told in our words.
    const pid_t child = must(fork(), "fork");
    if (child == 0) {
        dup2(writer.get(), STDERR_FILENO);
        try {
            enter_tablet(root.path(), {"true"});
        } catch (const std::exception& error) {
            (void)!write(STDERR_FILENO, error.what(), std::string_view(error.what()).size());
        }
        _exit(1);
    }
    writer.close();
    std::string said;
    std::array<char, 512> piece{};
    ssize_t count = 0;
    while ((count = read(reader.get(), piece.data(), piece.size())) > 0)
        said.append(piece.data(), static_cast<size_t>(count));
    int status = 0;
    must(waitpid(child, &status, 0), "waitpid");

    if (exit_status(status) == 0)
        return std::nullopt;
    if (said == install_hint)
        return said;
    return forbidding_switch() + " (" + std::string(split(said, '\n').front()) + ")";
}

TemporaryRoot::TemporaryRoot()
{
    std::string name = fs::temp_directory_path() / "virtual-tablet-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        must(-1, name);
    path_ = name;

    std::array<int, 2> ends{};
    must(pipe2(ends.data(), O_CLOEXEC), "pipe");
    const Fd reader(ends[0]);
    lifeline_ = Fd(ends[1]);
    helper_ = must(fork(), "fork");
    if (helper_ != 0)
        return;

    setsid();
    dup2(reader.get(), STDIN_FILENO);
    close_range(STDOUT_FILENO, ~0U, 0);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) < 0 && errno == EINTR) {
    }
    remove_tree(path_);
    _exit(0);
}

TemporaryRoot::~TemporaryRoot()
{
    lifeline_.close();
    waitpid(helper_, nullptr, 0);
}

} // namespace sim
