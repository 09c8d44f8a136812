#include "diag/log.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "platform/android_log.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

std::string dumped(uint32_t mask, size_t count)
{
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0xF0});
    CaptureStderr();
    odl_log_debug_print_packet(mask, bytes);
    return GetCapturedStderr();
}

std::string encoded(std::string_view text, uint32_t room)
{
    std::string out(room, '?');
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const int32_t length = odl_base64_encode({bytes, text.size()}, out.data(), room);
    return length < 0 ? "refused" : out.substr(0, static_cast<size_t>(length));
}

std::string decoded(std::string_view text, uint32_t room)
{
    std::vector<uint8_t> out(room + 1, 0xAA);
    const int32_t length = odl_base64_decode({text.data(), text.size()}, out.data(), room);
    EXPECT_EQ(out[room], 0xAA) << "written behind the room: " << text;
    return length < 0 ? "refused" : std::string(out.begin(), out.begin() + length);
}

TEST(TransportLog, DumpsSixteenBytesALineWhenItsMaskSaysSo)
{
    EXPECT_EQ(dumped(odl_trace_select, 17), "");
    odl_log_set_log_mask(odl_trace_select);
    const std::string line = "main D RIL_ODL: log.c:29 ";
    EXPECT_EQ(dumped(odl_trace_select, 17), line + "f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff\n" + line + "00\n");
    EXPECT_EQ(dumped(odl_trace_select, 1), line + "f0\n");
    EXPECT_EQ(dumped(odl_trace_select, 0), "");
    EXPECT_EQ(dumped(odl_trace_packets, 17), "");
    odl_log_set_log_mask(0);
}

TEST(Base64, EncodesIntoTheRoomItHas)
{
    EXPECT_EQ(encoded("Man", 4), "TWFu");
    EXPECT_EQ(encoded("Ma", 4), "TWE=");
    EXPECT_EQ(encoded("M", 4), "TQ==");
    EXPECT_EQ(encoded("", 0), "");
    EXPECT_EQ(encoded("Many", 8), "TWFueQ==");
    EXPECT_EQ(encoded("Many", 7), "refused");
    EXPECT_EQ(encoded("\xFB\xFF\xFE", 4), "+//+");
}

// A roomy buffer is refused, a tight one is tried; none is overrun.
TEST(Base64, DecodesWithItsOddSizeTest)
{
    odl_base64_init();
    odl_base64_init();
    EXPECT_EQ(decoded("TWFu", 3), "Man");
    EXPECT_EQ(decoded("TWFu", 4), "refused");
    EXPECT_EQ(decoded("TWFu", 2), "refused");
    EXPECT_EQ(decoded("TWE=", 3), "Ma");
    EXPECT_EQ(decoded("TWE=", 2), "Ma");
    EXPECT_EQ(decoded("TQ==", 1), "M");
    EXPECT_EQ(decoded("TWFueQ==", 6), "Many");
    EXPECT_EQ(decoded("TWF", 2), "refused");
    EXPECT_EQ(decoded("", 0), "");
    EXPECT_EQ(decoded("+//+", 3), "\xFB\xFF\xFE");
    EXPECT_EQ(decoded("\xFF\x80*!", 3), std::string(3, '\0')) << "no character is refused";
}

TEST(AppletLog, CopiesToTheConsoleOnlyWhenAsked)
{
    for (const bool on : {false, true}) {
        tessel_stdout_on_off(on ? 1 : 0);
        CaptureStderr();
        CaptureStdout();
        log_error("Unable to open device %s. %s", "/dev/x", "No such file or directory");
        log_warning("w %d", 1);
        log_info("two\nlines\n");
        log_debug("d");
        EXPECT_EQ(GetCapturedStderr(),
                  "radio E RIL_TESSEL: Unable to open device /dev/x. No such file or directory\n"
                  "radio W RIL_TESSEL: w 1\nradio I RIL_TESSEL: two lines\nradio D RIL_TESSEL: d\n");
        EXPECT_EQ(GetCapturedStdout(),
                  on ? "ERROR:#Unable to open device /dev/x. No such file or directory#\nWARNING:#w 1#\n"
                       "INFO:#two\nlines\n#\nDEBUG:#d#\n"
                     : "");
    }
    tessel_stdout_on_off(0);
}

TEST(AppletLog, LeavesErrnoAndKeepsHostileTextOnItsLine)
{
    CaptureStderr();
    errno = ENOSPC;
    log_error("%s", (std::string(5000, 'x') + "\x1B[2J\r\n").c_str());
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(GetCapturedStderr(), "radio E RIL_TESSEL: " + std::string(5000, 'x') + " [2J\n");
}

} // namespace
