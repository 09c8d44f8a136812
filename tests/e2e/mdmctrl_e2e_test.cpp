// Modem power, kernel modules and board identity through the mdmctrl applet.
#include "app/product.h"
#include "tests/e2e/scenario.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <optional>

namespace fs = std::filesystem;
using namespace std::literals;

namespace {

const std::string tool = "tessel mdmctrl -o ";
const std::string mdmctrl_usage =
    "\nmdmctrl version: 2.1\n\nUsage: mdmctrl [-o] <cmd>\n       -o : Output to console\n"
    "       -h : Display this usage\n       <cmd>:\n\tqmion\n\twanon\n\twanoff\n\twanontph\n\twanreset\n\twanrecover\n"
    "\tpower \t[on][off][reset]\n\tloadall\n\tunloadall\n\tloadusb\n\tloadwan\n\tloadqmi\n\tboard_id\n\tehci_reset\n"
    "\twanreset2\n";

const Texts reset_and_link = {reset, usb_link + "1"};
const Texts host_reset = {"ioctl /dev/bwan AA01 0"};
const Texts host_reload = {"write /sys/bus/platform/drivers/msm-dwc3/unbind f9400000.ssusb",
                           "write /sys/bus/platform/drivers/msm-dwc3/bind f9400000.ssusb"};

const Texts ready_after_reset = {"I power_wan_on", failed_once, "I modem: READY"};
const Texts cycled = {"I power_wan_reset2", "I power_wan_off"};
const Texts ehci = {"I TESSEL: ehci_reset"};
const Texts not_supported = {"E TESSEL: ehci_reset: Not supported"};
const Texts invalid = {"E TESSEL: ehci_reset: Invalid command"};

const std::string dload = "E dload or unknown mode";

// The log of a reset after which the modem shows this product id.
Texts reset_shows(const std::string& product, const std::string& last)
{
    const std::string id = "D id=ff";
    return {"I power_wan_reset", id, id, id, "I USB vid/pid: 05c6/" + product, "I USB I/F0 classes: ff/ff/ff", last};
}

// Power files of another kind stand where the tablet has no drivers: what `power` and `link` name, or nothing.
std::string with_files(const std::string& power, const std::string& link, const std::string& command)
{
    return ": >plain; mkdir -p /sys/wan; ln -s " + power + " /sys/wan/power; ln -s " + link + " /sys/wan/usben; " +
           tool + command + "; status=$?; cat plain; exit $status";
}

// clang-format off
const Scenario power_scenarios[] = {
    {"WanonFromCold", "off", tool + "wanon", 0, ready, on},
    {"WanonWhenItIsUp", "normal", tool + "WANON", 0, ready, on},
    {"WanontphWhenItComesLate", "off --power-up 27000", tool + "WaNonTPH", 0, ready, on},
    {"WanonAfterDownloadMode", "off --boot crashed,normal", tool + "wanon", 0, ready_after_reset, on + Texts{reset}},
    {"WanonAfterSilence", "off --boot never,normal", tool + "wanon", 0, ready_after_reset, on + Texts{reset}},
    {"WanonInDownloadMode", "off --boot crashed", tool + "wanon", 26, not_ready, on + Texts{reset, reset}},
    {"WanonWithOneAtPort", "off --boot partial", tool + "wanon", 26, not_ready, on + Texts{reset, reset}},
    {"WanonWhenItComesTooLate", "off --power-up 33000", tool + "wanon", 26, not_ready, on + Texts{reset, reset}},
    {"QmionFromCold", "off", tool + "qmion", 0, {"I power_qmi_on"}, on},
    {"QmionAfterDownloadMode", "off --boot crashed,normal", tool + "qmion", 0,
     {"I power_qmi_on", "W qmion failed, resetting"}, on + Texts{reset}},
    {"QmionInVain", "off --boot crashed", tool + "qmion", 25,
     {"I power_qmi_on", "W qmion failed, resetting", "W qmion failed, resetting",
      "E Timeout waiting for modem to enumerate"}, on + Texts{reset, reset}},
    {"Wanoff", "normal", tool + "wanoff", 0, {"I power_wan_off"}, off},

    {"WanonWithoutPowerFiles", "normal --modules usbserial,usb_wwan,ehci_hcd,option", tool + "wanon", 0,
     {"I power_wan_on", no_file("/sys/wan/power"), no_file("/sys/wan/usben"), "I modem: READY"}, {}},
    {"WanoffWithoutPowerFiles", "normal --modules none", tool + "wanoff", 0,
     {"I power_wan_off", no_file("/sys/wan/usben"), no_file("/sys/wan/power")}, {}},
    {"PowerWithoutPowerFiles", "normal --modules none", tool + "power on", 1, {no_file("/sys/wan/power")}, {}},
    {"PowerRefused", "absent --wifi-only", with_files("/dev/full", "/data/plain", "power off"), 1,
     {"E Failed to write to /sys/wan/power (No space left on device)"}, {}},
    {"LinkRefused", "absent --wifi-only", with_files("/data/plain", "/dev/full", "power reset"), 1,
     {"E Failed to write to /sys/wan/usben (No space left on device)"}, {}, "2"},
    {"WanoffRefused", "absent --wifi-only", with_files("/data/plain", "/dev/full", "wanoff"), 0,
     {"I power_wan_off", "E Failed to write to /sys/wan/usben (No space left on device)"}, {}, "0"},

    {"Wanreset", "normal --power-up 200", tool + "wanreset", 0, reset_shows("9025", "I modem: READY"), reset_and_link},
    {"WanresetToDownloadMode", "normal --boot crashed", tool + "wanreset", 1, reset_shows("9008", dload), reset_and_link},
    {"WanresetInVain", "normal --boot never", tool + "wanreset", 1, {"I power_wan_reset"}, reset_and_link},
    {"WanresetOnTheSecondBus", "normal --usb-place 2-1", tool + "wanreset", 0, reset_shows("9025", "I modem: READY"), reset_and_link},
    {"WanresetOnTheOtherHost", "normal --usb-place 1-2", tool + "wanreset", 0, reset_shows("9025", "I modem: READY"), reset_and_link},
    {"WanresetOnNoBus", "normal --usb-place none", tool + "wanreset", 1, {"I power_wan_reset", dload}, reset_and_link},

    {"WanrecoverOsprey", "normal", tool + "wanrecover", 0, cycled + ehci + ready, off + host_reset + on},
    {"Wanreset2Pipit", "normal --board pipit", tool + "wanreset2", 0, cycled + ehci + ready, off + host_reset + on},
    {"WanrecoverQuail", "normal --board quail", tool + "wanrecover", 0, cycled + ready, off + host_reload + on},
    {"Wanreset2Other", "normal --board other", tool + "wanreset2", 0, cycled + ready, off + on},
    {"WanrecoverUnknown", "normal", "rm /proc/board_id; " + tool + "wanrecover", 0,
     cycled + Texts{"E read_board_id failed: unknown device!"} + ready, off + on},
    {"WanrecoverInVain", "normal --boot crashed", tool + "wanrecover", 26, cycled + ehci + not_ready,
     off + host_reset + on + Texts{reset, reset}},
    {"WanrecoverWithoutDevice", "normal --bwan missing", tool + "wanrecover", 0, cycled + ehci + ready, off + on},
    {"WanrecoverWithClosedDevice", "normal --bwan refused", tool + "wanrecover", 1, cycled + ehci + not_supported, off},
    {"WanrecoverWithFailingDevice", "normal --bwan failing", tool + "wanrecover", 0, cycled + ehci + invalid + ready,
     off + host_reset + on},
    {"EhciReset", "normal --board quail", tool + "ehci_reset", 0, ehci, host_reset},
    {"EhciResetWithoutDevice", "normal --bwan missing", tool + "ehci_reset", 0, ehci, {}},
    {"EhciResetWithClosedDevice", "normal --bwan refused", tool + "ehci_reset", 1, ehci + not_supported, {}},
    {"EhciResetWithFailingDevice", "normal --bwan failing", tool + "ehci_reset", 0, ehci + invalid, host_reset},
};

const Scenario module_scenarios[] = {
    {"LoadallFromCold", "off --modules none", tool + "loadall", 0, {}, load_all},
    {"LoadallWhenAllAreLoaded", "off", tool + "loadall", 0, {}, hand_over},
    {"LoadallTheRest", "off --modules usbserial,option", tool + "loadall", 0, {},
     Texts{insmod("usb_wwan"), insmod("ehci-hcd"), insmod("rmnet_usb"), insmod("bwan")} + hand_over},
    {"LoadallWhatHasAFile", "off --modules none --without ehci-hcd.ko --without rmnet_usb.ko --without bwan.ko",
     tool + "loadall", 0, {},
     {insmod("usbserial"), insmod("usb_wwan"), insmod("option"), "ran chown radio.radio /sys/wan/*: 0",
      "ran chmod 660 /sys/wan/*: 0"}},
    {"LoadallKeepsFromTheRadioUserWhatItCannotGive", "off --fail chown --fail chmod", tool + "loadall", 0, {},
     {"ran chown radio.radio /sys/wan/power /sys/wan/usben: 1", "ran chmod 660 /sys/wan/power /sys/wan/usben: 1"}},
    {"LoadallUnreadable", "off --modules none", "rm /proc/modules; " + tool + "loadall", 1, unreadable, {}},
    {"LoadallFromNoFile", "off", "rm /proc/modules; mkdir /proc/modules; " + tool + "loadall", 1,
     {"E File open failed: Is a directory"}, {}},
    {"LoadallFromAPipe", "off --modules none", "rm /proc/modules; mkfifo /proc/modules; " + tool + "loadall", 1,
     {"E File open failed: Invalid argument"}, {}},
    {"LoadallFromAListWithoutEnd", "off --modules none", "truncate -s 1T /proc/modules; " + tool + "loadall", 1,
     {"E File open failed: File too large"}, {}},
    {"BoardIdFromAPipe", "off", "rm /proc/board_id; mkfifo /proc/board_id; " + tool + "board_id", 0,
     {"E read_board_id failed: Invalid argument"}, {}},
    {"Loadusb", "off --modules none", tool + "loadusb", 0, {},
     {insmod("usbserial"), insmod("usb_wwan"), insmod("ehci-hcd"), insmod("option")}},
    {"Loadqmi", "off --modules none", tool + "loadqmi", 0, {}, {insmod("rmnet_usb")}},
    {"LoadqmiWithoutFile", "off --modules none --without rmnet_usb.ko", tool + "loadqmi", 0, {}, {}},
    {"Loadwan", "off --modules none", tool + "loadwan", 0, {}, {insmod("bwan")}},
    {"LoadwanWithoutFile", "off --without bwan.ko", tool + "loadwan", 0, {}, {}},
    // Those that load one table do not look at what is loaded.
    {"LoadusbAgain20", "off --modules usbserial", tool + "loadusb", 20, {}, {insmod("usbserial", 1)}},
    {"LoadusbAgain21", "off --modules usb_wwan", tool + "LoadUsb", 21, {}, {insmod("usbserial"), insmod("usb_wwan", 1)}},
    {"LoadusbAgain22", "off --modules ehci_hcd", tool + "LOADUSB", 22, {},
     {insmod("usbserial"), insmod("usb_wwan"), insmod("ehci-hcd", 1)}},
    {"LoadusbAgain19", "off --modules option", tool + "loadusb", 19, {},
     {insmod("usbserial"), insmod("usb_wwan"), insmod("ehci-hcd"), insmod("option", 1)}},
    {"LoadqmiAgain", "off", tool + "loadqmi", 27, {}, {insmod("rmnet_usb", 1)}},
    {"LoadwanAgain", "off", tool + "loadwan", 18, {}, {insmod("bwan", 1)}},
    {"Unloadall", "normal", tool + "unloadall", 0, {}, unload_all},
    {"UnloadallWhatIsLoaded", "off --modules ehci_hcd,bwan", tool + "unloadall", 0, {}, {rmmod("bwan"), rmmod("ehci_hcd")}},
    {"UnloadallWhenOneStays", "normal --fail rmmod:option", tool + "unloadall", 0, {},
     {rmmod("bwan"), rmmod("rmnet_usb"), rmmod("option", 1), rmmod("ehci_hcd"), rmmod("usb_wwan", 1),
      rmmod("usbserial", 1)}},
    {"UnloadallUnreadable", "off --modules none", "rm /proc/modules; " + tool + "unloadall", 0, unreadable, unload_all},
};
// clang-format on

// Each insmod of a cold start fails once: what was loaded before stays, what would follow is not tried.
std::vector<Scenario> failing_loads()
{
    const std::pair<std::string, int> modules[] = {{"usbserial", 20}, {"usb_wwan", 21},  {"ehci-hcd", 22},
                                                   {"option", 19},    {"rmnet_usb", 27}, {"bwan", 18}};
    std::vector<Scenario> scenarios;
    Texts before;
    std::string loaded;
    for (const auto& [file, status] : modules) {
        const std::string options = "off --modules none --fail insmod:" + file + ".ko";
        const std::string command = tool + "loadall; status=$?; cut -d' ' -f1 /proc/modules; exit $status";
        const Texts actions = before + Texts{insmod(file, 1)};
        scenarios.push_back({"LoadallEnds" + std::to_string(status), options, command, status, {}, actions, loaded});
        before.push_back(insmod(file));
        loaded.insert(0, (file == "ehci-hcd" ? "ehci_hcd" : file) + "\n");
    }
    return scenarios;
}

class Mdmctrl : public OnAFreshTablet {};

const auto name_of = [](const auto& row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(Power, Mdmctrl, ::testing::ValuesIn(power_scenarios), name_of);
INSTANTIATE_TEST_SUITE_P(Modules, Mdmctrl, ::testing::ValuesIn(module_scenarios), name_of);
INSTANTIATE_TEST_SUITE_P(FailingModules, Mdmctrl, ::testing::ValuesIn(failing_loads()), name_of);

TEST_P(Mdmctrl, Does)
{
    play();
}

TEST_F(OnPoweredTablet, MdmctrlTakesItsFirstWordsOnly)
{
    const std::string echo = "DEBUG:#stdout ON#\n";
    const std::string unknown = "WARNING:#Invalid modem control command: ";
    const struct {
        std::string arguments;
        int status;
        std::string out;
        Texts actions;
    } rows[] = {
        {"", 2, mdmctrl_usage, {}},
        {"-h wanoff", 2, mdmctrl_usage, {}},
        {"-o", 2, echo + mdmctrl_usage, {}},
        {"-o -h", 1, echo, {}},
        {"-o -o wanoff", 1, echo, {}},
        {"wanoff -o -h", 0, "", off},
        {"-o WanOff x", 0, echo + "INFO:#power_wan_off#\n", off},
        {"-o devicewake", 1, echo, {}},
        {"-o DEVICESLEEP", 1, echo, {}},
        {"-o ''", 1, echo, {}},
        {"-o wanof", 1, echo, {}},
        {"-o wanoff2", 1, echo, {}},
        {"-o ' wanoff'", 1, echo, {}},
        {"-o power", 1, echo, {}},
        {"-o power warp", 1, echo + unknown + "warp#\n" + mdmctrl_usage, {}},
        {"-o power ''", 1, echo + unknown + "#\n" + mdmctrl_usage, {}},
        {"-o power o", 1, echo + unknown + "o#\n" + mdmctrl_usage, {}},
        {"-o power 'on '", 1, echo + unknown + "on #\n" + mdmctrl_usage, {}},
        {"-o power 'on 1'", 1, echo + unknown + "on 1#\n" + mdmctrl_usage, {}},
        {"power warp", 1, mdmctrl_usage, {}},
        {"-o POWER on", 0, echo, on},
        {"-o power RESET", 0, echo, reset_and_link},
        {"-o power Off on", 0, echo, {modem_power + "0", usb_link + "0"}},
    };
    modem("off");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments);
        const auto r = run("tessel mdmctrl " + row.arguments);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(actions(), row.actions);
    }
}

