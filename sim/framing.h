// Frames on a packet port: payload, CRC-16/X-25 (low byte first), both byte-stuffed, then one closing flag.
#pragma once

#include "bytes.h"

namespace sim {

constexpr uint8_t flag_byte = 0x7E;

// The wire form of a packet; `spoil_fcs` makes it one that a receiver must refuse.
[[nodiscard]] Bytes frame(View packet, bool spoil_fcs = false);

enum class FrameState { good, bad_fcs, aborted, too_long };

struct Frame {
    FrameState state = FrameState::good;
    Bytes packet; // without the FCS; empty unless good
};

// Cuts a byte stream into frames, across reads. Empty frames (a flag after a flag) are line fill and never seen.
class Deframer {
public:
    // The longest packet that a modem takes; a longer frame is dropped up to its flag.
    static constexpr size_t longest_packet = 4096;

    // Takes bytes off the front of `input` until a frame has ended or nothing is left.
    [[nodiscard]] std::optional<Frame> take(View& input);

private:
    [[nodiscard]] Frame finish();

    Bytes bytes_;
    bool escaped_ = false;
    bool too_long_ = false;
};

} // namespace sim
