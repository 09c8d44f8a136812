// The small applets: kernel modules by name, a command line, the radio daemon, modem start and stop.
#include "tests/e2e/scenario.h"

namespace fs = std::filesystem;

namespace {

const std::string wifi_only = "It's a WiFi-only device. Stop!\n";
const std::string no_wan = "rm /proc/product_features/wan; tessel ";
const Texts radio = {"ran start ril-daemon: 0"};
const Texts until_option = {insmod("usbserial"), insmod("usb_wwan"), insmod("ehci-hcd"), insmod("option", 1)};

std::string usage(const std::string& name, const std::string& unload = "")
{
    return "\n" + name + " version: 1.2\n\nUsage:\n  " + name + " [option]\n    -i: ignore device type checking\n" +
           unload + "    -h: help\n";
}
const std::string unload_line = "    -u: unload all modules\n";

// clang-format off
const Scenario scenarios[] = {
    {"LaunchwanFromCold", "off --modules none", "tessel launchwan", 0, ready, load_all + on},
    {"LaunchwanWithoutWan", "off --modules none", no_wan + "launchwan -i", 0, ready, load_all + on},
    {"LaunchwanInDownloadMode", "off --boot crashed", "tessel launchwan", 26, not_ready,
     hand_over + on + Texts{reset, reset}},
    {"LaunchwanWithoutAModule", "off --modules none --fail insmod:option.ko", "tessel launchwan", 19, {}, until_option},
    {"LaunchwanUnreadable", "off", "rm /proc/modules; tessel launchwan", 1, unreadable, {}},
    {"LaunchwanUnload", "normal", "tessel launchwan -u", 0, {}, unload_all},
    {"LaunchwanUnloadWithoutWan", "normal", no_wan + "launchwan -i -u", 0, {}, unload_all},
    {"StartModemFromCold", "off --modules none", "tessel start_modem now", 0, ready, load_all + on},
    {"StartModemForAParentThatIgnoresItsChildren", "off --modules none", "env --ignore-signal=CHLD tessel start_modem", 0, ready,
     load_all + on},
    {"StartModemWithoutWan", "off", no_wan + "start_modem -i", 0, ready, hand_over + on},
    {"StartModemWithoutAModule", "off --modules none --fail insmod:option.ko", "tessel start_modem", 19, {}, until_option},
    {"StartModemUnreadable", "off", "rm /proc/modules; tessel start_modem", 1, unreadable, {}},
    {"StopModem", "normal", "tessel stop_modem", 0, {"I power_wan_off"}, off + unload_all},
    {"StopModemWithoutWan", "normal", no_wan + "stop_modem -i", 0, {"I power_wan_off"}, off + unload_all},
    {"StopModemUnreadable", "normal", "rm /proc/modules; tessel stop_modem", 0, Texts{"I power_wan_off"} + unreadable,
     off + unload_all},
    {"StopModemWhenNothingWorks", "normal --modules option --fail rmmod", "tessel stop_modem", 0,
     {"I power_wan_off", no_file("/sys/wan/usben"), no_file("/sys/wan/power")}, {rmmod("option", 1)}},
    {"CondStartRilFromCold", "off --modules none", "tessel cond_start_ril", 0, {}, load_all + radio},
    {"CondStartRilWithoutWan", "off", no_wan + "cond_start_ril -i", 0, {}, hand_over + radio},
    {"CondStartRilWithoutAModule", "off --modules none --fail insmod:option.ko", "tessel cond_start_ril", 19, {}, until_option},
    {"CondStartRilRawStatus", "off --fail start", "tessel cond_start_ril", 0, {}, hand_over + Texts{"ran start ril-daemon: 1"}},
};
// clang-format on

class System : public OnAFreshTablet {};

INSTANTIATE_TEST_SUITE_P(, System, ::testing::ValuesIn(scenarios), [](const auto& row) { return row.param.name; });

TEST_P(System, Does)
{
    play();
}

TEST_F(OnPoweredTablet, SystemAppletsLeaveAWifiOnlyUnitAlone)
{
    const struct {
        std::string command;
        int status;
        std::string out;
    } rows[] = {
        {"launchwan", 3, wifi_only},
        {"cond_start_ril", 3, wifi_only},
        {"start_modem", 3, wifi_only},
        {"stop_modem", 3, wifi_only},
        {"launchwan -x", 2, usage("launchwan", unload_line)},
        {"launchwan -iuh", 2, usage("launchwan", unload_line)},
        {"./a/launchwan -u -x", 2, usage("./a/launchwan", unload_line)},
        {"cond_start_ril -h", 2, usage("cond_start_ril")},
        {"cond_start_ril -u", 2, usage("cond_start_ril")},
        {"start_modem -i -h", 2, usage("start_modem")},
        {"stop_modem -hi", 2, usage("stop_modem")},
        {"stop_modem -u", 2, usage("stop_modem")},
        {"launchwan -u", 0, ""},
    };
    modem("absent --wifi-only");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        const auto r = run("tessel " + row.command);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(actions(), row.status == 0 ? unload_all : Texts{});
    }
}

// What one of the commands that a case leads to prints, and what it does.
struct Call {
    std::string out;
    Texts actions = {};
};

// A case of loadm, unloadm or shell.
struct Line {
    std::string arguments;
    int status;
    std::vector<Call> calls;
};