// The link is not switched before the power has settled, also of a modem that is up.
TEST_F(OnPoweredTablet, MdmctrlTakesASecondBetweenPowerAndLink)
{
    modem("normal --power-up 0");
    for (const std::string command : {"wanon", "qmion", "wanreset"}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(run("tessel mdmctrl " + command).status, 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s) << command;
    }
}

// What the kernel says in its files, and what it could not say.
class MdmctrlFiles : public OnPoweredTablet {
protected:
    // Puts a file there, or takes it away.
    void place(const std::string& path, const std::optional<std::string>& text) const
    {
        if (text)
            write_file(path, *text);
        else
            fs::remove(root() + path);
    }
};

// The DIAG port is a plain file here and the bus is the case's own, so every reset finds what the row puts there.
TEST_F(MdmctrlFiles, TellTheMode)
{
    std::array<char, 5> vendor{};
    (void)snprintf(vendor.data(), vendor.size(), "%04x", TABLET_USB_VID);
    const std::string maker = vendor.data();
    const std::string huge(1 << 20, 'a');
    const std::string id_failed = "E Read USB ID failed: ", class_failed = "E Read USB I/F ID failed: ";
    const std::string gone = "2 - No such file or directory", bad = "22 - Invalid argument";
    const std::optional<std::string> none;
    const struct {
        std::array<std::optional<std::string>, 5> texts; // of the files below; none: the file is missing
        int status;
        std::string ids, classes; // as shown; empty: it does not come to that
        Texts errors = {};
    } rows[] = {
        {{"05c6\n", "9025\n", "ff\n", "ff\n", "ff\n"}, 0, "05c6/9025", "ff/ff/ff"},
        {{"05c6\n", "9018\n", "ff\n", "ff\n", "ff\n"}, 0, "05c6/9018", "ff/ff/ff"},
        {{"05c6\n", "9008\n", "ff\n", "ff\n", "ff\n"}, 1, "05c6/9008", "ff/ff/ff"},
        {{"05c6\n", "9026\n", "ff\n", "ff\n", "ff\n"}, 1, "05c6/9026", "ff/ff/ff"},
        {{"05c7\n", "9025\n", "ff\n", "ff\n", "ff\n"}, 1, "05c7/9025", "ff/ff/ff"},
        {{"9025\n", "05c6\n", "ff\n", "ff\n", "ff\n"}, 1, "9025/05c6", "ff/ff/ff"},
        {{"05c6\n", "9025\n", "ff\n", "0b\n", "01\n"}, 0, "05c6/9025", "ff/0b/01"},
        {{maker, "9025\n", "ff\n", "0B\n", "1\n"}, 1, maker + "/9025", "ff/0b/01"},
        {{maker, "9025\n", "ff\n", "0b\n", "02\n"}, 0, maker + "/9025", "ff/0b/02"},
        {{maker, "9008\n", "ff\n", "ff\n", "ff\n"}, 0, maker + "/9008", "ff/ff/ff"},
        {{"5C6", " \t9025x\n", "ff", "f", "0\n1"}, 0, "05c6/9025", "ff/0f/00"},
        {{"05c67\n", "90257", "123", "ffff", "00ff"}, 0, "05c6/9025", "12/ff/00"},
        {{huge, huge, huge, huge, huge}, 1, "aaaa/aaaa", "aa/aa/aa"},
        {{none, "9025", "ff", "ff", "ff"}, 1, "ffff/9025", "ff/ff/ff", {id_failed + gone}},
        {{"05c6", none, "ff", "ff", "ff"}, 1, "05c6/ffff", "ff/ff/ff", {id_failed + gone}},
        {{"", " \n", "ff", "ff", "ff"}, 1, "ffff/ffff", "ff/ff/ff", {id_failed + bad, id_failed + bad}},
        {{"x05c6", "\0009025"s, "ff", "ff", "ff"}, 1, "ffff/ffff", "ff/ff/ff", {id_failed + bad, id_failed + bad}},
        {{"05c6", "\xff\xfe\x80\n", "ff", "ff", "ff"}, 1, "05c6/ffff", "ff/ff/ff", {id_failed + bad}},
        {{"05c6", "9025", none, "ff", "ff"}, 1, "", "", {class_failed + gone}},
        {{"05c6", "9025", "ff", "", "ff"}, 1, "", "", {class_failed + bad}},
        {{"05c6", "9025", "ff", "ff", "\xff\n"}, 1, "", "", {class_failed + bad}},
        {{none, none, none, none, none}, 1, "", "", {id_failed + gone, id_failed + gone, class_failed + gone}},
    };
    const std::string bus = "/sys/devices/msm_ehci_host/", interface = "1-1:1.0/";
    const std::array<std::string, 5> files = {"idVendor", "idProduct", interface + "bInterfaceClass",
                                              interface + "bInterfaceSubClass", interface + "bInterfaceProtocol"};
    modem("absent");
    write_file("/dev/ttyUSB0", "");
    write_file(bus + "usb2/2-1/idVendor", "05c6\n"); // another device further down the list is not looked at
    write_file(bus + "usb2/2-1/idProduct", "9008\n");
    fs::create_directories(root() + bus + "usb1/1-1/" + interface);
    for (const auto& row : rows) {
        for (size_t i = 0; i < files.size(); ++i)
            place(bus + "usb1/1-1/" + files[i], row.texts[i]);
        const auto r = run(tool + "wanreset");
        Texts records = r.records();
        std::erase_if(records, [](const std::string& text) { return text.starts_with("D "); });
        Texts expected = Texts{"I power_wan_reset"} + row.errors;
        if (!row.ids.empty())
            expected = expected + Texts{"I USB vid/pid: " + row.ids, "I USB I/F0 classes: " + row.classes};
        expected.push_back(row.status == 0 ? "I modem: READY" : dload);
        EXPECT_EQ(r.status, row.status) << row.ids << " " << row.classes;
        EXPECT_EQ(records, expected);
    }
}

