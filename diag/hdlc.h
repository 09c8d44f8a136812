// HDLC framing: payload, CRC-16/X-25 (low byte first), byte stuffing, closing flag. No opening flag, no address field.
//
//   payload, stuffed | FCS low, stuffed | FCS high, stuffed | 0x7E
//
// 0x7E and 0x7D travel as 0x7D and the byte XOR 0x20. Nothing here allocates; any thread, one caller at a time a
// cookie.
#pragma once

#include <cstdint>
#include <span>

constexpr uint8_t HDLC_END_OF_PACKET_CHAR = 0x7E;

// Two bytes of frame check sequence travel behind the payload and need room in a decoder's output until the flag.
constexpr uint32_t hdlc_fcs_size = 2;

enum HdlcStatus : int {
    HDLC_OK = 0,        // a frame ended with a good FCS, or an empty frame ended
    HDLC_MORE = 1,      // input used up without a closing flag
    HDLC_TOO_LONG = 2,  // the frame did not fit and was discarded with its flag
    HDLC_BAD_FCS = 3,   // the frame ended with a bad FCS
    HDLC_NO_COOKIE = 4, // no cookie given
};

// Decoder state of one byte stream, kept between reads.
struct HdlcCookie {
    int32_t state; // 0 at a frame's start, 1 inside, 2 after an escape, 3 discarding up to the next flag
    uint16_t crc;  // running register, 0xFFFF at a frame's start
};

// Frames `packet` into `out`. `out_length` is the room there in bytes and becomes the number of bytes written.
// Returns 0, or -1 with one transport log line when `out` is too small.
[[nodiscard]] int hdlc_encode(std::span<const uint8_t> packet, uint8_t* out, uint32_t& out_length);

// Puts `cookie` at a frame's start. Returns HDLC_OK, or HDLC_NO_COOKIE for null.
[[nodiscard]] int hdlc_init_decode_cookie(HdlcCookie* cookie);

// Takes bytes from `in` up to and including the first closing flag and writes what they carry to `out`. The lengths are
// the bytes available and the room, and become the bytes consumed and produced. The FCS is taken off the produced count
// at the flag, so it is negative when earlier calls delivered the FCS. After HDLC_TOO_LONG or HDLC_BAD_FCS the frame's
// output means nothing. Returns an HdlcStatus; on any but HDLC_MORE the caller initialises the cookie again.
[[nodiscard]] int hdlc_decode_with_cookie(const uint8_t* in, uint32_t& in_length, uint8_t* out, int32_t& out_length,
                                          HdlcCookie* cookie);

// Decodes the first frame of `buffer` in place. `length` is the bytes there and, with HDLC_OK, becomes the payload's.
// Returns HDLC_OK, HDLC_MORE (no flag, or an escape at the end) or HDLC_BAD_FCS.
[[nodiscard]] int hdlc_decode(uint8_t* buffer, uint32_t& length);
