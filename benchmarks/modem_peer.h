// The modem's end of a pseudo-terminal, for measurements: a process of its own that knows every answer beforehand, so
// that whoever talks to it is what is measured.
#pragma once

#include "platform/os.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

using Bytes = std::vector<uint8_t>;

// One request and its reply, as they travel on the wire.
struct Turn {
    Bytes request;
    Bytes reply;
};

// Expects the requests of the script in their order, byte for byte, answers each with its reply in one write, and after
// the last one begins again. A request that differs ends the peer with a line on standard error. Created while the
// process has one thread; throws std::system_error where there is no pseudo-terminal or no process.
class ModemPeer {
public:
    explicit ModemPeer(const std::vector<Turn>& script);
    ModemPeer(const ModemPeer&) = delete;
    ModemPeer& operator=(const ModemPeer&) = delete;
    ModemPeer(ModemPeer&&) = delete;
    ModemPeer& operator=(ModemPeer&&) = delete;
    ~ModemPeer();

    // The device file that a tablet would open.
    [[nodiscard]] const std::string& device() const { return device_; }

private:
    std::string device_;
    pid_t pid_ = -1;
};

// Opens `device` raw, its reads and writes blocking. Throws std::system_error.
[[nodiscard]] UniqueFd open_raw(const std::string& device);

// Write and read exactly `bytes`, however many calls it takes. Throw std::system_error when the other end is gone.
void write_all(int fd, std::span<const uint8_t> bytes);
void read_all(int fd, std::span<uint8_t> bytes);

// Reads what there is, at least one byte, to the front of `room`. Returns the bytes read; throws as the two above.
[[nodiscard]] size_t read_some(int fd, std::span<uint8_t> room);