// What the list of loaded modules says, whatever else is in it: shown by what is unloaded.
TEST_F(MdmctrlFiles, TellTheLoadedModules)
{
    const std::string big(1 << 20, 'x');
    std::string binary;
    for (int i = 255; i >= 0; --i)
        binary += static_cast<char>(i);
    const struct {
        std::string list, unloaded;
    } rows[] = {
        {"", ""},
        {"\n\n \n", ""},
        {"bwan 8652 0 - Live 0x00000000", "bwan "},
        {"option\nbwan", "bwan option "},
        {" \toption\t1\r\nusb_wwan\r\n", "option usb_wwan "},
        {"bwan 1 0\nbwan 1 0\n", "bwan "},
        {"Bwan 1\nbwan2 1\nbwa 1\nehci-hcd 1\nx bwan\noption,usbserial 1\nrmnet_usb.ko 1\n", ""},
        {binary + "\nusbserial 1\n\0option 1\n"s + binary, "usbserial "},
        {std::string(126, 'x') + "bwan 1\n" + std::string(127, ' ') + "option 1\n", ""},
        {std::string(126, 'x') + "\nbwan 1\n" + std::string(127, 'x') + "\noption 1\n", "bwan option "},
        {big + "bwan 1\nehci_hcd 1\n", "ehci_hcd "},
        {big + " \n" + big + "\nehci_hcd", "ehci_hcd "},
    };
    modem("off");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list.substr(0, 200));
        write_file("/proc/modules", row.list);
        EXPECT_EQ(run(tool + "unloadall").status, 0);
        std::string unloaded; // or tried to: whether it worked is the kernel's affair
        for (const std::string& action : actions())
            unloaded += action.substr(0, action.rfind(':')).substr(std::string("ran rmmod ").size()) + " ";
        EXPECT_EQ(unloaded, row.unloaded);
    }
}