class SystemLines : public OnPoweredTablet {
protected:
    // All on one tablet, without modules at first.
    void play(const std::string& applet, const std::vector<Line>& lines)
    {
        modem("off --modules none");
        for (const Line& line : lines) {
            SCOPED_TRACE(line.arguments.substr(0, 100));
            const auto r = run("tessel " + applet + " " + line.arguments);
            Call all;
            for (const Call& call : line.calls)
                all = {all.out + call.out, all.actions + call.actions};
            EXPECT_EQ(r.status, line.status);
            EXPECT_EQ(r.out, all.out);
            EXPECT_EQ(actions(), all.actions);
            EXPECT_FALSE(fs::exists(root() + "/data/owned"));
        }
    }

    static Call too_long(size_t length)
    {
        return {"Command line is too long: " + std::to_string(length) + " characters, at most 511\n"};
    }

    // A tool that runs on a word; how that ends, and how the word is shown where that differs.
    static Call call(const std::string& tool, const std::string& word, int status, const std::string& shown)
    {
        return {tool + (shown.empty() ? word : shown) + "\nret=" + std::to_string(status << 8) + "\n",
                {"ran " + tool + word + ": " + std::to_string(status)}};
    }
    static Call loads(const std::string& path) { return call("insmod ", path, 0, ""); }
    static Call fails(const std::string& path, const std::string& shown = "")
    {
        return call("insmod ", path, 1, shown);
    }
    static Call unloads(const std::string& name) { return call("rmmod ", name, 0, ""); }
    static Call stays(const std::string& name, const std::string& shown = "") { return call("rmmod ", name, 1, shown); }
};

TEST_F(SystemLines, LoadmTakesNamesAndPaths)
{
    const std::string most(481, 'm'); // with "insmod /system/lib/modules/" and ".ko" just what is allowed
    const std::string far(100000, 'm'), dir = "/system/lib/modules/";
    const std::vector<Line> lines = {
        {"", 2, {{"usage:\n  loadm <module name1> <module name2> ...\n"}}},
        {"usbserial", 0, {loads(dir + "usbserial.ko")}},
        {"usb_wwan.ko", 0, {loads(dir + "usb_wwan.ko")}},
        {"/data/foo", 0, {loads("/data/foo.ko")}},
        {"/data/x.d/bar", 0, {loads("/data/x.d/bar")}},
        {"./x", 1, {fails("./x")}},
        {"a.b", 1, {fails(dir + "a.b")}},
        {"usbserial option -h ehci-hcd",
         1,
         {fails(dir + "usbserial.ko"), loads(dir + "option.ko"), fails(dir + "-h.ko"), loads(dir + "ehci-hcd.ko")}},
        {"'' 'two words'", 1, {fails(dir + ".ko"), fails(dir + "two words.ko", "'" + dir + "two words.ko'")}},
        {"'x;touch owned;'", 1, {fails(dir + "x;touch owned;.ko", "'" + dir + "x;touch owned;.ko'")}},
        {"'$(touch owned)'", 1, {fails(dir + "$(touch owned).ko", "'" + dir + "$(touch owned).ko'")}},
        {"\"it's\" %s%n", 1, {fails(dir + "it's.ko", "'" + dir + "it'\\''s.ko'"), fails(dir + "%s%n.ko")}},
        {most, 1, {fails(dir + most + ".ko")}},
        {most + "m rmnet_usb", 1, {too_long(512), loads(dir + "rmnet_usb.ko")}},
        {far + " bwan", 1, {too_long(100030), loads(dir + "bwan.ko")}},
    };
    write_file("/data/foo.ko", "");
    write_file("/data/x.d/bar", "");
    play("loadm", lines);

    // What is printed stands before what the command says.
    const auto r = run("tessel loadm x 2>&1");
    EXPECT_EQ(r.out,
              "insmod " + dir + "x.ko\ninsmod: can't insert '" + dir + "x.ko': No such file or directory\nret=256\n");
}

TEST_F(SystemLines, UnloadmCountsNoFailure)
{
    const std::string most(505, 'm');
    const std::vector<Line> lines = {
        {"", 2, {{"usage:\n  unloadm <module name1> <module name2> ...\n"}}},
        {"bwan '' option.ko", 0, {stays("bwan"), stays("", "''"), stays("option.ko")}},
        {"-f", 0, {stays("-f")}},
        {"'x;touch owned' '`touch owned`'",
         0,
         {stays("x;touch owned", "'x;touch owned'"), stays("`touch owned`", "'`touch owned`'")}},
        {most + " " + most + "m x", 0, {stays(most), too_long(512), stays("x")}},
    };
    play("unloadm", lines);
    write_file("/proc/modules", "option 1 0 - Live 0x00000000\nbwan 1 0 - Live 0x00000000\n");
    const auto r = run("tessel unloadm option bwan");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, unloads("option").out + unloads("bwan").out);
}

TEST_F(SystemLines, ShellGivesTheRawStatus)
{
    const std::string most(505, 'm'); // with "echo " and the blank at the end just what is allowed
    const std::vector<Line> lines = {
        {"", 0, {{"usage:\n  shell <command>\n"}}},
        {"''", 0, {}},
        {"echo a   b", 0, {{"a b\n"}}},
        {"'echo a   b'", 0, {{"a b\n"}}},
        {"'echo a\\'", 0, {{"a \n"}}}, // what stands behind the last word is one blank
        {"'echo $((1 + 1));' echo %s -l", 0, {{"2\n%s -l\n"}}},
        {"start ril-daemon", 0, {{"", {"ran start ril-daemon: 0"}}}},
        {"exit 3", 0, {}},
        {"nowhere", 0, {}},
        {"'kill -TERM $$'", 15, {}},
        {"'kill -KILL $$'", 9, {}},
        {"echo " + most, 0, {{most + "\n"}}},
        {"echo " + most + "m", 2, {too_long(512)}},
        {"start " + std::string(100000, 'm'), 2, {too_long(100007)}},
    };
    play("shell", lines);
}

} // namespace
