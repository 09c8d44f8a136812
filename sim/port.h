// One tty node of the modem: a pseudo-terminal in raw mode and a symbolic link to it in the tablet's /dev.
// Making a Port plugs the node in, destroying it unplugs it. Output is queued and never blocks.
#pragma once

#include "os.h"

#include <chrono>
#include <deque>

namespace sim {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

// One write to the host.
struct Chunk {
    Bytes bytes;
    std::chrono::microseconds delay{0}; // waited before its first byte
    std::chrono::microseconds pace{0};  // between single bytes; 0 = all of it at once
};

class Port {
public:
    explicit Port(const fs::path& node);
    Port(Port&&) = default;
    Port& operator=(Port&&) = delete;
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    ~Port();

    [[nodiscard]] std::string name() const { return node_.filename(); }
    [[nodiscard]] int fd() const { return master_.get(); }

    // What the host has written since the last call.
    [[nodiscard]] Bytes receive();

    void send(Chunk chunk);
    // Writes what is due and fits.
    void pump(Time now);
    // When the next byte may go out; nothing when the queue is empty.
    [[nodiscard]] std::optional<Time> due() const;
    // Since when there is nothing that the host could still read; a queue that the host does not drain counts as
    // nothing after five seconds.
    [[nodiscard]] Time idle_since(Time now);

private:
    fs::path node_;
    Fd master_;
    Fd slave_; // kept open: a pty that nobody has open reports a hang-up to the other side
    std::deque<Chunk> queue_;
    size_t sent_ = 0; // bytes of the first chunk that are out
    Time next_;
    Time progress_ = Clock::now();
    Time busy_ = Clock::now();
};

} // namespace sim
