// virtual_tablet: makes a tablet with a virtual modem and runs commands in it. See help() in options.cpp.
#include "efs2_store.h"
#include "options.h"
#include "tablet.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <iostream>

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
    make_tablet(root, options.tessel ? options.tessel : built_tessel());
    const NvStore store(root / "modem/nv");
    const auto items = options.nv ? read_file(*options.nv) : std::string(default_nv_items);
    if (!items)
        throw UsageError("cannot read " + options.nv->string());
    if (options.nv || fs::is_empty(root / "modem/nv"))
        store.load(*items, options.nv.value_or("default"));
    if (options.efs || fs::is_empty(root / "modem/efs"))
        EfsStore(root / "modem/efs").load(options.efs);
}

int run_command(const Options& options)
{
    const Fd caught = catch_signals({SIGTERM, SIGHUP, SIGINT, SIGQUIT});
    const Keeper keeper(options.root, options.command);
    prepare(options, keeper.root());
    Modem modem(keeper.root() / "dev", keeper.root() / "modem", options.modem);
    keeper.start();
    while (true) {
        std::array<pollfd, 2> events{{{caught.get(), POLLIN, 0}, {keeper.fd(), POLLIN, 0}}};
        modem.step(events);
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
    prepare(options, *options.root);
    const Fd caught = catch_signals({SIGTERM, SIGINT});
    Modem modem(*options.root / "dev", *options.root / "modem", options.modem);
    std::cout << "ready" << std::endl;
    std::array<char, 512> ignored{};
    while (true) {
        std::array<pollfd, 2> events{{{caught.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
        modem.step(events);
        if (events[0].revents != 0)
            return 0;
        if (events[1].revents != 0 && read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0)
            return 0;
    }
}

// Runs a command that does nothing, with what goes wrong caught in a file.
int check(Options options)
{
    options.command = {"true"};
    options.modem.mode = Mode::absent;
    std::array<int, 2> ends{};
    must(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), "pipe");
    const Fd reader(ends[0]), writer(ends[1]), terminal(dup(STDERR_FILENO));
    must(dup2(writer.get(), STDERR_FILENO), "dup2");
    const int status = run_command(options);
    must(dup2(terminal.get(), STDERR_FILENO), "dup2");
    if (status == 0)
        return 0;

    std::array<char, 4096> said{};
    const auto count = std::max<ssize_t>(0, read(reader.get(), said.data(), said.size()));
    std::cerr << "virtual_tablet: " << sandbox_obstacle({said.data(), static_cast<size_t>(count)}) << '\n';
    return 1;
}

int run(const Options& options)
{
    switch (options.job) {
    case Job::command:
        return run_command(options);
    case Job::serve:
        return serve(options);
    case Job::run:
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
    try {
        return run(parse_options({argv + 1, argv + argc}));
    } catch (const UsageError& error) {
        std::cerr << "virtual_tablet: " << error.what() << "\nTry: virtual_tablet --help\n";
        return wrong_usage;
    } catch (const std::exception& error) {
        std::cerr << "virtual_tablet: " << error.what() << '\n';
        return failed;
    }
}
