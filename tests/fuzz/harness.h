// What every fuzz target is made of: the bytes of one case, taken off piece by piece, the tablet's files as far as the
// case has them, and the end of the process as something to look at. A target defines fuzz_one.
#pragma once

#include "platform/os.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>; // as large as what is in it, so that a read behind its end shows

// The bytes of a case. What it does not hold is zero or empty.
class Input {
public:
    explicit Input(std::span<const uint8_t> bytes) : left_(bytes) {}

    [[nodiscard]] bool empty() const { return left_.empty(); }
    uint8_t u8();
    uint16_t u16(); // low byte first, as all of these
    uint32_t u32();
    Bytes bytes(size_t count);
    // A length of two bytes, and as many bytes.
    Bytes piece() { return bytes(u16()); }
    // The same as a text.
    std::string text();
    Bytes rest() { return bytes(left_.size()); }

private:
    std::span<const uint8_t> left_;
};

// Ends the run as a finding unless `holds`; `what` should hold.
void require(bool holds, const char* what);

// In place of the process's end.
struct ProcessEnd {
    int status;
};

// A file without a place in any folder.
class NamelessFile {
public:
    explicit NamelessFile(std::span<const uint8_t> contents = {});

    [[nodiscard]] std::string path() const;
    [[nodiscard]] int descriptor() const { return fd_.get(); }
    [[nodiscard]] Bytes contents() const;

private:
    UniqueFd fd_;
};

// From now on to the case's end the tablet has a file `path` with these contents. Of /data, /dev, /proc and /sys it has
// no other files but /dev/null and those of the process.
void add_file(const std::string& path, std::span<const uint8_t> contents);
// The bytes of such a file.
[[nodiscard]] Bytes file_contents(const std::string& path);

// One case. May throw ProcessEnd; one that may not is a finding where the target finds out.
void fuzz_one(Input& input);
