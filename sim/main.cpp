// virtual_tablet: makes a tablet with a virtual modem and runs commands in it. See help() in options.cpp.
#include "options.h"
#include "tablet.h"
#include "usage_error.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sys/signalfd.h>
#include <sys/wait.h>

namespace {

using namespace sim;

// Signals as something to poll.
class Signals {
public:
    explicit Signals(std::initializer_list<int> numbers)
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int number : numbers)
            sigaddset(&set, number);
        must(sigprocmask(SIG_BLOCK, &set, nullptr), "sigprocmask");
        fd_ = Fd(must(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
    }

    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] std::optional<signalfd_siginfo> take() const
    {
        signalfd_siginfo info{};
        if (read(fd(), &info, sizeof info) != static_cast<ssize_t>(sizeof info))
            return std::nullopt;
        return info;
    }

private:
    Fd fd_;
};

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
    if (options.nv) {
        const auto text = read_file(*options.nv);
        if (!text)
            throw UsageError("cannot read " + options.nv->string());
        store.load(*text, *options.nv);
    } else if (fs::is_empty(root / "modem/nv")) {
        store.load(default_nv_items, "default");
    }
}

int run_command(const Options& options)
{
    std::optional<TemporaryRoot> temporary;
    if (!options.root)
        temporary.emplace();
    const fs::path root = options.root ? *options.root : temporary->path();
    prepare(options, root);

    const Signals signals({SIGCHLD, SIGTERM, SIGHUP, SIGINT, SIGQUIT});
    Modem modem(root / "dev", root / "modem", options.modem);
    const pid_t child = start_in_tablet(root, options.command);
    while (true) {
        std::array<pollfd, 1> events{{{signals.fd(), POLLIN, 0}}};
        modem.step(events);
        while (const auto info = signals.take()) {
            int status = 0;
            if (waitpid(child, &status, WNOHANG) == child)
                return exit_status(status);
            // What the terminal sends reaches the command without us, and the command may well live on.
            if (info->ssi_signo != SIGCHLD && info->ssi_code != SI_KERNEL)
                kill(child, static_cast<int>(info->ssi_signo));
        }
    }
}

int serve(const Options& options)
{
    prepare(options, *options.root);
    const Signals signals({SIGTERM, SIGINT});
    Modem modem(*options.root / "dev", *options.root / "modem", options.modem);
    std::cout << "ready" << std::endl;
    while (true) {
        std::array<pollfd, 2> events{{{signals.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
        modem.step(events);
        if (events[0].revents != 0)
            return 0;
        std::array<char, 512> ignored{};
        if (events[1].revents != 0 && read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0)
            return 0;
    }
}

int check()
{
    const auto obstacle = sandbox_obstacle();
    if (obstacle)
        std::cerr << "virtual_tablet: " << *obstacle << '\n';
    return obstacle ? 1 : 0;
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
        return check();
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
