// What the crash dump applet does with a running modem, on real ttys.
#include "tests/e2e/crashdump_fixture.h"

using ::testing::ElementsAre;
using ::testing::SizeIs;
using namespace std::string_literals;

namespace {

struct Operation {
    const char* name;
    std::string modem;
    std::string command; // the shell's, with `c` for "tessel crashdump"
    int status;
    std::string out;
    Texts log;
    Texts requests;
    std::string event; // in the modem's journal
};

void PrintTo(const Operation& row, std::ostream* out)
{
    *out << row.command;
}

// The modem's answers 1 to `count` refuse, with the codes 0 to `count` - 1.
std::string refusals(int count)
{
    std::string faults = "normal";
    for (int i = 1; i <= count; ++i)
        faults += " --fault refuse@" + std::to_string(i) + ":" + std::to_string(i - 1);
    return faults;
}

// How an NV packet that begins with `first` is shown.
std::string nv_packet(const std::string& first, const std::string& status)
{
    std::string hex = "0x" + replaced(first + times(131 - (first.size() + 1) / 3, " 00") + " " + status, " ", " 0x");
    for (size_t end = 16 * 5 - 1; end < hex.size(); end += size_t{16} * 5)
        hex[end] = '\n';
    return "Response:\n" + hex + "\n\n";
}

const std::string crashdump_usage = "\ncrashdump version: 1.7\n\nUsage: crashdump -p <path> -P <port> [options]\n\n"
                                    "\t-p <PATH to save RAM dump files>\n\t-D Modem Port when crashing\n"
                                    "\t-d Enable debug message\n\t-o Output to console\n\t-h Help\n\n";
const std::string longest_port = std::string(116, '/') + "dev/ttyUSB0"; // 127 characters
const std::string no_data_bytes = "E No data bytes for an NV item";
const std::string request_done = "W Request was completed.";
const std::string ask_sku = "4: 4B 00 44 00";
const std::string get_file = "19: 4B 00 51 00 0A 00"; // "/etc/version"
const std::string put_file = "9: 4B 00 51 00 0B 00";  // "/a"
const std::string sku_dump = "Response:\n0000 4b 00 44 00 00 00 00 00 " + times(8, "   ") + " K.D.....\n";

// clang-format off
const Operation operations[] = {
    // Command lines that need no modem.
    {"Usage", "absent", "for o in '' -h -P/dev/ttyUSB0 '-d -p'; do c $o; echo $?; done", 0, times(4, crashdump_usage + "2\n"),
     {}, {}, ""},
    {"NoPort", "absent", "c -d", 32, "", {"E port: /dev/ttyUSB0 isn't found."}, {}, ""},
    {"OverlongPort", "absent", "c -n 5 -D " + longest_port + "X", 32, "",
     {"E port: " + longest_port + " isn't found."}, {}, ""},
    {"PortThatWouldForgeARecord", "absent", "c -o -n 5 -D \"$(printf 'x\\nINFO:#y')\"", 32,
     "DEBUG:#stdout ON#\nERROR:#port: x INFO:#y isn't found.#\n", {"D stdout ON", "E port: x INFO:#y isn't found."}, {}, ""},
    {"PortThatDoesNotOpen", "absent", "c -t 9 -D /data", 32, "",
     {"I Opening port: /data", "E pktio.c:271 open:device=/data,errno=21:cant open device", "E can't start pktio"},
     {}, ""},
    {"NoKeyword", "absent", "for t in RUN '' diag; do c -t \"$t\" -h; echo $?; done", 0, "0\n0\n0\n",
     {"E Invalid command: RUN", "E Invalid command: ", "E Invalid command: diag"}, {}, ""},
    {"NothingToWrite", "absent", "for n in 550 550: :,; do c -N $n -h; echo $?; done", 0, "2\n2\n2\n",
     {"I NV string: 550", no_data_bytes, "I NV string: 550:", no_data_bytes, "I NV string: :,", no_data_bytes}, {}, ""},
    {"TooMuchToWrite", "absent", "c -N 5:$(printf %0129d 0 | sed s/0/1,/g)", 2, "",
     {"I NV string: 5:" + times(129, "1,"), "E Too many data bytes for an NV item (more than 128)"}, {}, ""},

    // Test modes.
    {"DloadMode", "normal", "c -t 0", 0, "", {"I Switch to DLOAD mode"}, {"1: 3A"}, "state gone\nstate dload"},
    {"OfflineMode", "normal", "c -t 1", 0, "", {"I Switch to OFFLINE mode"}, {"3: 29 00 00"}, "state offline"},
    {"FatalError", "normal", "c -t 2", 0, "", {"I Generate a fatal error..."}, {"4: 4B 25 03 00"},
     "state gone\nstate dload"},
    {"Crash", "normal", "c -t DMESG -t 3x -n 5", 0, "", {"I Invoke crash..."}, {"6: 4B 25 0A 00 00 00"},
     "state gone\nstate dload"},
    {"Reboot", "normal", "c -t 4", 0, "", {"I Invoke reboot..."}, {"3: 29 02 00"}, "state gone\nstate normal"},
    {"Fastboot", "normal", "c -t 5", 0, "", {"I fastboot..."}, {"4: 4B 00 50 00"}, "state gone\nstate fastboot"},
    {"DiagMode2", "normal", "c -t 6", 0, "", {"I Turn on DIAG mode 2"}, {"5: 4B 00 31 00 02"}, ""},
    {"NoSuchMode", "normal", "c -t 7; c -t 9 -n 5; c -t 99999999999", 0, "",
     {"W No such test mode: 7", "W No such test mode: 9", "W No such test mode: 2147483647"}, {}, ""},

    // Without an answer, the plain form ends the run; the others tell.
    {"ModeUnanswered", "normal --fault drop@1", "c -t 6", 34, "", {"I Turn on DIAG mode 2", timed_out},
     {"5: 4B 00 31 00 02"}, ""},
    {"TypedUnanswered", "normal --fault badfcs@1", "c -t DIAG:0", 0, "",
     {bad_frame, timed_out, no_answer}, {"1: 00"}, ""},
    {"SkuUnanswered", "normal --fault silence@1", "c -t SKU", 0, "",
     {timed_out, "W  Failed to get modem sku!!!"}, {ask_sku}, ""},
    {"NvReadUnanswered", "normal --fault drop@1", "c -n 5", 0, "",
     {"I Read NV item: 5, index=0", timed_out}, {"133: 26 05 00 00 00 00"}, ""},
    {"NvWriteUnanswered", "normal --fault drop@1", "c -N 5:1", 0, "",
     {"I NV string: 5:1", "I Write NV item: 5", timed_out, "E Doesn't receive the NV response"},
     {"133: 27 05 00 01 00 00"}, ""},

    // Keywords and typed requests.
    {"SkuRidge", "normal", "c -t sku", 0, "", {"I  RIDGE"}, {ask_sku}, ""},
    {"SkuSummit", "normal --sku 1", "c -t SkUx -n 5", 0, "", {"I  SUMMIT"}, {ask_sku}, ""},
    {"SkuValley", "normal --sku 2", "c -t SKU", 0, "", {"I  VALLEY"}, {ask_sku}, ""},
    {"SkuUnknown", "normal --sku 256", "c -t SKU", 0, "", {"I  UNKNOWN: 256 "}, {ask_sku}, ""},
    {"TypedRequest", "normal", "c -n 5 -t DIAG:75,0,68,0; c -t 'diag: 75 0 ,,68, 0,'", 0,
     sku_dump + sku_dump, {}, {ask_sku, ask_sku}, ""},
    {"NothingTyped", "normal", "c -t 'DIAG: ,'; c -t DIAG:75,256; c -t DIAG:$(printf %0513d 0 | sed s/0/0,/g)",
     0, "", {"E Invalid data: 256", "E Out of buffer size: 512"}, {}, ""},
    {"ArgumentTakenAway", "normal", "c -t DIAG:0 -n 5", 2, "", {"E Missing argument of DIAG:"}, {}, ""},
    {"StandardDescriptorsClosed", "normal", "c -t DIAG:75,0,68,0 <&- >&- 2>&-", 0, "", {}, {ask_sku}, ""},
    {"PortThatIsNoTty", "absent", "mkfifo f; c -D f -t DIAG:75", 0, // what is sent comes back
     "Response:\n0000 4b " + times(15, "   ") + " K\n", {"I Opening port: f"}, {}, ""},
    {"NoiseShown", "normal --fault noise@1", "c -v -t DIAG:75,0,68,0", 0,
     "0x4b 0x00 0x44 0x00\n\nMSG: 1F 00 01 02 ......, len=8\nEVENT: 60 00 01 02 ......, len=8\n"
     "EXT MSG: 79 00 01 02 ......, len=8\nEXT MSG TERSE: 7E 00 01 02 ......, len=8\n"
     "QSR EXT MSG TERSE: 92 00 01 02 ......, len=8\nLOG: 10 00 01 02 ......, len=8\n" +
     received("0x4b 0x00 0x44 0x00 0x00 0x00 0x00 0x00") + sku_dump, {}, {ask_sku}, ""},
    {"Refusals", "normal --fault error@1:19 --fault error@2:20 --fault error@3:21 --fault error@4:24 --fault error@5:66"
     " --fault error@6:71 --fault short@2:4 --fault short@3:3 --fault short@4:1",
     "for i in $(seq 6); do c -t DIAG:75,0,68,0 | head -n 2; done", 0,
     "Invalid Command Response\n13 4B 00 44 ......, len=5\nInvalid parmaeter Response\n14 4B 00 44 \n"
     "Invalid packet length Response\n15 4B 00 \nPacket not allowed in this mode\n18 \n"
     "Invalid nv_read/write because SP is locked\n42 4B 00 44 ......, len=5\n"
     "An operation was attempted which required\n47 4B 00 44 ......, len=5\n", {}, Texts(6, ask_sku), ""},

    // NV items.
    {"NvRead", "normal --fault dribble@1", "c -n 0", 0, nv_packet("26 00 00 07", "00 00"),
     {"I Read NV item: 0, index=0", "I status=0x0000", request_done}, {"133: 26 00 00 00 00 00"}, ""},
    {"NvReadIndexed", "normal" + noise, "c -n 20,1", 0,
     "0xa5 0x00 0x01 0x02 0x03 0x04 0x05 0x06\n\n" + nv_packet("26 14 00 01 00 41", "00 00"),
     {"I Read NV item: 20, index=1", "E Received sth else", "I status=0x0000", request_done},
     {"133: 26 14 00 01 00 00"}, ""},
    {"NvWrite", "normal", "c -N 66086:1,2,300", 0, nv_packet("27 26 02 01 02 2c", "00 00"),
     {"I NV string: 66086:1,2,300", "I Write NV item: 550", "I status=0x0000", request_done},
     {"133: 27 26 02 01 02 2C"}, ""},
    {"NvWriteOfAllBytes", "normal", "c -N 550:$(printf %0128d 0 | sed s/0/9,/g)", 0,
     nv_packet("27 26 02" + times(128, " 09"), "00 00"),
     {"I NV string: 550:" + times(128, "9,"), "I Write NV item: 550", "I status=0x0000", request_done},
     {"133: 27 26 02 09 09 09"}, ""},
    {"NvRefused", "normal --fault error@1:66 --fault short@1:3", "c -n 5", 0,
     "Invalid nv_read/write because SP is locked\n42 26 05 \nResponse:\n0x42 0x26 0x05\n\n",
     {"I Read NV item: 5, index=0", "W NV response is cut: 3 bytes", "I status=0x0000", request_done},
     {"133: 26 05 00 00 00 00"}, ""},

    // Services of the modem.
    {"KernelLogErrors", refusals(6), "for i in $(seq 6); do c -t DMESG; done", 0, "",
     {"E Invalid command format ", "E Memory alloc failure on modem ", "E Failed to open /var/kernel.log on modem ",
      "E Failed to read /var/kernel.log on modem ", "E Unknown sub-command from host modem ",
      "E Unknown error: 5 from modem "},
     Texts(6, "6: 4B 00 51 00 08 00"), ""},
    {"PullErrors", refusals(7), "for i in $(seq 7); do c -t PULL:/etc/version | tail -n 1; done", 0,
     "None\nInvalid command format\nInvalid command format\nFile doesn't exist on modem\nFile isn't opened\n"
     "Unknown error\nInvalid error code: 6\n", {}, Texts(7, get_file), ""},
    {"PushErrors", refusals(7), ": > a; for i in $(seq 7); do c -t PUSH:a,/a | tail -n 1; done", 0,
     "err code (0): None\nerr code (1): Invalid command format\nerr code (2): Invalid command format\n"
     "err code (3): Failed to create the file on modem\nerr code (4): File isn't opened\nerr code (5): Unknown error\n"
     "Invalid error code: 6\n", {}, Texts(7, put_file), ""},
    {"PushRefusedOnTheWay", "normal --fault refuse@2:5", "seq 2000 > a; c -t PUSH:a,/a", 0,
     "dst: /a\nsrc: /data/a\nerr code (5): Unknown error\n", {}, {put_file, "1030: 4B 00 51 00 0B 01"}, ""},
    {"PushRefusedAtTheEnd", "normal --fault refuse@3:6", "echo 1 > a; c -t PUSH:/data/a,/a", 0,
     "dst: /a\nsrc: /data/a\nInvalid error code: 6\n", {"I Total bytes (2) sent! "},
     {put_file, "8: 4B 00 51 00 0B 01", "6: 4B 00 51 00 0B 02"}, ""},
    {"PushOfAFolder", "normal", "c -t PUSH:/data,/a", 0, "dst: /a\nsrc: /data\n",
     {"E Failed to open /data"}, {}, ""},
    {"PullToAFullDisk", "normal", "ln -s /dev/full version; c -t PULL:/etc/version", 0, "/data/version\nNone\n",
     {"E Failed to write the pulled file: No space left on device"}, {get_file, "6: 4B 00 51 00 0A 01"}, ""},
    {"PullToAPipe", "normal", "mkfifo version; c -t PULL:/etc/version", 0, "/data/version\n",
     {"E Failed to open /data/version"}, {}, ""},
    {"ServiceRefused", "normal --fault error@1 --fault error@2 --fault error@3",
     "echo ls > a; c -t RUN:a; c -t PULL:/etc/version; c -t DMESG", 0,
     "/data/a\nRUN: ls\nInvalid Command Response\n13 4B 00 51 ......, len=9\n"
     "/data/version\nInvalid Command Response\n13 4B 00 51 ......, len=20\n"
     "Invalid Command Response\n13 4B 00 51 ......, len=7\n", Texts(2, no_answer),
     {"8: 4B 00 51 00 09 6C", get_file, "6: 4B 00 51 00 08 00"}, ""},
    {"TransfersThatCannotBegin", "normal",
     "c -t RUN:none; c -t PUSH:a; c -t PUSH:none,/a,b; c -t PULL:/etc/; c -t PULL:$(printf %01100d 0)/f", 0,
     "/data/none\ndst: /a,b\nsrc: /data/none\n/data/\n/data/f\n",
     {"E Failed to open /data/none", "E Format issue: with src or dst file", "E Failed to open /data/none",
      "E Failed to open /data/", "E Path on modem is too long: 1102 characters"}, {}, ""},
    {"FolderTooDeep", "normal",
     "d=$(printf %0250d 0); mkdir -p $d/$d/$d; cd $d/$d/$d; c -t RUN:s; c -t PULL:f; c -t PUSH:a,b", 0, "dst: b\n",
     Texts(3, "E Not enough buffer!"), {}, ""},
};
// clang-format on

class Operations : public Crashdump, public ::testing::WithParamInterface<Operation> {};
INSTANTIATE_TEST_SUITE_P(, Operations, ::testing::ValuesIn(operations), [](const auto& row) { return row.param.name; });

TEST_P(Operations, OnARunningModem)
{
    const Operation& row = GetParam();
    modem(row.modem);
    const auto r = run("c() { tessel crashdump \"$@\"; }\n" + row.command);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(r.out, row.out);
    EXPECT_EQ(said(r), row.log);
    EXPECT_EQ(requests(), row.requests);
    wait_for_journal(row.event);
}

TEST_F(Crashdump, RequestsThatCannotBeSentEndTheRun)
{
    modem("absent");
    for (const auto& [option, status] : {std::pair("-d", 4), {"-t 6", 4}, {"-n 5", 69}, {"-t DMESG", 69}}) {
        const auto r = run("tessel crashdump -D /dev/full "s + option);
        EXPECT_EQ(r.status, status) << option;
        EXPECT_THAT(r.errors(), ElementsAre("pktio.c:221 write:errno=28 (No space left on device):error writing",
                                            "Error in pktio_send_packet()"));
    }
}

TEST_F(Crashdump, TypedRequestsAreSentAsTheyAre)
{
    modem("normal");
    const auto r = run("tessel crashdump -t DIAG:-1; "
                       "tessel crashdump -t DIAG:$(printf %0512d 0 | sed s/0/0,/g) | sed -n '1,3p;$p'");
    EXPECT_THAT(requests(), ElementsAre("1: FF", "512: 00 00 00 00 00 00"));
    // The error code and the request come back: 513 bytes, of which 512 are kept.
    EXPECT_EQ(r.out, "Invalid Command Response\n13 FF \nResponse:\n0000 13 ff " + times(14, "   ") +
                         " ..\nInvalid packet length Response\n15 00 00 00 ......, len=513\nResponse:\n0200 " +
                         times(16, "   ") + " \n");
    EXPECT_THAT(complaints(), SizeIs(2));
}

TEST_F(Crashdump, NvStatusIsNamed)
{
    modem("normal");
    for (const auto& [status, hex, text] : {std::tuple(5, "0005", "Variable was not active."),
                                            {10, "000a", "Address is not a valid allocation."},
                                            {11, "000b", "Unknown status: 11"},
                                            {65534, "fffe", "Unknown status: 65534"}}) {
        std::ofstream(root() + "/modem/nv/00777") << "777: status " << status << "\n";
        EXPECT_EQ(said(run("tessel crashdump -n 777")),
                  Texts({"I Read NV item: 777, index=0", "I status=0x"s + hex, "W "s + text}));
    }
}

TEST_F(Crashdump, KernelLogIsPrintedWhole)
{
    modem("normal --fault noise@1");
    const std::string text = times(250, "%s %n ab\tc\n"); // three pieces
    std::ofstream(root() + "/modem/kernel.log") << text;
    const auto r = run("tessel crashdump -t dmesgxyz -n 5");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, text);
    EXPECT_THAT(requests(), ElementsAre("6: 4B 00 51 00 08 00", "6: 4B 00 51 00 08 01", "6: 4B 00 51 00 08 01",
                                        "6: 4B 00 51 00 08 01"));
}

