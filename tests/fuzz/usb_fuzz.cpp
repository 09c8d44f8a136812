// Descriptors of USB devices, offered to every kind of matcher.
#include "platform/usb_linux.h"
#include "tests/fuzz/harness.h"

namespace {

void select(std::span<const uint8_t> descriptors, bool writable, size_t selected)
{
    constexpr uint8_t untouched = 0xA5, direction_in = 0x80;
    uint8_t in = untouched, out = untouched, number = untouched;
    size_t offered = 0;
    UsbInterfaceInfo last;
    const auto pick = [&](const UsbInterfaceInfo* info) {
        require(info->writable == (writable ? 1 : 0) && info->serial_number.size() <= 255, "a device is described");
        require(match_fastboot(info) != 0 || match_adb(info) != 0, "nothing is of both kinds");
        last = *info;
        return offered++ == selected ? 0 : -1;
    };
    const int32_t result = filter_usb_device(-1, descriptors, writable, pick, in, out, number);
    require(offered * 9 <= descriptors.size(), "an interface has its descriptor");
    require((result == 0) == (offered == selected + 1), "what was selected is the result");
    if (result != 0)
        return require(in == untouched && out == untouched && number == untouched, "a failure leaves outputs alone");
    require((in != 0) == (last.has_bulk_in != 0) && (out != 0) == (last.has_bulk_out != 0), "endpoints are told");
    require((in == 0 || (in & direction_in) != 0) && (out & direction_in) == 0, "endpoints have their direction");
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t what = input.u8();
    const Bytes descriptors = input.rest();
    select(descriptors, (what & 1) != 0, what >> 1);
    for (const auto kind : {list_devices_callback, list_adb_devices_callback}) {
        uint8_t in = 0, out = 0, number = 0;
        require(filter_usb_device(-1, descriptors, (what & 1) != 0, kind, in, out, number) == -1,
                "a list selects none");
    }
}
