#include "diag/exchange.h"

#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "tests/unit/pty_peer.h"

#include <array>
#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

std::atomic<int> filter_calls = 0;

// Takes the third packet that it sees.
int32_t third_only(std::span<const uint8_t> /*packet*/, uintptr_t /*user_data*/)
{
    return ++filter_calls == 3 ? 0 : 1;
}

int32_t starts_with_9(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    ++filter_calls;
    return !packet.empty() && packet.front() == 9 ? 0 : 1;
}

class Exchange : public testing::Test {
protected:
    void SetUp() override { filter_calls = 0; }
    void TearDown() override
    {
        SetRspCallback(nullptr);
        ExitOnTimeout = 1;
        pktio_shutdown();
    }

    // Runs `request` while the modem answers its first bytes with `wire`.
    template <typename Request>
    int32_t answered(const Bytes& wire, Request request)
    {
        std::thread modem([&] {
            (void)peer.receive(4); // one byte, its check sequence, the flag
            peer.send(wire);
        });
        const int32_t result = request();
        modem.join();
        return result;
    }

    int32_t plain(const Bytes& wire)
    {
        return answered(wire, [] { return send_pkt_with_rsp(Bytes{0x12}, 0x13); });
    }
    int32_t plain_update(const Bytes& wire)
    {
        return answered(wire, [] { return SendPktAndWait(Bytes{0x12}, 0x13); });
    }

    PtyPeer peer;
};

Bytes response()
{
    const auto bytes = last_response();
    return {bytes.begin(), bytes.end()};
}

Bytes update_response()
{
    return {sResponseBuf, sResponseBuf + sResponseLen};
}

TEST_F(Exchange, TakesTheExpectedCodeAndSkipsOthers)
{
    (void)open_serial_port(peer.path());
    EXPECT_EQ(plain(Bytes{0x7E} + framed({0x14, 1}) + framed({0x13, 2, 3}) + framed({0x13, 4})), exchange_accepted);
    EXPECT_EQ(response(), (Bytes{0x13, 2, 3}));
    clear_last_response();
    EXPECT_EQ(response(), (Bytes{0, 0, 0}));
}

// Later frames are dropped, whatever they are, and leave the response as it is.
TEST_F(Exchange, KeepsAResponseUntilTheNextRequest)
{
    OpenSerialPort(peer.path());
    ASSERT_EQ(plain_update(framed({0x13, 1, 2})), exchange_accepted);
    SetRspCallback(starts_with_9);
    peer.send(framed({0x13, 9, 9}) + framed({9, 9}));
    ASSERT_TRUE(peer.drained());
    EXPECT_EQ(update_response(), (Bytes{0x13, 1, 2}));
    EXPECT_EQ(answered(framed({9}), [] { return SendPktAndWait(Bytes{1}, 1); }), exchange_accepted);
    EXPECT_EQ(filter_calls, 1) << "no filter runs while nothing is outstanding";
}

// A user stops the process, or the tablet sleeps: the answer comes in time, but is read only when it goes on.
TEST_F(Exchange, TakesWhatCameWhileTheProcessWasStopped)
{
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)setpgid(0, 0); // of a group without a shell behind it, all are hung up when one is stopped
        OpenSerialPort(peer.path());
        _exit(SendPktAndWait(Bytes{0x12}, 0x13));
    }
    ASSERT_EQ(peer.receive(framed({0x12}).size()).size(), framed({0x12}).size());
    int status = 0;
    ASSERT_EQ(kill(child, SIGSTOP), 0);
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    peer.send(framed({0x13, 1}));
    (void)usleep(6'000'000); // of the five seconds that a response may take
    ASSERT_EQ(kill(child, SIGCONT), 0);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exchange_accepted);
}

TEST_F(Exchange, NakAnswersTheCrashDumpSideAndIsToldByItsText)
{
    (void)open_serial_port(peer.path());
    CaptureStderr();
    EXPECT_EQ(plain(framed({3, 0, 6})), exchange_accepted);
    uint16_t reason = 0;
    EXPECT_EQ(get_error_code(reason), 1);
    EXPECT_EQ(reason, 6);
    EXPECT_EQ(plain(framed({3, 0, 0x10})), exchange_accepted) << "no row, no text";
    EXPECT_EQ(plain(framed({3})), exchange_accepted);
    const std::string text = "radio E RIL_TESSEL: Unknown/invalid command\n";
    EXPECT_EQ(GetCapturedStderr(), text + text);
    clear_last_response();
    EXPECT_EQ(get_error_code(reason), 0);
}

TEST_F(Exchange, NakIsAForeignPacketToTheUpdateSide)
{
    OpenSerialPort(peer.path());
    CaptureStderr();
    EXPECT_EQ(plain_update(framed({3, 0, 6}) + framed({0x13})), exchange_accepted);
    EXPECT_EQ(GetCapturedStderr(), "radio W RIL_TESSEL: Expected rsp: 0x13, received: 0x03 \n");
    EXPECT_EQ(update_response(), Bytes{0x13});
}

