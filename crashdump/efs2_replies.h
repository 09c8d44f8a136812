// Which EFS2 replies are still to come, for most of them do not say what they are about: a late one looks like that to
// a later request with the same command.
//
// The modem replies in order, and once. So a request's own reply tells that all to earlier ones have come, or never
// will; but a reply can only be told to be the own one when no other with its command was due.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>

// Nobody sends commands from `commands` on, and nothing is noted of them. Any thread.
class DueReplies {
public:
    static constexpr uint16_t commands = 64;

    // A request goes out.
    void expect(uint16_t command);

    // A reply has come, whether somebody waits for it or not. Where none is due it is a stray.
    void note(uint16_t command);

    // How many replies are due.
    [[nodiscard]] uint32_t due(uint16_t command) const;

    // Those are lost; or all of them.
    void forget(uint16_t command);
    void forget_all();

    // How many strays have come.
    [[nodiscard]] uint32_t strays() const;

private:
    mutable std::mutex mutex_;
    std::array<uint32_t, commands> due_{};
    uint32_t strays_ = 0;
};