TEST_F(Crashdump, ScriptRunsLineByLine)
{
    modem("normal");
    const std::string piece(505, 'a');
    std::ofstream(root() + "/data/script") << "ls -l\r\n\necho \"%s\" $HOME;\r\r\n" << piece << piece << "aab\nend";
    EXPECT_EQ(run("tessel crashdump -t RUN:./script").out.substr(0, 20), "./script\nRUN: ls -l\n");
    const auto r = run("tessel crashdump -t run:script");
    EXPECT_EQ(r.status, 0);
    std::string out = "/data/script\n";
    std::string commands;
    for (const std::string& line : {"ls -l"s, ""s, "echo \"%s\" $HOME;"s, piece, piece, "aab"s, "end"s}) {
        out += "RUN: " + line + "\n";
        commands += line + "\n";
    }
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(read_file("/modem/commands.log"), commands + commands);
    EXPECT_THAT(requests(), ::testing::Contains("511: 4B 00 51 00 09 61").Times(4));
}

TEST_F(Crashdump, FilesOfEverySizeGoBothWays)
{
    modem("normal");
    Files files;
    std::string pulled;
    std::string pushed;
    Texts totals;
    for (const uint32_t size : {0U, 1U, 1023U, 1024U, 1025U, 100000U}) {
        const std::string name = "f" + std::to_string(size);
        files[name] = make_file("/modem/files/data/" + name, size);
        pulled += "/data/" + name + "\nNone\n";
        pushed.append("dst: /tmp/" + name).append("\nsrc: /data/" + name + "\n");
        totals.push_back("I Total bytes (" + std::to_string(size) + ") sent! ");
    }
    const std::string each = "for n in 0 1 1023 1024 1025 100000; do tessel crashdump -t ";
    const auto pull = run(each + "pull:/data/f$n || exit; done");
    EXPECT_EQ(pull.status, 0);
    EXPECT_EQ(pull.out, pulled);
    EXPECT_TRUE(files_in("/data") == files);

    const size_t before = requests().size();
    const auto push = run(each + "push:f$n,/tmp/f$n || exit; done");
    EXPECT_EQ(push.status, 0);
    EXPECT_EQ(push.out, pushed);
    EXPECT_EQ(said(push), totals);
    EXPECT_TRUE(files_in("/modem/files/tmp") == files);
    EXPECT_EQ(requests().size() - before, 6 + (0 + 1 + 1 + 1 + 2 + 98) + 6); // no block is empty
}

TEST_F(Crashdump, PullKeepsWhatCameBeforeItBrokeOff)
{
    modem("normal --fault short@2:7 --fault oversize@3 --fault unplug@4:500");
    const std::string bytes = make_file("/modem/files/data/f", 3000);
    const auto ended = run("tessel crashdump -t PULL:/data/f");
    EXPECT_EQ(ended.out, "/data/f\n"); // an answer without data is the end, and says nothing
    EXPECT_TRUE(read_file("/data/f") == bytes.substr(0, 1024));

    const auto broken = run("tessel crashdump -t PULL:/data/f");
    EXPECT_EQ(broken.status, 0);
    EXPECT_EQ(said(broken), Texts({"W Response carries 1024 bytes of 65535", unplugged, timed_out, no_answer}));
    EXPECT_TRUE(read_file("/data/f") == bytes.substr(0, 1024));
}

} // namespace