TEST_F(Exchange, AFilterWakesTheCallerOnceAndFillsItsBuffer)
{
    (void)open_serial_port(peer.path());
    std::array<uint8_t, 5> bytes = {0, 0, 0, 0, 0xEE};
    ResponseBuffer buffer = {4, 0, bytes.data()};
    EXPECT_EQ(answered(framed({1}) + framed({}) + framed({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}),
                       [&] { return send_pkt_with_callback(Bytes{1}, 1, third_only, &buffer); }),
              exchange_accepted);
    EXPECT_EQ(buffer.length, 4U);
    EXPECT_EQ(bytes, (std::array<uint8_t, 5>{1, 2, 3, 4, 0xEE}));
    EXPECT_EQ(s_response_len, 10U);

    // The next response goes nowhere near the buffer of the last.
    EXPECT_EQ(plain(framed({0x13, 7})), exchange_accepted);
    EXPECT_EQ(bytes[0], 1);
    buffer.capacity = 0;
    filter_calls = 2;
    EXPECT_EQ(answered(framed({8}), [&] { return send_pkt_with_callback(Bytes{1}, 1, third_only, &buffer); }),
              exchange_accepted);
    EXPECT_EQ(bytes[0], 1);
}

// The hook of a caller outlives its requests and their time-outs; a filter of one request does not.
TEST_F(Exchange, AnInstalledHookOutlivesATimeOut)
{
    OpenSerialPort(peer.path());
    SetRspCallback(starts_with_9);
    EXPECT_EQ(plain_update(framed({9, 1})), exchange_accepted);
    CaptureStderr();
    EXPECT_EQ(plain_update(framed({0x13, 1})), exchange_timed_out);
    EXPECT_EQ(sResponseLen, 0U);
    EXPECT_EQ(GetCapturedStderr(), "radio E RIL_TESSEL: Timeout!\n");
    EXPECT_EQ(plain_update(framed({9, 2})), exchange_accepted);

    EXPECT_EQ(answered(framed({9, 3}), [] { return SendPktWithCallback(Bytes{1}, 1, starts_with_9); }), 0);
    EXPECT_EQ(plain_update(framed({0x13, 2})), exchange_accepted) << "judged by its code again";
}

TEST_F(Exchange, SilenceIsAnAnswerWhereTheFlagSaysSo)
{
    OpenSerialPort(peer.path());
    ExitOnTimeout = 0;
    CaptureStderr();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(plain_update({}), exchange_no_response);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4990));
    EXPECT_LT(waited, std::chrono::seconds(7));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("Timeout!"));
}

TEST_F(Exchange, AFilteredRequestTimesOutWith71)
{
    (void)open_serial_port(peer.path());
    CaptureStderr();
    EXPECT_EQ(answered(framed({1}), [] { return send_pkt_with_callback(Bytes{1}, 1, starts_with_9, nullptr); }),
              exchange_timed_out);
    EXPECT_EQ(filter_calls, 1);
    EXPECT_EQ(plain(framed({0x13, 1})), exchange_accepted) << "the filter is gone";
    (void)GetCapturedStderr();
}

// The handler of the side that did not open the port hears nothing.
TEST_F(Exchange, SidesDoNotHearEachOther)
{
    (void)open_serial_port(peer.path());
    CaptureStderr();
    EXPECT_EQ(plain_update(framed({0x13})), exchange_timed_out);
    (void)GetCapturedStderr();
}

TEST(ExchangeDeathTest, AFailedSendEndsTheProcess)
{
    EXPECT_EXIT((void)send_pkt_with_rsp(Bytes{1}, 1), testing::ExitedWithCode(4), "Error in pktio_send_packet");
    EXPECT_EXIT((void)send_pkt_with_callback(Bytes{1}, 1, third_only, nullptr), testing::ExitedWithCode(69), "");
    EXPECT_EXIT((void)SendPktAndWait(Bytes{1}, 1), testing::ExitedWithCode(69), "");
    EXPECT_EXIT((void)SendPktWithCallback(Bytes{1}, 1, third_only), testing::ExitedWithCode(69), "");
}

TEST(ExchangeDeathTest, APortThatCannotBeOpenedEndsTheProcess)
{
    EXPECT_EXIT(open_serial_port("/nowhere"), testing::ExitedWithCode(32), "can't start pktio");
    EXPECT_EXIT(OpenSerialPort("/nowhere"), testing::ExitedWithCode(64), "can't start pktio");
    close_serial_port();
    CloseSerialPort();
}

TEST(DumpBuf, PrintsOffsetHexAndText)
{
    Bytes bytes(20, 'A');
    bytes[1] = 0x1F;
    bytes[2] = 0x7E;
    bytes[3] = 0x7F;
    bytes[16] = 0xFF;
    CaptureStdout();
    dump_buf(bytes);
    dump_buf(std::span(bytes).first(16));
    dump_buf({});
    const std::string full = "0000 41 1f 7e 7f 41 41 41 41 41 41 41 41 41 41 41 41  A.~.AAAAAAAAAAAA\n";
    const std::string blank(48, ' ');
    EXPECT_EQ(GetCapturedStdout(), full + "0010 ff 41 41 41 " + std::string(36, ' ') + " .AAA\n" + full + "0010 " +
                                       blank + " \n" + "0000 " + blank + " \n");
}

} // namespace
