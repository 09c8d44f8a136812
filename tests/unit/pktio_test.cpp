#include "diag/pktio.h"

#include "diag/log.h"
#include "tests/unit/pty_peer.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// What the handler got, in order.
struct Received {
    std::mutex mutex;
    std::condition_variable grown;
    std::vector<Bytes> packets;
    uintptr_t user_data = 0;
};
Received received;
std::atomic<uintptr_t> reader_ended = 0;

void keep_packet(std::span<const uint8_t> packet, uintptr_t user_data)
{
    const std::lock_guard lock(received.mutex);
    received.packets.emplace_back(packet.begin(), packet.end());
    received.user_data = user_data;
    received.grown.notify_all();
}

Bytes unframed(const Bytes& data)
{
    const auto size = static_cast<uint32_t>(data.size());
    return Bytes{
               0x15, 0, 0, 0, 0x20, 0, 0, 0, 0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size & 0xFF)} +
           data;
}

class Pktio : public testing::Test {
protected:
    void SetUp() override
    {
        received.packets.clear();
        reader_ended = 0;
        ASSERT_EQ(pktio_init(peer.path(), keep_packet, 77), 0);
    }
    void TearDown() override
    {
        pktio_shutdown();
        pktio_set_shutdown_callback(nullptr, 0);
    }

    // The first `count` packets, once they are there.
    static std::vector<Bytes> packets(size_t count)
    {
        std::unique_lock lock(received.mutex);
        received.grown.wait_for(lock, std::chrono::seconds(5), [&] { return received.packets.size() >= count; });
        return received.packets;
    }

    PtyPeer peer;
};

TEST_F(Pktio, DeliversEveryFrameOnce)
{
    peer.send(framed({1, 2, 3}) + framed({0x7E}) + Bytes{0x7E} + framed({4}));
    EXPECT_THAT(packets(4), ElementsAre(Bytes{1, 2, 3}, Bytes{0x7E}, Bytes{}, Bytes{4}));
    EXPECT_EQ(received.user_data, 77U);
}

TEST_F(Pktio, JoinsAFrameThatComesInPieces)
{
    const Bytes packet(300, 0x7D);
    for (const uint8_t byte : framed(packet)) {
        peer.send({byte});
        ASSERT_TRUE(byte != 0x5D || peer.drained()); // the next byte comes in a read of its own
    }
    EXPECT_THAT(packets(1), ElementsAre(packet));
}

TEST_F(Pktio, DropsBadAndOverlongFramesOnly)
{
    CaptureStderr();
    Bytes damaged = framed({9, 9, 9});
    damaged[0] = 8;
    peer.send(damaged + framed({1}));
    EXPECT_THAT(packets(1), ElementsAre(Bytes{1}));

    const Bytes largest(pktio_buffer_size - 2, 0x33);
    peer.send(framed(Bytes(pktio_buffer_size - 1, 0x33)));
    peer.send(framed(Bytes(size_t{3} * pktio_buffer_size, 0x7E)));
    peer.send(framed(largest));
    EXPECT_THAT(packets(2), ElementsAre(Bytes{1}, largest));
    EXPECT_EQ(GetCapturedStderr(), "main W RIL_ODL: pktio.c:164 hdlcdec:status=3:bad HDLC decode\n"
                                   "main W RIL_ODL: pktio.c:164 hdlcdec:status=2:bad HDLC decode\n"
                                   "main W RIL_ODL: pktio.c:164 hdlcdec:status=2:bad HDLC decode\n");
}

// A frame that fills 64-byte endpoint packets exactly goes out with a second flag.
TEST_F(Pktio, SendsFramesRawBytesAndFlags)
{
    for (const size_t size : {60U, 61U, 62U, 125U}) {
        const Bytes packet(size, 0x11);
        Bytes wire = framed(packet);
        ASSERT_EQ(wire.size(), size + 3) << "no stuffing in this check sequence";
        if (wire.size() % 64 == 0)
            wire.push_back(0x7E);
        EXPECT_EQ(pktio_send_packet(packet), 0);
        EXPECT_EQ(pktio_send_end_of_packet_char(), 1);
        EXPECT_EQ(pktio_send_raw_packet(Bytes{0x7E, 0x7D}), 0);
        EXPECT_EQ(peer.receive(wire.size() + 3), (wire + Bytes{0x7E, 0x7E, 0x7D})) << size;
    }
}

