// A command line on a tablet of its own, with all that it says and does there: one row of a table of cases.
#pragma once

#include "tests/e2e/tablet_fixture.h"

#include <ostream>

struct Scenario {
    std::string name;
    std::string modem;   // its state and options
    std::string command; // may begin with what happens before
    int status = 0;
    Texts records; // of the log, "I text" each; a command with "mdmctrl -o" shows them on standard output, too
    Texts actions;
    std::string out = {}; // standard output, but for those
};

inline void PrintTo(const Scenario& scenario, std::ostream* out)
{
    *out << scenario.command;
}

class OnAFreshTablet : public OnPoweredTablet, public ::testing::WithParamInterface<Scenario> {
protected:
    void play()
    {
        const Scenario& scenario = GetParam();
        modem(scenario.modem);
        const auto r = run(scenario.command);
        Texts records = scenario.records;
        std::string console;
        if (scenario.command.find("mdmctrl -o") != std::string::npos) {
            records.insert(records.begin(), "D stdout ON");
            for (const std::string& record : records)
                console += level(record.front()) + ":#" + record.substr(2) + "#\n";
        }
        EXPECT_EQ(r.status, scenario.status);
        EXPECT_EQ(r.records(), records);
        EXPECT_EQ(r.out, console + scenario.out);
        EXPECT_EQ(actions(), scenario.actions);
    }

private:
    static std::string level(char letter)
    {
        return letter == 'E' ? "ERROR" : letter == 'W' ? "WARNING" : letter == 'I' ? "INFO" : "DEBUG";
    }
};

inline Texts operator+(Texts texts, const Texts& more)
{
    texts.insert(texts.end(), more.begin(), more.end());
    return texts;
}

// What the journal says of a module that is loaded or unloaded.
inline std::string insmod(const std::string& file, int status = 0)
{
    return "ran insmod /system/lib/modules/" + file + ".ko: " + std::to_string(status);
}

inline std::string rmmod(const std::string& module, int status = 0)
{
    return "ran rmmod " + module + ": " + std::to_string(status);
}

// All six, and the power files handed over.
const Texts hand_over = {"ran chown radio.radio /sys/wan/power /sys/wan/usben: 0",
                         "ran chmod 660 /sys/wan/power /sys/wan/usben: 0"};
const Texts load_all = Texts{insmod("usbserial"), insmod("usb_wwan"),  insmod("ehci-hcd"),
                             insmod("option"),    insmod("rmnet_usb"), insmod("bwan")} +
                       hand_over;
const Texts unload_all = {rmmod("bwan"),     rmmod("rmnet_usb"), rmmod("option"),
                          rmmod("ehci_hcd"), rmmod("usb_wwan"),  rmmod("usbserial")};

// What the power functions do, and what they say.
const std::string modem_power = "write /sys/wan/power ";
const std::string usb_link = "write /sys/wan/usben ";
const Texts on = {modem_power + "1", usb_link + "1"};
const Texts off = {usb_link + "0", modem_power + "0"};
const std::string reset = modem_power + "2";

const std::string failed_once = "W wanon failed, resetting";
const Texts ready = {"I power_wan_on", "I modem: READY"};
const Texts not_ready = {"I power_wan_on", failed_once, failed_once, "E modem: DLOAD or UNKNOWN mode"};
const Texts unreadable = {"E File open failed: No such file or directory"};

inline std::string no_file(const std::string& path)
{
    return "E Unable to open file " + path + " (No such file or directory)";
}
