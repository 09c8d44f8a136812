#include "diag/hdlc.h"

#include "tests/unit/pty_peer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <random>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

Bytes encode(const Bytes& packet)
{
    Bytes out(2 * packet.size() + 5);
    auto length = static_cast<uint32_t>(out.size());
    EXPECT_EQ(hdlc_encode(packet, out.data(), length), 0);
    out.resize(length);
    return out;
}

// A decoder with as much room as `room`, fed in pieces.
class Decoder {
public:
    explicit Decoder(size_t room) : out_(room) { restart(); }

    int feed(const Bytes& wire)
    {
        int status = HDLC_MORE;
        for (size_t at = 0; at < wire.size() && status == HDLC_MORE;) {
            auto in_length = static_cast<uint32_t>(wire.size() - at);
            auto out_length = static_cast<int32_t>(out_.size()) - produced_;
            status = hdlc_decode_with_cookie(&wire[at], in_length, out_.data() + produced_, out_length, &cookie_);
            at += in_length;
            produced_ += out_length;
            consumed_ = at;
        }
        return status;
    }

    void restart()
    {
        produced_ = 0;
        EXPECT_EQ(hdlc_init_decode_cookie(&cookie_), HDLC_OK);
    }

    [[nodiscard]] Bytes packet() const { return {out_.begin(), out_.begin() + produced_}; }
    [[nodiscard]] size_t consumed() const { return consumed_; }

private:
    Bytes out_;
    int32_t produced_ = 0;
    size_t consumed_ = 0;
    HdlcCookie cookie_{};
};

Bytes random_packet(std::mt19937& random, size_t size)
{
    // Half of all bytes need stuffing.
    Bytes packet(size);
    for (uint8_t& byte : packet)
        byte = static_cast<uint8_t>(random() % 2 == 0 ? 0x7D + random() % 2 : random());
    return packet;
}

// The shortest packets that have a flag or an escape as the low or the high byte of their FCS.
std::vector<Bytes> packets_with_stuffed_fcs()
{
    std::vector<Bytes> found;
    for (const int special : {0x7D, 0x7E}) {
        for (const size_t which : {2U, 3U}) {
            for (uint32_t value = 0;; ++value) {
                const Bytes packet = {static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8)};
                if (with_fcs(packet)[which] == special) {
                    found.push_back(packet);
                    break;
                }
            }
        }
    }
    return found;
}

