// The modem's end of a pseudo-terminal, for tests of the engine and what stands on it. Its framing is its own, written
// bit by bit, so that the product's is not tested against itself.
#pragma once

#include "platform/os.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pty.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The bytes and their check sequence, not yet stuffed.
inline Bytes with_fcs(Bytes packet)
{
    uint32_t crc = 0xFFFF;
    for (const uint8_t byte : packet) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0x8408 : crc >> 1;
    }
    crc = ~crc;
    packet.push_back(static_cast<uint8_t>(crc & 0xFF));
    packet.push_back(static_cast<uint8_t>(crc >> 8 & 0xFF));
    return packet;
}

inline Bytes framed(const Bytes& packet)
{
    Bytes wire;
    for (const uint8_t byte : with_fcs(packet)) {
        if (byte == 0x7E || byte == 0x7D)
            wire = wire + Bytes{0x7D, static_cast<uint8_t>(byte ^ 0x20)};
        else
            wire.push_back(byte);
    }
    wire.push_back(0x7E);
    return wire;
}

// Owns both ends, so that the tty lives while the product opens and closes it.
class PtyPeer {
public:
    PtyPeer()
    {
        int master = -1;
        int slave = -1;
        char name[64] = {};
        termios raw{};
        cfmakeraw(&raw);
        if (openpty(&master, &slave, name, &raw, nullptr) != 0)
            abort();
        master_ = UniqueFd(master);
        slave_ = UniqueFd(slave);
        path_ = name;
    }

    [[nodiscard]] const char* path() const { return path_.c_str(); }

    void send(const Bytes& bytes) const
    {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t count = write(master_.get(), bytes.data() + done, bytes.size() - done);
            if (count < 0)
                return; // unplugged
            done += static_cast<size_t>(count);
        }
    }

    // The next `count` bytes from the product, or what came until ten seconds passed without one.
    [[nodiscard]] Bytes receive(size_t count) const
    {
        Bytes bytes;
        pollfd waiting = {master_.get(), POLLIN, 0};
        while (bytes.size() < count && poll(&waiting, 1, 10000) > 0) {
            uint8_t byte = 0;
            if (read(master_.get(), &byte, 1) != 1)
                break;
            bytes.push_back(byte);
        }
        return bytes;
    }

    // Waits until it is so; false when it does not come to that.
    template <typename Condition>
    [[nodiscard]] static bool until(const Condition& is_so)
    {
        for (int tries = 0; tries < 5000; ++tries) {
            if (is_so())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    // Waits until the product has read all that was sent; a poll also moves what is still on its way into the line.
    [[nodiscard]] bool drained() const
    {
        return until([this] {
            pollfd line = {slave_.get(), POLLIN, 0};
            return poll(&line, 1, 0) == 0;
        });
    }

    void unplug()
    {
        slave_.reset();
        master_.reset();
    }

private:
    UniqueFd master_;
    UniqueFd slave_;
    std::string path_;
};
