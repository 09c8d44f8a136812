// Frames that arrive in pieces, against the same frames decoded whole; and what was framed comes back.
#include "diag/hdlc.h"
#include "tests/fuzz/harness.h"

#include <algorithm>

namespace {

struct Decoded {
    int status;
    size_t consumed;
    Bytes payload; // with HDLC_OK
};

// Decodes the first frame of `wire`, which arrives `piece` bytes at a time, into `room` bytes.
Decoded decode(std::span<const uint8_t> wire, size_t piece, size_t room)
{
    HdlcCookie cookie{};
    require(hdlc_init_decode_cookie(&cookie) == HDLC_OK, "a cookie can be made");
    Bytes out(room);
    Decoded decoded{HDLC_MORE, 0, {}};
    int64_t produced = 0;
    while (decoded.status == HDLC_MORE && decoded.consumed < wire.size()) {
        const Bytes in(wire.begin() + static_cast<ptrdiff_t>(decoded.consumed),
                       wire.begin() + static_cast<ptrdiff_t>(std::min(decoded.consumed + piece, wire.size())));
        auto in_length = static_cast<uint32_t>(in.size());
        auto out_length = static_cast<int32_t>(static_cast<int64_t>(room) - produced);
        decoded.status = hdlc_decode_with_cookie(in.data(), in_length, out.data() + produced, out_length, &cookie);
        require(in_length <= in.size() && (decoded.status != HDLC_MORE || in_length == in.size()),
                "a decoder takes what there is up to the flag");
        decoded.consumed += in_length;
        produced += out_length;
        require(produced >= 0 && produced <= static_cast<int64_t>(room), "what is decoded fits its room");
    }
    if (decoded.status == HDLC_OK)
        decoded.payload.assign(out.begin(), out.begin() + produced);
    return decoded;
}

void compare(std::span<const uint8_t> wire, size_t piece, size_t small_room)
{
    while (!wire.empty()) {
        const Decoded decoded = decode(wire, piece, wire.size());
        require(decoded.status != HDLC_TOO_LONG, "a frame fits into as many bytes as it has");
        Bytes whole(wire.begin(), wire.begin() + static_cast<ptrdiff_t>(decoded.consumed));
        auto length = static_cast<uint32_t>(whole.size());
        const int status = hdlc_decode(whole.data(), length);
        require(status == decoded.status, "both decoders judge a frame alike");
        if (status == HDLC_OK) {
            whole.resize(length);
            require(whole == decoded.payload, "both decoders read the same");
        }
        const Decoded cramped = decode(wire, piece, small_room);
        if (cramped.status == HDLC_OK)
            require(cramped.payload == decoded.payload, "little room changes nothing of what fits");
        else if (status == HDLC_OK)
            require(cramped.status == HDLC_TOO_LONG && decoded.payload.size() + hdlc_fcs_size > small_room,
                    "only what does not fit is too long");
        wire = wire.subspan(decoded.consumed);
    }
}

void come_back(const Bytes& payload)
{
    Bytes frame(2 * payload.size() + 5);
    auto length = static_cast<uint32_t>(frame.size());
    require(hdlc_encode(payload, frame.data(), length) == 0, "a frame is at most twice its bytes long");
    frame.resize(length);
    require(std::ranges::count(frame, HDLC_END_OF_PACKET_CHAR) == 1 && frame.back() == HDLC_END_OF_PACKET_CHAR,
            "the only flag ends the frame");
    const Decoded decoded = decode(frame, frame.size(), payload.size() + hdlc_fcs_size);
    require(decoded.status == HDLC_OK && decoded.payload == payload, "what was framed comes back");

    Bytes cramped(frame.size() - 1);
    length = static_cast<uint32_t>(cramped.size());
    require(hdlc_encode(payload, cramped.data(), length) == -1, "a frame needs its room");
    frame.front() ^= 1;
    require(frame.front() == 0x7E || frame.front() == 0x7D || decode(frame, 1, frame.size()).status != HDLC_OK,
            "a wrong bit is noticed");
}

} // namespace

void fuzz_one(Input& input)
{
    const size_t piece = size_t{input.u8()} + 1;
    const size_t room = input.u8();
    const Bytes bytes = input.rest();
    compare(bytes, piece, room);
    come_back(bytes);
}