TEST(Hdlc, ChecksWithTheStandardValue)
{
    EXPECT_EQ(encode({'1', '2', '3', '4', '5', '6', '7', '8', '9'}),
              (Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9', 0x6E, 0x90, 0x7E}));
}

TEST(Hdlc, StuffsPayloadAndCheckSequence)
{
    EXPECT_EQ(encode({0x7E}), framed({0x7E}));
    EXPECT_EQ(encode({0x7E})[1], 0x5E);
    EXPECT_EQ(encode({}), framed({}));
    for (const Bytes& packet : packets_with_stuffed_fcs()) {
        EXPECT_EQ(encode(packet), framed(packet));
        Decoder decoder(4);
        EXPECT_EQ(decoder.feed(framed(packet)), HDLC_OK);
        EXPECT_EQ(decoder.packet(), packet);
    }
}

TEST(Hdlc, AgreesWithThePlainReading)
{
    std::mt19937 random(7);
    for (size_t size = 0; size < 300; ++size) {
        const Bytes packet = random_packet(random, size);
        const Bytes wire = framed(packet);
        ASSERT_EQ(encode(packet), wire);

        Decoder decoder(size + hdlc_fcs_size);
        ASSERT_EQ(decoder.feed(wire + Bytes{1, 2}), HDLC_OK);
        ASSERT_EQ(decoder.packet(), packet);
        ASSERT_EQ(decoder.consumed(), wire.size()) << "stops behind the flag";

        Bytes in_place = wire;
        auto length = static_cast<uint32_t>(in_place.size());
        ASSERT_EQ(hdlc_decode(in_place.data(), length), HDLC_OK);
        in_place.resize(length);
        ASSERT_EQ(in_place, packet);
    }
}

// Also between an escape and the byte it escapes, and inside the check sequence.
TEST(Hdlc, DecodesAFrameSplitAnywhere)
{
    for (const Bytes& packet : packets_with_stuffed_fcs()) {
        const Bytes wire = framed(Bytes{0x7E, 1, 0x7D} + packet);
        for (size_t first = 0; first <= wire.size(); ++first) {
            for (size_t second = first; second <= wire.size(); ++second) {
                Decoder decoder(16);
                (void)decoder.feed({wire.begin(), wire.begin() + static_cast<int>(first)});
                (void)decoder.feed({wire.begin() + static_cast<int>(first), wire.begin() + static_cast<int>(second)});
                if (second < wire.size()) {
                    ASSERT_EQ(decoder.feed({wire.begin() + static_cast<int>(second), wire.end()}), HDLC_OK);
                }
                ASSERT_EQ(decoder.packet(), (Bytes{0x7E, 1, 0x7D} + packet)) << first << ", " << second;
            }
        }
    }
}

TEST(Hdlc, FindsEveryDamagedBit)
{
    const Bytes wire = framed({0x26, 1, 2, 3});
    for (size_t bit = 0; bit < 8 * (wire.size() - 1); ++bit) {
        Bytes damaged = wire;
        damaged[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        auto length = static_cast<uint32_t>(damaged.size());
        Decoder decoder(16);
        EXPECT_NE(decoder.feed(damaged), HDLC_OK) << bit;
        EXPECT_NE(hdlc_decode(damaged.data(), length), HDLC_OK) << bit;
    }
}

TEST(Hdlc, TellsWhatEndsAFrame)
{
    struct Case {
        Bytes wire;
        int incremental;
        int one_shot;
    };
    const Case cases[] = {
        {{0x7E}, HDLC_OK, HDLC_OK},                         // an empty frame
        {{1, 0x7E}, HDLC_BAD_FCS, HDLC_BAD_FCS},            // shorter than its FCS
        {{1, 2, 3}, HDLC_MORE, HDLC_MORE},                  // no flag
        {{1, 0x7D}, HDLC_MORE, HDLC_MORE},                  // nothing behind the escape
        {with_fcs({0x5E}) + Bytes{0x7E}, HDLC_OK, HDLC_OK}, // what the next one means
        {Bytes{0x7D, 0x7E} + Bytes{with_fcs({0x5E})[1], with_fcs({0x5E})[2], 0x7E}, HDLC_OK, HDLC_OK}, // escaped flag
    };
    for (const Case& c : cases) {
        Decoder decoder(16);
        EXPECT_EQ(decoder.feed(c.wire), c.incremental);
        Bytes buffer = c.wire;
        auto length = static_cast<uint32_t>(buffer.size());
        EXPECT_EQ(hdlc_decode(buffer.data(), length), c.one_shot);
    }
}

TEST(Hdlc, DiscardsWhatDoesNotFitAndStartsCleanAfterIt)
{
    const Bytes packet(14, 0x11);
    Decoder decoder(15); // one byte short of payload and FCS
    EXPECT_EQ(decoder.feed(framed(packet)), HDLC_TOO_LONG);
    decoder.restart();
    EXPECT_EQ(decoder.feed(framed({1, 2, 3})), HDLC_OK);
    EXPECT_EQ(decoder.packet(), (Bytes{1, 2, 3}));

    Decoder exact(16);
    EXPECT_EQ(exact.feed(framed(packet)), HDLC_OK);
}

TEST(Hdlc, NeedsACookie)
{
    uint32_t in_length = 1;
    int32_t out_length = 1;
    const uint8_t in = 0x7E;
    uint8_t out = 0;
    EXPECT_EQ(hdlc_decode_with_cookie(&in, in_length, &out, out_length, nullptr), HDLC_NO_COOKIE);
    EXPECT_EQ(hdlc_init_decode_cookie(nullptr), HDLC_NO_COOKIE);
}

// Each missing byte of room is told by the line of the step that lacked it.
TEST(Hdlc, SaysWhichStepRanOutOfRoom)
{
    const Bytes packet = {0x7E, 1, 2};
    const auto whole = static_cast<uint32_t>(framed(packet).size());
    ASSERT_EQ(whole, 7U) << "no stuffing in this check sequence";
    const char* const lines[] = {
        "hdlc.c:82 oos:length=3,outLength=0:", "hdlc.c:82 oos:length=3,outLength=1:",
        "hdlc.c:82 oos:length=2,outLength=2:", "hdlc.c:82 oos:length=1,outLength=3:",
        "hdlc.c:90 oos:length=0,outLength=4:", "hdlc.c:91 oos:length=0,outLength=5:",
        "hdlc.c:98 oos:length=0,outLength=6:",
    };
    for (uint32_t room = 0; room < whole; ++room) {
        Bytes out(room);
        uint32_t length = room;
        CaptureStderr();
        EXPECT_EQ(hdlc_encode(packet, out.data(), length), -1);
        EXPECT_EQ(GetCapturedStderr(),
                  std::string("main E RIL_ODL: ") + lines[room] + "hldc_encode ran out of buffer space\n");
    }
}

} // namespace
