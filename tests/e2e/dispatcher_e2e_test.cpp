// How applets are found, and what a person sees who asks for none.
#include "tests/e2e/tablet_fixture.h"

#include <cstdlib>
#include <sys/wait.h>

namespace {

const std::string applets = "\ntessel version: 4.5\n\nUsage: tessel [applet] [applet arguments]\n       applets:\n"
                            "\t\tatcmd\n\t\tmdmctrl\n\t\twan_dloader\n\t\tcrashdump\n\t\tloadm\n\t\tunloadm\n"
                            "\t\tlaunchwan\n\t\tshell\n\t\tcond_start_ril\n\t\tstart_modem\n\t\tstop_modem\n\n";

std::string atcmd_usage(const std::string& name)
{
    return "\n" + name + " ver: 1.5\n\n\nusage: " + name +
           " -c|C [AT command] -p [port] -t [timeout] [-v] [-e] [-o]\n\n"
           "\t-c\tAT command to be sent to the modem\n"
           "\t-C\tAT command with supporting extended charaters, e.g. -C\"ati\\r\"\n"
           "\t-p\tmodem port. Default port is /dev/ttyUSB1\n"
           "\t-t\ttimeout. Default timeout is 3\n"
           "\t-e\tConfigure modem to echo received command\n"
           "\t\tEcho turned off by default\n"
           "\t-v\tVerbose output\n"
           "\t-o\tOutput to console\n\n";
}

TEST_F(OnTablet, DispatcherFindsAppletsByTheLastPathComponent)
{
    const std::string longest = std::string(121, 'x') + "/atcmd"; // 127 characters
    const struct {
        std::string arguments;
        int status;
        std::string out;
        Texts errors;
    } rows[] = {
        {"", 2, applets, {"Missing applet name"}},
        {"foo", 5, applets, {"Applet [foo] is not found"}},
        {"/atcmd/foo", 5, applets, {"Applet [foo] is not found"}},
        {"ATCMD", 5, applets, {"Applet [ATCMD] is not found"}},
        {"atcmd/", 5, applets, {"Applet [] is not found"}},
        {"x" + longest, 5, applets, {"Applet [x" + longest + "] is not found"}},
        {longest, 2, atcmd_usage(longest), {}},
        {"./bin/atcmd", 2, atcmd_usage("./bin/atcmd"), {}},
        {"atcmd -p /dev/ttyUSB1 -v", 2, atcmd_usage("atcmd"), {}},
        {"atcmd -c", 2, atcmd_usage("atcmd"), {}},
        {"atcmd -c AT -z", 2, atcmd_usage("atcmd"), {}},
    };
    modem("absent");
    for (const auto& row : rows) {
        const auto r = run("tessel " + row.arguments);
        EXPECT_EQ(r.status, row.status) << row.arguments;
        EXPECT_EQ(r.out, row.out) << row.arguments;
        EXPECT_EQ(r.errors(), row.errors) << row.arguments;
    }
}

// The tool that makes the tablets: what it is called with, and where that goes wrong.
TEST_F(OnTablet, TabletSaysWhatIsWrong)
{
    const struct {
        std::string before, arguments;
        int status;
        std::string said;
    } rows[] = {
        {"TMPDIR=/nonexistent", "true", 1, "no directory for temporary files, see TMPDIR: No such file or directory"},
        {"TMPDIR=", "true", 1, "no directory for temporary files, see TMPDIR: No such file or directory"},
        {"TMPDIR=/proc", "true", 1, "no tablet can be made in /proc"},
        {"TMPDIR=/nonexistent", "--root " + root() + "2 sh -c 'exit 4'", 4, ""},
        {"", "--root '' true", 2, "--root needs the name of a directory"},
        {"", "run --root /nonexistent true", 1, "no tablet in /nonexistent: make one with serve or a command"},
        {"", "serve --root " + root(), 1, root() + " is served already"},
        {"", "--root " + root() + " true", 1, root() + " is served already"},
        {"", "--wifi-only --modem crashed true", 2,
         "a tablet that is --wifi-only has no modem: only --modem absent goes with it"},
        {"", "--modules usbserail true", 2, "no such module: usbserail"},
        {"env --ignore-signal=CHLD", "--wifi-only sh -c 'exit 3'", 3, ""},
        {"", "--wifi-only sh -c 'touch f && chown radio:radio f && stat -c %U f >&2'", 0, "radio"},
    };
    modem("absent");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.before + " " + row.arguments);
        const std::string err = root() + "/said";
        // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
        const int status = std::system(
            (row.before + " timeout -s KILL 60 " + VIRTUAL_TABLET_BINARY + " " + row.arguments + " </dev/null 2>" + err)
                .c_str());
        EXPECT_EQ(WEXITSTATUS(status), row.status);
        EXPECT_THAT(read_file("/said"), ::testing::HasSubstr(row.said));
    }
}

} // namespace
