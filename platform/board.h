// Which tablet this is, and what its modem shows on the USB bus: read from /proc and sysfs.
//
// All functions run on the main thread, one at a time: the product description stands in one static buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Room for a board id: 16 characters and a terminator. Characters 0-2 are the type code, 3-4 the revision, 5-6 the
// variant.
constexpr size_t board_id_size = 17;

// The types that get_device_type tells apart. 0, 1 and 2 are older boards, whose ids it does not know.
enum DeviceType : int32_t { DEVICE_UNKNOWN = -1, DEVICE_OSPREY = 3, DEVICE_PIPIT = 4, DEVICE_QUAIL = 5 };

// Reads the board id into `buf`, at least `board_id_size` bytes. At most 16 bytes are written and no terminator, so the
// caller clears the buffer before. 0, or -1 with an ERROR: the buffer is too small, there is no board id file, it
// cannot be opened, it is empty.
[[nodiscard]] int32_t read_board_id(std::span<char> buf);

// The product's name, cut at 62 characters, and, when there is one, a blank and as much of its second line as makes 62
// in all; line feeds are kept. Valid until the next call. Null when the product has no name; logs nothing.
[[nodiscard]] const char* get_device_desc();

// Whether the unit is without cellular hardware: 1 or 0. Logs nothing.
[[nodiscard]] int32_t is_wifi_only();

// Logs the name of a device type at INFO; any number.
void show_device_type(int32_t type);

// The device type that a board id means: 3, 4, 5 or -1. `id` is at least 4 characters, else -1. Logs nothing.
[[nodiscard]] int32_t get_device_type(std::span<const char> id);

// The device type of this tablet; -1 also when the board id cannot be read, with that ERROR.
[[nodiscard]] int32_t get_device_type2();

// Reads the board id into `buf` (as read_board_id, cleared before) and logs what is known of the board. 0 when the
// product has a name, else the device type, -1 with a WARNING when that is unknown or with an ERROR when there is no
// board id.
[[nodiscard]] int32_t get_board_id(std::span<char> buf);

// Major version of the kernel, logged at DEBUG; -1 when it cannot be read (ERROR) or is not there.
[[nodiscard]] int32_t get_os_version();

// Vendor and product id of the modem on the USB bus. 0, or -1 with the outputs untouched when there is no modem. An id
// that cannot be read is 0xFFFF, with an ERROR.
[[nodiscard]] int32_t get_usb_vidpid(uint16_t& vid, uint16_t& pid);

// Class, subclass and protocol of the modem's interface 0. 0, or -1: there is no modem, or one of them cannot be read
// (ERROR); outputs behind that one are untouched.
[[nodiscard]] int32_t get_usb_classes(uint8_t& device_class, uint8_t& subclass, uint8_t& protocol);
