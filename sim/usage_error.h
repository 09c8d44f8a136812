// What the person at the command line can put right.
#pragma once

#include <stdexcept>

namespace sim {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace sim
