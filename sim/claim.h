// A tablet is served by one process at a time, and what that process shows of it goes away with it, however it ends.
#pragma once

#include "os.h"

namespace sim {

// The claim of this process on the tablet in a directory, and a guard that cleans up behind it when it is killed. The
// guard is nobody's child and in a session of its own, so that what ends this process and all its descendants leaves
// it alone.
class Claim {
public:
    // Makes the directory if it is not there. Waits for the guard of a process that was killed, and throws
    // std::runtime_error when the tablet is served already.
    explicit Claim(const fs::path& root);
    Claim(const Claim&) = delete;
    Claim(Claim&&) = delete;
    Claim& operator=(const Claim&) = delete;
    Claim& operator=(Claim&&) = delete;
    ~Claim();

private:
    Fd lock_; // on the tablet; the guard has it, too, so that nobody else begins before it has cleaned up
    Fd line_; // to the guard, which cleans up when it breaks without a word
};

} // namespace sim
