// Time from the start of a program to its exit, beside that of a program that does nothing: both are started with no
// arguments, in turns, their output going where it costs nothing.
//
//   start_bench PROGRAM BARE
//
// Prints three cells separated by tabs, then the quartiles of the ratio: product, bare, ratio. Each is the median of
// the rounds, the ratio too: on a machine whose speed changes under way, only the two halves of a round compare.
//
// Exit status: 0 done, 1 a program cannot be started, or ends by a signal.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int rounds = 2001;

class QuietOutput {
public:
    QuietOutput()
    {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO);
    }
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;
    QuietOutput(QuietOutput&&) = delete;
    QuietOutput& operator=(QuietOutput&&) = delete;
    ~QuietOutput() { posix_spawn_file_actions_destroy(&actions_); }

    [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

double microseconds_of(char* program, const QuietOutput& output)
{
    std::array<char*, 2> arguments = {program, nullptr};
    std::array<char*, 1> environment = {nullptr};
    const auto start = std::chrono::steady_clock::now();
    pid_t child = -1;
    int status = 0;
    if (posix_spawn(&child, program, output.get(), nullptr, arguments.data(), environment.data()) != 0 ||
        waitpid(child, &status, 0) != child || !WIFEXITED(status))
        throw std::runtime_error(std::string(program) + " cannot be run");
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// The value that the share `part` of `values` lies below.
double quantile(std::vector<double> values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<size_t>(static_cast<double>(values.size() - 1) * part)];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        (void)fprintf(stderr, "Usage: start_bench PROGRAM BARE\n");
        return 1;
    }
    try {
        const QuietOutput output;
        std::vector<double> product;
        std::vector<double> bare;
        std::vector<double> ratios;
        for (int round = 0; round < rounds; ++round) {
            product.push_back(microseconds_of(argv[1], output));
            bare.push_back(microseconds_of(argv[2], output));
            ratios.push_back(product.back() / bare.back());
        }
        (void)printf("%.0f us\t%.0f us\t%.2f\t%.2f-%.2f\n", quantile(product, 0.5), quantile(bare, 0.5),
                     quantile(ratios, 0.5), quantile(ratios, 0.25), quantile(ratios, 0.75));
        return 0;
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "start_bench: %s\n", error.what());
        return 1;
    }
}
