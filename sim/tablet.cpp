#include "tablet.h"
#include "drivers.h"
#include "tools.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace sim {

namespace {

constexpr const char* directories[] = {
    "dev/pts",
    "drivers",
    "proc/product_features",
    "sys",
    "data",
    "sdcard",
    "etc",
    "system/bin",
    "system/lib/modules",
    "modem/memory",
    "modem/nv",
    "modem/efs",
    "modem/files/data",
    "modem/files/etc",
    "modem/files/tmp",
    "modem/files/var",
};

// What the tablet and its modem tell of themselves.
constexpr std::pair<const char*, const char*> texts[] = {
    {"etc/passwd", "root:x:0:0::/data:/bin/sh\nsystem:x:1000:1000::/data:/bin/sh\nradio:x:1001:1001::/data:/bin/sh\n"},
    {"etc/group", "root:x:0:\nsystem:x:1000:\nradio:x:1001:\n"},
    {"proc/version", "Linux version 3.4.0-tablet (build@tablet) #1 SMP PREEMPT Mon Jan 1 12:00:00 UTC 2024\n"},
    {"modem/kernel.log", "[    0.000000] Linux version 3.0.8-modem (build@modem) #1 PREEMPT\n"
                         "[    1.204512] diag: ready\n"
                         "[    2.817003] rmnet: link is up\n"},
    {"modem/files/etc/version", "virtual modem\n"},
};

constexpr const char* default_board_id = "0c01020300000001\n"; // the first characters name the board

// Of the real /dev, what every program expects.
constexpr const char* devices[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

// Of the caller's environment, what sanitizers, coverage and terminals need.
constexpr const char* kept_variables[] = {
    "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS", "GCOV_PREFIX", "TERM", "LANG",
};

// Switches of the kernel that forbid namespaces to ordinary users.
struct KernelSwitch {
    const char* path;
    const char* forbids;
    const char* remedy;
};

constexpr KernelSwitch kernel_switches[] = {
    {"/proc/sys/kernel/unprivileged_userns_clone", "0", "sysctl -w kernel.unprivileged_userns_clone=1"},
    {"/proc/sys/kernel/apparmor_restrict_unprivileged_userns", "1",
     "sysctl -w kernel.apparmor_restrict_unprivileged_userns=0"},
    {"/proc/sys/user/max_user_namespaces", "0", "sysctl -w user.max_user_namespaces=10000"},
};

constexpr const char* not_installed = "bubblewrap is not installed: install the package bubblewrap (program bwrap)";

// Below /usr, which the sandbox shows.
constexpr const char* arm_emulator = "/usr/bin/qemu-arm-static";

void link_to(const fs::path& target, const fs::path& link)
{
    fs::remove(link);
    fs::create_symlink(target, link);
}

// What is there already stays as it is, unless the command line says it; a link, which may lead out of the tablet, too.
void provide(const fs::path& file, std::string_view text, bool said = false)
{
    const auto kind = fs::symlink_status(file).type();
    if (said && kind == fs::file_type::symlink)
        fs::remove(file);
    if (said || kind == fs::file_type::not_found)
        write_file(file, bytes_of(text));
}

// Whether a program is one of the tablet's own processor: 32 bits, little-endian, ARM.
bool is_for_arm(const fs::path& program)
{
    constexpr std::string_view start = "\177ELF\1\1";
    constexpr std::string_view machine("(\0", 2);
    constexpr size_t machine_at = 18;
    std::string header(machine_at + machine.size(), '\0');
    std::ifstream(program, std::ios::binary).read(header.data(), std::ssize(header));
    return header.starts_with(start) && header.ends_with(machine);
}

// A program that this machine cannot run by itself stands beside the script that emulates it.
void show_tessel(const fs::path& program, const fs::path& folder)
{
    if (!is_for_arm(program)) {
        link_to(program, folder / "tessel");
        return;
    }
    if (!fs::exists(arm_emulator))
        throw std::runtime_error(program.string() + " is for ARM: install the package qemu-user-static");
    link_to(program, folder / "tessel.arm");
    fs::remove(folder / "tessel");
    const std::string script =
        "#!/bin/sh\nexec " + std::string(arm_emulator) + " -0 \"${0##*/}\" /system/bin/tessel.arm \"$@\"\n";
    write_file(folder / "tessel", bytes_of(script));
    fs::permissions(folder / "tessel", fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::add);
}

void make_modules(const fs::path& root, const TabletSettings& settings)
{
    std::vector<std::string> loaded;
    for (const std::string& file : module_files()) {
        const fs::path path = root / "system/lib/modules" / file;
        if (std::ranges::find(settings.missing_modules, file) == settings.missing_modules.end())
            provide(path, "kernel module " + module_name(file) + "\n");
        else
            fs::remove(path);
        loaded.push_back(module_name(file));
    }
    provide(root / "proc/modules", module_list(settings.modules.value_or(loaded)), settings.modules.has_value());
}

Words sandbox_words(const fs::path& root, const Words& command)
{
    // A process namespace of its own, so that nothing that the command left running outlives it.
    Words words{"bwrap", "--die-with-parent", "--unshare-pid", "--ro-bind", "/usr", "/usr"};
    const auto say = [&words](const Words& more) { words.insert(words.end(), more.begin(), more.end()); };
    for (const std::string name : {"bin", "sbin", "lib", "lib64"})
        say({"--symlink", "usr/" + name, "/" + name});
    say({"--bind", root / "dev", "/dev"});
    for (const char* device : devices)
        say({"--dev-bind", device, device});
    // The real process files are where the link proc/self leads; the tablet's own stand in /proc.
    say({"--dev-bind", "/dev/pts", "/dev/pts", "--proc", "/.proc"});
    for (const std::string name : {"proc", "sys", "data", "sdcard"})
        say({"--bind", root / name, "/" + name});
    // The mount is there while a process serves it.
    std::error_code none;
    const fs::path drivers = root / drivers_mount;
    if (fs::exists(drivers / driver_binds[0].first, none)) {
        say({"--bind", drivers, drivers_in_sandbox});
        for (const auto& [from, to] : driver_binds)
            say({"--bind", drivers / from, fs::path("/") / to});
    }
    say({"--ro-bind-try", root / "etc", "/etc", "--bind", root / "system/lib/modules", "/system/lib/modules"});
    say({"--dir", "/system/bin", "--tmpfs", "/tmp"});
    for (const auto& entry : fs::directory_iterator(root / "system/bin"))
        if (fs::exists(entry.path()))
            say({"--ro-bind", fs::canonical(entry.path()), "/system/bin" / entry.path().filename()});
    say({"--chdir", "/data", "--clearenv", "--setenv", "HOME", "/data"});
    say({"--setenv", "PATH", "/system/bin:/usr/bin:/bin:/usr/sbin:/sbin"});
    for (const char* name : kept_variables)
        if (const char* value = std::getenv(name)) // NOLINT(concurrency-mt-unsafe): one thread
            say({"--setenv", name, value});
    say({"--"});
    say(command);
    return words;
}

// Where the tablets of single commands stand.
fs::path temporary_folder()
{
    std::error_code error;
    fs::path folder = fs::temp_directory_path(error);
    if (error)
        throw std::runtime_error("no directory for temporary files, see TMPDIR: " + error.message());
    return folder;
}

// Kills and reaps until this process has no child left, also those that only now become its own.
void kill_children()
{
    for (int tries = 0; tries < 1000 && waitpid(-1, nullptr, WNOHANG) != -1; ++tries) {
        std::ifstream children("/proc/thread-self/children");
        for (pid_t child = 0; children >> child;)
            (void)kill(child, SIGKILL);
        constexpr int milliseconds = 2;
        (void)poll(nullptr, 0, milliseconds);
    }
}

pid_t start_child(const fs::path& root, const Words& command, pid_t group)
{
    const pid_t child = must(fork(), "fork");
    if (child != 0)
        return child;
    (void)setpgid(0, group); // what the terminal sends reaches the command
    sigset_t none;
    sigemptyset(&none);
    (void)pthread_sigmask(SIG_SETMASK, &none, nullptr);
    try {
        enter_tablet(root, command);
    } catch (const std::exception& error) {
        (void)dprintf(STDERR_FILENO, "virtual_tablet: %s\n", error.what());
    }
    constexpr int not_found = 127;
    _exit(not_found);
}

} // namespace

void make_tablet(const fs::path& root, const TabletSettings& settings, bool wifi_only)
{
    Drivers::release(root / drivers_mount);
    for (const char* name : directories)
        fs::create_directories(root / name);
    for (const char* device : devices)
        write_file(root / std::string_view(device).substr(1), {});
    link_to("/.proc/self", root / "proc/self");
    // Programs also look themselves up by number, the leak checker of a sanitized build among them.
    constexpr int numbers = 100;
    for (int pid = 1; pid < numbers; ++pid) {
        const std::string name = std::to_string(pid);
        if (symlink(("/.proc/" + name).c_str(), (root / "proc" / name).c_str()) != 0 && errno != EEXIST)
            must(-1, root / "proc" / name);
    }
    link_to("/proc/self/fd", root / "dev/fd");
    for (const auto& [name, text] : texts)
        provide(root / name, text);
    provide(root / "proc/board_id", settings.board_id.value_or(default_board_id), settings.board_id.has_value());
    make_modules(root, settings);
    const fs::path wan = root / "proc/product_features/wan";
    if (wifi_only)
        fs::remove(wan);
    else
        provide(wan, "1\n");

    for (const std::string& name : tool_names())
        if (const fs::path tool = root / "system/bin" / name; fs::is_symlink(tool) || !fs::exists(tool))
            link_to(fs::canonical("/proc/self/exe"), tool);
    if (settings.tessel)
        show_tessel(fs::canonical(*settings.tessel), root / "system/bin");
}

void enter_tablet(const fs::path& root, const Words& command)
{
    Words words = sandbox_words(root, command);
    const std::vector<char*> arguments = argument_vector(words);
    (void)execvp(arguments.front(), arguments.data());
    throw std::runtime_error(errno == ENOENT ? not_installed : "bwrap: " + std::generic_category().message(errno));
}

std::string sandbox_obstacle(std::string_view said)
{
    if (said.find(not_installed) != std::string_view::npos)
        return not_installed;
    const std::string why = "sandboxes fail here (" + std::string(split(said, '\n').front()) + ")";
    for (const KernelSwitch& row : kernel_switches)
        if (const auto value = read_file(row.path); value && trimmed(*value) == row.forbids)
            return why + ": the kernel forbids namespaces, allow them with " + row.remedy;
    return why + ": run as root, or outside of this container";
}

Keeper::Keeper(const std::optional<fs::path>& root, const Words& command)
{
    std::array<int, 2> ends{};
    must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
    line_ = Fd(ends[0]);
    Fd other(ends[1]);
    const fs::path place = root ? *root : temporary_folder() / "virtual-tablet-XXXXXX";
    const pid_t group = getpgrp();
    process_ = must(fork(), "fork");
    if (process_ == 0) {
        line_.close(); // else the keeper would hold its own line open
        try {
            keep(other.get(), place, !root, command, group);
        } catch (const std::exception&) {
            _exit(1); // the other side sees its line break, and says so
        }
    }

    other.close(); // else this process would hold its own line open
    std::array<char, 4096> name{};
    const ssize_t length = read(fd(), name.data(), name.size());
    root_ = std::string(name.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    if (root_.empty())
        throw std::runtime_error("no tablet can be made in " + place.parent_path().string());
}

void Keeper::keep(int line, std::string name, bool temporary, const Words& command, pid_t group)
{
    (void)setpgid(0, 0);
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const Fd ended = catch_signals({SIGCHLD});
    // Made here, so that there is no moment at which nobody would remove it.
    if (temporary && mkdtemp(name.data()) == nullptr)
        _exit(1);
    (void)send(line, name.data(), name.size(), MSG_NOSIGNAL);

    pid_t child = -1;
    std::array<pollfd, 2> events{{{line, POLLIN, 0}, {ended.get(), POLLIN, 0}}};
    uint8_t order = 0;
    while (poll(events.data(), events.size(), -1) > 0) {
        if (events[0].revents != 0) {
            if (read(line, &order, 1) != 1)
                break;
            if (order == 0)
                child = start_child(name, command, group);
            else if (child > 0)
                (void)kill(child, order);
        }
        int status = 0;
        if (events[1].revents != 0)
            (void)take_signal(ended);
        if (child > 0 && waitpid(child, &status, WNOHANG) == child) {
            constexpr int signalled = 128;
            const int told = WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
            (void)send(line, &told, sizeof told, MSG_NOSIGNAL);
            child = -1;
        }
    }
    kill_children();
    std::error_code ignored;
    if (temporary) {
        Drivers::release(fs::path(name) / drivers_mount);
        fs::remove_all(name, ignored);
    }
    _exit(0);
}

Keeper::~Keeper()
{
    line_.close();
    (void)waitpid(process_, nullptr, 0);
}

void Keeper::signal(unsigned number) const
{
    const uint8_t order = byte_of(number, 0);
    (void)send(fd(), &order, 1, MSG_NOSIGNAL);
}

int Keeper::status() const
{
    int told = 1; // what counts without a keeper
    (void)!read(fd(), &told, sizeof told);
    return told;
}

} // namespace sim
