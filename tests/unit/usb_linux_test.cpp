// USB nodes that are plain files, and behind them a device that answers as a case lets it.
#include "platform/usb_linux.h"

#include "app/product.h"

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <vector>

using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

std::string s_string;         // the device's string descriptor
unsigned s_claimed = 0;       // interface asked for
int s_claim_result = 0;       //
std::vector<int> s_transfers; // what the bulk transfers return, the next one last

// A device in fastboot mode.
const std::string head = "\x12\1\0\2\1\2\3\x40\xD1\x18\x0D\xD0\0\1\0\0\0\1\x09\2\0\0\1\1\0\x80\xFA"s;
const std::string bulk = "\7\5\x81\2\0\2\0\7\5\2\2\0\2\0"s, interrupt = "\7\5\x83\3\x08\0\1"s;
const std::string fastboot = head + "\x09\4\7\0\2\xFF\x42\3\0"s + bulk;
constexpr size_t vendor_at = 8, serial_at = 16, count_at = 22, endpoints_at = 31, protocol_at = 34;

std::string with(std::string descriptors, size_t at, const std::string& bytes)
{
    return descriptors.replace(at, bytes.size(), bytes);
}

int32_t filter(const std::string& descriptors, const UsbMatcher& matcher)
{
    uint8_t in = 0, out = 0, number = 0;
    const std::vector<uint8_t> exact(descriptors.begin(), descriptors.end()); // no byte behind it
    return filter_usb_device(-1, exact, true, matcher, in, out, number);
}

struct UsbNodes : ::testing::Test {
    void SetUp() override { fs::permissions(mkdtemp(base.data()), fs::perms{0755}); }
    void TearDown() override { fs::remove_all(base); }
    void add(const std::string& node, const std::string& descriptors) const
    {
        fs::create_directories(fs::path(base + node).parent_path());
        std::ofstream(base + node, std::ios::binary) << descriptors;
    }
    std::string listed(const UsbMatcher& matcher) const
    {
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(find_usb_device(base, matcher), nullptr);
        return ::testing::internal::GetCapturedStdout();
    }
    std::string base = fs::temp_directory_path() / "usb_test-XXXXXX";
};

} // namespace

// Stands in for the C library's: USB requests are answered here, others go where they belong.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == USBDEVFS_CONTROL)
        return static_cast<int>(
            s_string.copy(static_cast<char*>(static_cast<usbdevfs_ctrltransfer*>(argument)->data), 256));
    if (request == USBDEVFS_CLAIMINTERFACE) {
        s_claimed = *static_cast<unsigned*>(argument);
        return s_claim_result;
    }
    if (request != USBDEVFS_BULK)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    const int moved = s_transfers.back();
    EXPECT_LE(moved, static_cast<int>(static_cast<usbdevfs_bulktransfer*>(argument)->len));
    s_transfers.pop_back();
    return moved;
}

TEST_F(UsbNodes, NoDescriptorCutOrSpoiltIsMatched)
{
    const std::string ours{static_cast<char>(TABLET_USB_VID & 0xFF), static_cast<char>(TABLET_USB_VID >> 8)};
    for (const std::string& vendor : {"\xD1\x18"s, "\x51\4"s, "\xC6\5"s, ours, "\x18\xD1"s})
        for (const std::string& protocol : {"\0"s, "\1"s, "\2"s, "\3"s}) {
            const std::string one = with(with(fastboot, vendor_at, vendor), protocol_at, protocol);
            EXPECT_EQ(filter(one, match_fastboot), vendor != "\x18\xD1" && protocol == "\3" ? 0 : -1) << vendor;
            EXPECT_EQ(filter(one, match_adb), vendor != "\x18\xD1" && protocol == "\1" ? 0 : -1) << vendor;
        }
    for (size_t cut = 0; cut < fastboot.size(); ++cut)
        EXPECT_EQ(filter(fastboot.substr(0, cut), match_fastboot), -1) << cut;
    for (const size_t at : {0U, 1U, 18U, 19U, 27U, 28U, 32U, 33U, 36U, 37U, 43U, 44U}) // lengths, types, classes
        for (const std::string& byte : {"\0"s, "\3"s, "\6"s, "\x24"s, "\xFE"s})
            EXPECT_EQ(filter(with(fastboot, at, byte), match_fastboot), -1) << at << ' ' << byte;
    const std::string promising = with(with(fastboot, count_at, "\xFF"), endpoints_at, "\xFF");
    EXPECT_EQ(filter(promising, match_fastboot), -1);
}

TEST_F(UsbNodes, TheSelectedInterfaceIsClaimedAndMovesData)
{
    s_string = "\x0A\3A\0\xE9\1Z\0\x41\x26"s;
    const std::string other = "\x09\4\4\0\1\xFF\x42\1\0"s + interrupt;
    add("/002/010", with(with(head, count_at, "\2"), serial_at, "\3") + other + fastboot.substr(head.size()));
    const auto matcher = [](const UsbInterfaceInfo* info) {
        EXPECT_EQ(info->has_bulk_in + info->has_bulk_out, info->interface_protocol == 3 ? 2 : 0);
        EXPECT_EQ(info->serial_number, "A\xE9ZA");
        return match_fastboot(info);
    };
    const auto handle = find_usb_device(base, matcher);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(s_claimed, 7U);
    EXPECT_TRUE(handle->path == base + "/002/010" && handle->endpoint_in == 0x81 && handle->endpoint_out == 2);
    s_claim_result = -1;
    EXPECT_EQ(find_usb_device(base, matcher), nullptr);

    std::vector<uint8_t> data(10000);
    s_transfers = {7, -1, 0, 4096, 4095, 4096, 1808, 4096, 4096};
    EXPECT_EQ(usb_write(*handle, data), 10000);
    EXPECT_EQ(usb_write(*handle, data), -1);
    EXPECT_EQ(usb_read(*handle, data), 4096);
    EXPECT_EQ(usb_read(*handle, data), 7); // tried again
    EXPECT_TRUE(s_transfers.empty());
}

TEST_F(UsbNodes, EveryDeviceOfAKindIsListed)
{
    add("/001/001", fastboot);
    add("/001/002", with(with(fastboot, protocol_at, "\1"), vendor_at, "\xC6\5"));
    add("/002/003", with(fastboot, serial_at, "\3"));
    for (const std::string node : {"/001/x", "/001/1a", "/003/-4", "/usb/001", "/2.0/001"})
        add(node, fastboot);
    add("/004/" + std::string(64 - base.size() - 5, '1'), fastboot); // a path too long
    ASSERT_EQ(mkfifo((base + "/001/003").c_str(), 0600), 0);
    s_string = "\x0C\3S\0\n\0001\0\0\0x\0"s;
    EXPECT_EQ(listed(list_devices_callback), "????????????\tfastboot\nS 1\tfastboot\n");
    EXPECT_EQ(listed(list_adb_devices_callback), "????????????\tdevice\n");

    fs::permissions(base + "/001/001", fs::perms{0444});
    const uid_t user = geteuid();
    (void)!seteuid(65534); // root may write anything
    EXPECT_TRUE(listed(list_devices_callback).starts_with("no permissions\tfastboot\n"));
    ASSERT_EQ(seteuid(user), 0);
}
