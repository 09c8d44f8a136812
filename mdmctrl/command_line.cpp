#include "mdmctrl/command_line.h"

#include "platform/os.h"

#include <cstdio>

namespace {
constexpr size_t command_limit = 511;
} // namespace

bool command_fits(const std::string& command)
{
    if (command.size() <= command_limit)
        return true;
    (void)printf("Command line is too long: %zu characters, at most %zu\n", command.size(), command_limit);
    return false;
}

int32_t run_shown(const std::string& command)
{
    (void)puts(command.c_str());
    const int32_t status = run_shell("%s", command.c_str());
    (void)printf("ret=%d\n", status);
    return status;
}
