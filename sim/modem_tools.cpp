#include "modem_tools.h"

namespace sim {

namespace {

constexpr const char* serial_number = "0000000001";
constexpr std::string_view file_system = "EFS2";

ToolOutcome fail(const std::string& why)
{
    return {1, why + "\n"};
}

ToolOutcome flash(const std::string& partition, const Fd& file, const FlashStore& store, const Journal& journal)
{
    if (store.find(partition) == nullptr)
        return fail("fastboot: unknown partition '" + partition + "'");
    if (file.get() < 0)
        return fail("fastboot: cannot load the image to flash");
    journal.note("flash " + partition + " " + std::to_string(store.copy(partition, file)) + " bytes");
    return {};
}

ToolOutcome erase(const std::string& partition, Modem& modem, const Journal& journal)
{
    if (partition == file_system)
        modem.erase_files();
    else if (modem.flash().find(partition) != nullptr)
        modem.flash().erase(partition);
    else
        return fail("fastboot: unknown partition '" + partition + "'");
    journal.note("flash erase " + partition);
    return {};
}

} // namespace

ToolOutcome play_fastboot(std::span<const std::string> arguments, const Fd& file, Modem& modem, const Journal& journal)
{
    const std::string word = arguments.empty() ? "" : arguments.front();
    const size_t count = arguments.size();
    const bool listens = modem.in_fastboot();
    if (word == "devices" && count == 1)
        return {0, listens ? std::string(serial_number) + "\tfastboot\n" : ""};
    const bool flashes = word == "flash" && count == 3, erases = word == "erase" && count == 2;
    if (!flashes && !erases && !(word == "reboot" && count == 1))
        return fail("usage: fastboot devices | flash PARTITION FILE | erase PARTITION | reboot");
    // The real one would wait for a device, without end.
    if (!listens)
        return fail("fastboot: no device in fastboot mode");
    if (flashes)
        return flash(arguments[1], file, modem.flash(), journal);
    if (erases)
        return erase(arguments[1], modem, journal);
    modem.restart(Mode::normal);
    return {};
}

ToolOutcome play_adb(std::span<const std::string> arguments, Modem& modem)
{
    const std::string word = arguments.empty() ? "" : arguments.front();
    if (word == "kill-server" && arguments.size() == 1)
        return {};
    const bool listens = modem.has_adb();
    if (word == "devices" && arguments.size() == 1)
        return {0, "List of devices attached\n" + (listens ? std::string(serial_number) + "\tdevice\n" : "") + "\n"};
    if (word != "shell" || arguments.size() < 2)
        return fail("usage: adb devices | kill-server | shell sys_reboot bootloader");
    if (!listens)
        return fail("error: no devices found");
    if (arguments.size() != 3 || arguments[1] != "sys_reboot" || arguments[2] != "bootloader")
        return fail("adb: all that the modem's shell knows is sys_reboot bootloader");
    modem.restart(Mode::fastboot);
    return {};
}

} // namespace sim
