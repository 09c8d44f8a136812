// virtual_tablet: makes a tablet with a virtual modem and runs commands in it. See help() in options.cpp.
#include "claim.h"
#include "efs2_store.h"
#include "options.h"

#include <array>
#include <csignal>
#include <iostream>
#include <sstream>

namespace {

using namespace sim;

// The program of the same build: beside this one, or one directory above.
std::optional<fs::path> built_tessel()
{
    const fs::path here = fs::canonical("/proc/self/exe").parent_path();
    for (const fs::path& path : {here / "tessel", here.parent_path() / "tessel"})
        if (fs::is_regular_file(path))
            return path;
    return std::nullopt;
}

void prepare(const Options& options, const fs::path& root)
{
    TabletSettings settings = options.tablet;
    if (!settings.tessel)
        settings.tessel = built_tessel();
    make_tablet(root, settings, options.machine.wifi_only);
    const NvStore store(root / "modem/nv");
    const auto items = options.nv ? read_file(*options.nv) : std::string(default_nv_items);
    if (!items)
        throw UsageError("cannot read " + options.nv->string());
    if (options.nv || fs::is_empty(root / "modem/nv"))
        store.load(*items, options.nv.value_or("default"));
    if (options.efs || fs::is_empty(root / "modem/efs"))
        EfsStore(root / "modem/efs").load(options.efs);
    if (options.flash || !fs::exists(root / "modem/flash"))
        FlashStore(root / "modem/flash", *options.machine.modem.chip).load(options.flash);
}

void warn(const Machine& machine, std::ostream& warnings)
{
    if (!machine.obstacle().empty())
        warnings << "virtual_tablet: the tablet has no power files: " << machine.obstacle() << '\n';
}

int run_command(const Options& options, std::ostream& warnings = std::cerr)
{
    const Fd caught = catch_signals({SIGTERM, SIGHUP, SIGINT, SIGQUIT});
    const Keeper keeper(options.root, options.command);
    const Claim claim(keeper.root());
    prepare(options, keeper.root());
    Machine machine(keeper.root(), options.machine);
    warn(machine, warnings);
    keeper.start();
    while (true) {
        std::array<pollfd, 2> events{{{caught.get(), POLLIN, 0}, {keeper.fd(), POLLIN, 0}}};
        machine.step(events);
        if (events[1].revents != 0)
            return keeper.status();
        // An interrupt from the terminal reaches the command without us; that the terminal is gone only we are told.
        if (events[0].revents != 0)
            if (const auto info = take_signal(caught); info.ssi_code != SI_KERNEL || info.ssi_signo == SIGHUP)
                keeper.signal(info.ssi_signo);
    }
}

int serve(const Options& options)
{
    const Claim claim(*options.root);
    prepare(options, *options.root);
    const Fd caught = catch_signals({SIGTERM, SIGINT});
    Machine machine(*options.root, options.machine);
    warn(machine, std::cerr);
    std::cout << "ready" << std::endl;
    std::array<char, 512> ignored{};
    while (true) {
        std::array<pollfd, 2> events{{{caught.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
        machine.step(events);
        if (events[0].revents != 0)
            return 0;
        if (events[1].revents != 0 && read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0)
            return 0;
    }
}

// Runs a command that does nothing, with what goes wrong caught. Power files are no condition: much works without.
int check(Options options)
{
    options.command = {"true"};
    options.machine.modem.mode = Mode::absent;
    ErrorCapture errors;
    std::ostringstream warnings;
    const int status = run_command(options, warnings);
    const std::string said = errors.said();
    std::cerr << (status == 0 ? warnings.str() : "virtual_tablet: " + sandbox_obstacle(said) + "\n");
    return status == 0 ? 0 : 1;
}

int run(const Options& options)
{
    switch (options.job) {
    case Job::command:
        return run_command(options);
    case Job::serve:
        return serve(options);
    case Job::run:
        if (!fs::is_directory(*options.root / "system/bin"))
            throw std::runtime_error("no tablet in " + options.root->string() + ": make one with serve or a command");
        enter_tablet(*options.root, options.command);
    case Job::check:
        return check(options);
    case Job::help:
        std::cout << help();
        return 0;
    }
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    constexpr int failed = 1, wrong_usage = 2;
    // Inherited from whoever ignores its own children, it would keep the ends of ours from us.
    (void)signal(SIGCHLD, SIG_DFL);
    try {
        const auto tools = tool_names();
        if (argc < 1)
            throw UsageError("called without a name");
        if (std::ranges::find(tools, fs::path(argv[0]).filename().string()) != tools.end())
            return call_tool({argv, argv + argc});
        return run(parse_options({argv + 1, argv + argc}));
    } catch (const UsageError& error) {
        std::cerr << "virtual_tablet: " << error.what() << "\nTry: virtual_tablet --help\n";
        return wrong_usage;
    } catch (const std::exception& error) {
        std::cerr << "virtual_tablet: " << error.what() << '\n';
        return failed;
    }
}