TEST_F(Pktio, RefusesAPacketThatDoesNotFitAFrame)
{
    CaptureStderr();
    EXPECT_EQ(pktio_send_packet(Bytes(2100, 0x7E)), 1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("pktio.c:209 enc:status=-1:error encoding"));
    // 4096 bytes on the wire, and the second flag behind them.
    Bytes packet(4093, 0x11);
    ASSERT_EQ(framed(packet).size(), 4096U);
    EXPECT_EQ(pktio_send_packet(packet), 0);
    EXPECT_EQ(peer.receive(4097), (framed(packet) + Bytes{0x7E}));
}

// It floods, so that it is not just silent, and reads nothing.
TEST_F(Pktio, DoesNotWaitForEverForAModemThatTakesNothing)
{
    CaptureStderr();
    const Bytes packet(2000, 0x11);
    while (pktio_send_packet(packet) == 0)
        peer.send(framed({1}));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("pktio.c:221 write:errno=110 (Connection timed out):error writing"));
    peer.send(framed({6}));
    (void)packets(1);
    EXPECT_EQ(packets(1).front(), Bytes{1}) << "the reader is not held up";
}

TEST_F(Pktio, EndsWithThePortAndStartsAgain)
{
    CaptureStderr();
    pktio_shutdown();
    pktio_shutdown();
    pktio_set_shutdown_callback([](uintptr_t user_data) { reader_ended = user_data; }, 5);
    ASSERT_EQ(pktio_init(peer.path(), keep_packet, 77), 0);
    peer.unplug();
    while (reader_ended != 5)
        std::this_thread::yield();
    while (pktio_send_packet(Bytes{1}) == 0)
        std::this_thread::yield();
    EXPECT_EQ(pktio_send_raw_packet(Bytes{1}), 1);
    EXPECT_EQ(pktio_send_end_of_packet_char(), -1);
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("main E RIL_ODL: pktio.c:173 eof::EOF received--pausing read thread"));

    const PtyPeer other;
    ASSERT_EQ(pktio_init(other.path(), keep_packet, 1), 0) << "the dead engine is shut down first";
    other.send(framed({6}));
    EXPECT_THAT(packets(1), ElementsAre(Bytes{6}));
}

TEST_F(Pktio, ReportsAPortThatCannotBeOpened)
{
    CaptureStderr();
    EXPECT_EQ(pktio_init("/nowhere", keep_packet, 0), 1);
    EXPECT_EQ(GetCapturedStderr(), "main E RIL_ODL: pktio.c:271 open:device=/nowhere,errno=2:cant open device\n");
    pktio_shutdown();
}

TEST_F(Pktio, StopsAlthoughTheModemNeverFallsSilent)
{
    std::atomic<bool> flooding = true;
    std::thread modem([&] {
        while (flooding)
            peer.send(framed(Bytes(1000, 1)));
    });
    (void)packets(5);
    pktio_shutdown();
    ASSERT_EQ(pktio_init(peer.path(), keep_packet, 0), 0); // reads on, so that the modem gets rid of its last frame
    flooding = false;
    modem.join();
}

