// The kernel modules that the modem needs on this tablet: the USB serial stack, the modem's network driver and the
// board's power driver.
//
// Which of them are loaded is known to this process only: nothing at its start, the truth after check_loaded_modules.
// The loaders of a single table do not ask first, so in a fresh process they try every module, and one that the kernel
// has already fails them. Main thread.
#pragma once

#include <cstdint>
#include <span>

// 1 when the module directory holds a file of this name, else 0.
[[nodiscard]] int32_t is_kernel_module(const char* file_name);

// Learns from /proc/modules what is loaded. 0, or 1 with an ERROR when that cannot be opened or read.
[[nodiscard]] int32_t check_loaded_modules();

// Runs insmod on a file of the module directory. Raw status of system(); logs nothing.
[[nodiscard]] int32_t load_module(const char* file_name);

// Runs rmmod. Raw status of system(); logs nothing.
int32_t unload_module(const char* module_name);

// Load what is not loaded yet and has a file, in order. 0, or the code of the first insmod that failed; the modules
// behind that one are not tried, those before it stay. Codes: USB 20, 21, 22, 19 in the order of loading, network 27,
// power driver 18. They log nothing.
[[nodiscard]] int32_t load_usb_modules();
[[nodiscard]] int32_t load_qmi_modules();
[[nodiscard]] int32_t load_wan_module();

// All three, then gives the power files to the radio user. 0, 1 when /proc/modules cannot be read (ERROR), or the
// first code of the above.
[[nodiscard]] int32_t load_all_modules();

// Unloads what is loaded, or everything when /proc/modules cannot be read (ERROR), in the exact reverse order.
// Always 0; failures of rmmod are not looked at.
int32_t unload_all_modules();

// Loads `names` in order: a name with a "/" is a path, any other stands in the module directory; ".ko" is appended
// where the command has no "." yet. Prints each command and its raw status. 0, or 1 when one failed or its command was
// refused as too long; the rest is tried in any case.
[[nodiscard]] int32_t load_modules(std::span<char* const> names);