TEST_F(MdmctrlFiles, TellTheBoard)
{
    const auto type = [](const std::string& name) { return "INFO:#Device type: " + name + "#\n"; };
    const auto unknown = [](const std::string& id) { return "WARNING:#Unknown device: " + id + "#\n"; };
    const auto product = [](const std::string& name, const std::string& code, const std::string& revision) {
        return "INFO:#" + name + ":#\nINFO:#\tType code: " + code + "#\nINFO:#\tRevision : " + revision + " #\n";
    };
    const auto variant = [](const std::string& two) { return "INFO:#\tVariant  : " + two + " #\n"; };
    const auto falcon = [&](const std::string& name) { return product(name, "0c1", "23") + variant("45"); };
    const std::string unreadable_id = "ERROR:#failed to read#\n";
    const std::string osprey = "0c12345678901234", a60(60, 'a');
    const std::optional<std::string> none;
    const struct {
        std::optional<std::string> vpd_id, id, name, extra;
        std::string out;
    } rows[] = {
        {none, osprey + "\n", none, none, type("OSPREY")},
        {none, "0d", none, none, type("PIPIT")},
        {none, "0010 and so on", none, "not without a name", type("QUAIL")},
        {none, "0b01020300000001\n", none, none, unknown("0b01020300000001")},
        {none, "1c01020300000001\n", none, none, unknown("1c01020300000001")},
        {none, "0b\nERROR:#x#", none, none, unknown("0b\nERROR:#x#")}, // its line feed stays on the console
        {none, "001", none, none, unknown("001")},
        {none, "\0c12"s, none, none, unknown("")},
        {none, "\xff\xfe\x80", none, none, unknown("\xff\xfe\x80")},
        {none, std::string(1 << 20, '0'), none, none, unknown(std::string(16, '0'))},
        {"0010", osprey, none, none, type("QUAIL")},
        {"", osprey, "Falcon", none, unreadable_id},
        {none, "", none, none, unreadable_id},
        {none, none, "Falcon", none, "ERROR:#read_board_id failed: unknown device!#\n"},

        {none, osprey, "Falcon\n", none, falcon("Falcon\n")},
        {none, osprey, "Falcon\nnot this\n", "Second\nnot this\n", falcon("Falcon\n Second\n")},
        {none, osprey, "Falcon", "Second", falcon("Falcon Second")},
        {none, osprey, "Falcon", "", falcon("Falcon ")},
        {none, osprey, "", none, falcon("")},
        {none, osprey, "", "Second", falcon(" Second")},
        {none, osprey, "%s%n", "%n", falcon("%s%n %n")},
        {none, osprey, std::string(1 << 20, 'a'), none, falcon(a60 + "aa")},
        {none, osprey, a60 + "aabc", "Second", falcon(a60 + "aa ")},
        {none, osprey, a60 + "\n", "Second", falcon(a60 + "\n ")},
        {none, osprey, a60, "Second", falcon(a60 + " S")},
        {none, osprey, "Falcon", std::string(1 << 20, 'b'), falcon("Falcon " + std::string(55, 'b'))},
        {none, "1b", "Falcon", none, product("Falcon", "1b ", "  ") + variant("  ")},
        {none, "\x81\xff 9", "Falcon", none, product("Falcon", "\x81\xff ", "9 ") + variant("  ")},
    };
    modem("absent");
    for (const auto& row : rows) {
        place("/proc/vpd/board_id", row.vpd_id);
        place("/proc/board_id", row.id);
        place("/proc/product_name", row.name);
        place("/proc/product_name_extra", row.extra);
        const auto r = run(tool + "board_id");
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "DEBUG:#stdout ON#\n" + row.out);
        (void)r.errors();
    }
}

} // namespace