TEST_F(Pktio, GathersAnUnframedReplyFromPiecesOfAnySize)
{
    Bytes data(4000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    std::vector<Bytes> expected;
    pktio_set_unframed_read(1);
    for (const size_t piece : {1U, 5U, 11U, 12U, 13U, 1000U, 4011U, 4012U}) {
        const Bytes reply = unframed(data);
        expected.push_back(reply);
        for (size_t at = 0; at < reply.size(); at += piece) {
            const size_t end = std::min(at + piece, reply.size());
            peer.send({reply.begin() + static_cast<int>(at), reply.begin() + static_cast<int>(end)});
            ASSERT_TRUE(piece == 1 || peer.drained());
        }
        EXPECT_EQ(packets(expected.size()), expected) << piece;
    }
    // Two in one piece, without data, and the largest that the buffer holds.
    const Bytes largest = unframed(Bytes(pktio_buffer_size - 12, 3));
    peer.send(unframed({}) + unframed({0x7E, 0x15}));
    peer.send(largest);
    expected.insert(expected.end(), {unframed({}), unframed({0x7E, 0x15}), largest});
    EXPECT_EQ(packets(expected.size()), expected);
}

TEST_F(Pktio, TakesAFramedRefusalInUnframedMode)
{
    pktio_set_unframed_read(1);
    peer.send(Bytes{0x7E} + framed({3, 0, 6}) + unframed({1}));
    EXPECT_THAT(packets(3), ElementsAre(Bytes{}, Bytes{3, 0, 6}, unframed({1})));
}

TEST_F(Pktio, DropsAnUnframedReplyThatAnnouncesTooMuch)
{
    for (const uint32_t length : {pktio_buffer_size - 11, 0xFFFFFFFFU}) {
        CaptureStderr();
        pktio_set_unframed_read(1);
        Bytes header = unframed({});
        for (size_t i = 0; i < 4; ++i)
            header[8 + i] = static_cast<uint8_t>(length >> (24 - 8 * i));
        peer.send(header + Bytes(3000, 0x15));
        peer.send(Bytes(3000, 0x7E));
        ASSERT_TRUE(peer.drained());
        pktio_set_unframed_read(0);
        peer.send(framed({5}));
        EXPECT_THAT(packets(1), ElementsAre(Bytes{5}));
        EXPECT_THAT(GetCapturedStderr(), HasSubstr("reply larger than the buffer--dropped"));
        received.packets.clear();
    }
}

// Neither half a frame nor half an unframed reply is continued by bytes of the other mode.
TEST_F(Pktio, KeepsTheModesApart)
{
    const Bytes frame = framed({7, 7, 7});
    peer.send({frame.begin(), frame.begin() + 3});
    ASSERT_TRUE(peer.drained());
    pktio_set_unframed_read(1);
    peer.send(unframed({1, 2}));
    EXPECT_THAT(packets(1), ElementsAre(unframed({1, 2})));

    const Bytes half = unframed(Bytes(100, 9));
    peer.send({half.begin(), half.begin() + 50});
    ASSERT_TRUE(peer.drained());
    pktio_set_unframed_read(0);
    peer.send(framed({8}));
    EXPECT_THAT(packets(2), ElementsAre(unframed({1, 2}), Bytes{8}));
    pktio_set_unframed_read(1);
    pktio_set_unframed_read(0);
    peer.send(framed({0x15, 1}));
    EXPECT_EQ(packets(3).back(), (Bytes{0x15, 1})) << "framed as before";
}

TEST_F(Pktio, TracesWhatItsMaskAsksFor)
{
    CaptureStderr();
    odl_log_set_log_mask(odl_trace_packets | odl_trace_bytes | odl_trace_select);
    peer.send(framed({0xAB}));
    (void)packets(1);
    pktio_shutdown();
    odl_log_set_log_mask(0);
    const std::string log = GetCapturedStderr();
    for (const char* text : {"pktio.c:92 exited select numFds=1", "pktio.c:123 bytes = 4",
                             "pktio.c:141 packet received pkt[0]=ab, len=4 outIdx=0", "log.c:29 ab ",
                             "pktio.c:147 inIdx=0, sizeIn=4, outIdx=0, sizeOut=4096, cookie.state=0, cookie.crc=65535",
                             "pktio.c:115 exiting read thread"})
        EXPECT_THAT(log, HasSubstr(text));
}

} // namespace
