// The modem's Linux images, which the external fastboot tool writes while the modem is in its boot loader; the way
// there, and the tablet's radio daemon, which must not hold the modem's ports meanwhile.
//
// Everything runs on the main thread and blocks. A failing external tool is logged and does not end the work: what
// went wrong shows in its own output.
#pragma once

#include "platform/usb_linux.h"

#include <cstdint>
#include <string>

// Stops the radio daemon, which would hold the modem's ports, and gives it 10 seconds to let go of them.
void StopRilDaemon();

// Starts the radio daemon again, in the background.
void StartRilDaemon();

constexpr int32_t wait_timed_out = 71;

// Looks `tries` times, once a second, until exactly one device of a kind is on the bus. 0; 1 at once when there are
// more (WARNING), wait_timed_out with a WARNING.
[[nodiscard]] int32_t wait_for_device_ready(UsbDeviceKind kind, int32_t tries);

// Bring the modem into fastboot mode, by a DIAG request over the port `port` or by adb. 1 when it is there, else 0 with
// an ERROR or WARNING. After an overriding flash it goes there by itself and is only waited for.
[[nodiscard]] int32_t Switch2FastbootMode(const std::string& port);
[[nodiscard]] int32_t Switch2FastbootModeByADB();

// Tries the one, then the other. Always 1.
int32_t EnterFastbootMode(const std::string& port);

// Whether /data has room, and a place, for the copy that each Linux image of the package is flashed from; else an
// ERROR, with the bytes that the largest one needs.
[[nodiscard]] bool has_room_for_linux_images();

// Erases a partition by fastboot. WARNING when that fails.
void erase_partition(const char* partition);

// Writes the Linux images that the firmware has (WARNING for each it has not, ERROR for each that fails), erases EFS2
// where that was asked for and is needed, and resets the modem. With `check` the modem may not be in fastboot mode yet:
// it is sent there by adb, or waited for. 0; 1 when adb fails, or the result of the wait (ERROR).
int32_t UpdateLinuxImages(int32_t check);

// Erases every partition by fastboot, boot code included, and reboots the modem, which then comes up in the boot ROM's
// DLOAD mode. Always 0.
[[nodiscard]] int32_t EraseAllPartitions(const std::string& port);
