// Modem power: the mdmctrl applet, and the power functions that other applets share.
//
// The board's power driver takes one byte at a time in two files: power for the modem itself, usben for its USB link.
// On the way up power comes first, on the way down the link goes first. All functions block, a power-on up to a minute,
// and run on the main thread.
#pragma once

#include "app/applet.h"

// Results of the power functions besides 0.
enum MdmStatus : int32_t {
    MDM_FAILED = 1,
    MDM_USAGE = 2,
    MDM_NOT_ENUMERATED = 25, // did not show up on USB in time
    MDM_NOT_NORMAL = 26,     // after a power-on: came up in another mode, or not at all
};

enum MdmMode : int32_t { MDM_MODE_UNKNOWN = 0, MDM_MODE_NORMAL = 1, MDM_MODE_DLOAD = 2 };

// Entry of the applet table. Exit status: the command's result; 2 with the usage.
int32_t mdmctrl_main(int32_t argc, char** argv, const Applet* row);

// Runs the command argv[0], in any case of letters, with argv[1] as its argument. Its result; 1 when there is no such
// command or its argument is missing, without a message.
[[nodiscard]] int32_t execute_mdm_cmd(int32_t argc, char** argv);

// Prints the usage on standard output.
void mdmctrl_usage();

// The byte that stands for a control word (off, on, reset in any case of letters); null when there is none, with a
// WARNING unless `word` is null.
[[nodiscard]] const char* mdmctrl_get_write_buf(const char* word);

// Writes a control word's byte to a driver file. 0, or 1: the file cannot be opened or written (ERROR), the word is
// unknown (WARNING, usage).
[[nodiscard]] int32_t mdmctrl_write(const char* path, const char* word);

// mdmctrl_write for the modem's power and for its USB link, which is never reset, only switched on.
int32_t wan_control(const char* word);
int32_t usb_control(const char* word);

// Power, and where that worked the link. `word` as typed. 0 or 1, messages of mdmctrl_write.
[[nodiscard]] int32_t power_wan(const char* word);

// Wait up to 30 s for the DIAG port, or for the network interface. 0 or 25; they log nothing.
[[nodiscard]] int32_t check_modem_on();
[[nodiscard]] int32_t check_modem_rmnet0_on();

// The modem's mode by its USB ids and the class of its interface 0, both logged at INFO. Unknown when there is no modem
// on the bus or the class cannot be read (ERROR); an id that cannot be read counts as 0xFFFF (ERROR).
[[nodiscard]] MdmMode get_modem_mode();

// The modem's mode by its AT ports: normal when both are there, DLOAD when there is no first one, unknown when only the
// second is missing. For callers without root rights; logs nothing.
[[nodiscard]] MdmMode get_modem_mode_no_root();

// Power on, link on, and wait for the network interface, or for the DIAG port and normal mode; a modem that does not
// come up is reset once and waited for again, and reset once more before giving up. 0, or 25 and 26 with an ERROR.
[[nodiscard]] int32_t power_qmi_on();
[[nodiscard]] int32_t power_wan_on();

// Link off, power off. Always 0; a driver file that fails is logged (ERROR).
int32_t power_wan_off();

// Reset, link on, wait for the DIAG port, then look at the mode. 0, or 1 (with an ERROR when the mode is not normal).
[[nodiscard]] int32_t power_wan_reset();

// Off, reset of the USB host controller where the board has one, power_wan_on. Its result, or 1 when the controller
// cannot be reset.
[[nodiscard]] int32_t power_wan_reset2();

// power_wan_reset, then wait for the network interface. 0, 1 or 25. No command of mdmctrl leads here.
[[nodiscard]] int32_t power_wan_recover();

// Resets the EHCI host controller through the power driver. 0, also without the driver's device and when the driver
// refuses (ERROR); 1 when the device cannot be opened (ERROR).
[[nodiscard]] int32_t ehci_reset();

// Takes the XHCI host controller from its driver and gives it back. Failures are not looked at.
void xhci_reload();

// Logs what board this is. Always 0.
int32_t fetch_board_id();
