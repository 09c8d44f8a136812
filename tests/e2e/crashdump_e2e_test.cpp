// Memory dumps of a crashed modem, by the crash dump applet on real ttys.
#include "tests/e2e/crashdump_fixture.h"

#include <iomanip>
#include <sstream>

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

namespace {

class DumpByProtocol : public Crashdump, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(, DumpByProtocol, ::testing::Values(6, 7), ::testing::PrintToStringParamName());

TEST_P(DumpByProtocol, SavesEveryRegionByteForByte)
{
    modem("crashed --regions 0,1,1999,2000,2001,4000,4001,4500,3M --protocol " + std::to_string(GetParam()));
    EXPECT_EQ(run("tessel crashdump -D /dev/ttyUSB0").status, 0);
    EXPECT_EQ(requests().size(), GetParam() == 6 ? 3 + 13 + 1573 : 3 + 9 + 787); // of 2000 and 4000 bytes

    Files files = files_in("/sdcard/crashdump");
    EXPECT_EQ(files["crashdump.lst"], "File name:  base address, size\n"
                                      "REGION00.BIN: 0x40000000, 0x0000\nREGION01.BIN: 0x40010000, 0x0001\n"
                                      "REGION02.BIN: 0x40020000, 0x07CF\nREGION03.BIN: 0x40030000, 0x07D0\n"
                                      "REGION04.BIN: 0x40040000, 0x07D1\nREGION05.BIN: 0x40050000, 0x0FA0\n"
                                      "REGION06.BIN: 0x40060000, 0x0FA1\nREGION07.BIN: 0x40070000, 0x1194\n"
                                      "REGION08.BIN: 0x40080000, 0x300000\n");
    files.erase("crashdump.lst");
    EXPECT_TRUE(files == regions_of_modem());
}

// The rest of a reply that nobody waits for any more hides no answer to the next run. Tried more than once: where in a
// reply the kill strikes is a matter of chance.
TEST_P(DumpByProtocol, BeginsAnewAfterOneThatWasBrokenOff)
{
    modem("crashed --regions 3M --protocol " + std::to_string(GetParam()));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(run("tessel crashdump -o & until [ -s /sdcard/crashdump/REGION00.BIN ]; do :; done; kill -9 $!; "
                      "wait; rm -r /sdcard/crashdump; exec tessel crashdump -o")
                      .status,
                  0);
        EXPECT_TRUE(files_in("/sdcard/crashdump")["REGION00.BIN"] == regions_of_modem()["REGION00.BIN"]);
    }
}

// One region of 8060 bytes. Replies 1 to 3 are to the probe, the version and the table; then come the reads.
struct Dump {
    const char* name;
    std::string modem;
    int status;
    Texts log; // without INFO
    size_t saved;
};

constexpr size_t all = 8060;
const std::string framed = "crashed --protocol 6 --regions A.BIN=8060";
const std::string unframed = "crashed --protocol 7 --regions A.BIN=8060";
std::string kept(size_t bytes)
{
    return "W A.BIN: " + std::to_string(bytes) + " of 8060 bytes saved";
}
const std::string no_regions = "E Failed to fetch modem memory regions, possibly modem doesn't crash";
const std::string nothing = "W The modem offers no memory regions";
const Texts long_table = {"E Too memory regions: 20 (more than 20)", no_regions};

void PrintTo(const Dump& row, std::ostream* out)
{
    *out << row.modem;
}

// clang-format off
const Dump dumps[] = {
    // What does not belong to the dump, and what comes slowly.
    {"NoiseFramed", framed + noise, 0, {}, all},
    {"NoiseUnframed", unframed + noise, 0, {}, all},
    {"DribbleFramed", framed + " --fault dribble@8:50", 0, {}, all},
    {"DribbleUnframed", unframed + " --fault dribble@6:50", 0, {}, all},
    {"Twice", unframed + " --fault twice@1 --fault twice@2 --fault twice@3", 0, {}, all},
    {"Late", unframed + " --fault delay@5:4000", 0, {}, all},

    // A refused read leaves the address where it is, and counts.
    {"NakFramed", framed + " --fault nak@5:15", 0, {"E Invalid read address", kept(6060)}, all - 2000},
    {"NakUnframed", unframed + " --fault nak@5", 0, {"E Unknown/invalid command", kept(4060)}, all - 4000},
    {"NakWithoutText", framed + " --fault nak@8:16", 0, {kept(8000)}, all - 60},
    {"NakToTheProbe", framed + " --fault nak@1:14", 1,
     {"E Operation not permitted at this time", "E Not in DLOAD mode"}, 0},
    {"NakToTheVersion", framed + " --fault nak@2:7", 1,
     {"E Operation failed", "E Failed to retrieve parameter information"}, 0},
    {"NakToTheTable", framed + " --fault nak@3:1", 1, {"E Invalid frame FCS", no_regions}, 0},

    // Replies that carry less, or announce more, than was asked for.
    {"ShortFramed", framed + " --fault short@4:507", 0, {kept(6560)}, all - 1500},
    {"ShortHeader", framed + " --fault short@4:6", 0, {kept(6060)}, all - 2000},
    {"ShortUnframed", unframed + " --fault short@5:4011", 34, {timed_out}, 4000},
    {"VersionMissing", unframed + " --fault short@2:1", 0, {}, all},
    {"OversizeFramed", framed + " --fault oversize@4", 0, {}, all},
    {"OversizeUnframed", unframed + " --fault oversize@4", 34,
     {"E pktio.c:134 unframed:length=4294967295:reply larger than the buffer--dropped", timed_out}, 0},

    // Replies that never come.
    {"BadFcs", framed + " --fault badfcs@5", 34, {bad_frame, timed_out}, 2000},
    {"Dropped", unframed + " --fault drop@6", 34, {timed_out}, 8000},
    {"Silence", unframed + " --fault silence@1", 34, {timed_out}, 0},
    {"UnpluggedFramed", framed + " --fault unplug@5:100", 34, {unplugged, timed_out}, 2000},
    {"UnpluggedUnframed", unframed + " --fault unplug@6:50", 34, {unplugged, timed_out}, 8000},

    // Region tables.
    {"NineteenRegions", framed + times(18, ",1"), 0, {}, all},
    {"TwentyRegions", framed + times(19, ",1"), 1, long_table, 0},
    {"EmptyTable", framed + " --region-table 110000", 0, {nothing}, 0},
    {"TableLengthMissing", framed + " --region-table 11", 0, {nothing}, 0},
    {"TableLengthAbsurd", framed + " --fault oversize@3", 1, long_table, 0},
    {"TableEndsWithinAnEntry", framed + " --region-table 110005014000000000001F7C41004200", 1, long_table, 0},
    {"TableWithoutZeros", framed + " --region-table 11000D014000000000001F7C41424344", 1, long_table, 0},
    {"LargerThanANumberWithASign", framed + " --region-table 1100110140000000C00000004100412E42494E00 --fault unplug@5:100",
     34, {unplugged, timed_out}, 2000},
    {"EntryBehindTheReply", framed + " --region-table 11001C014000000000001F7C4100412E42494E00", 1,
     {"E Refused the file name of a memory region: "}, all},
};
// clang-format on

class DumpFaults : public Crashdump, public ::testing::WithParamInterface<Dump> {};
INSTANTIATE_TEST_SUITE_P(, DumpFaults, ::testing::ValuesIn(dumps), [](const auto& row) { return row.param.name; });

TEST_P(DumpFaults, SavesWhatCame)
{
    const Dump& row = GetParam();
    modem(row.modem);
    const auto r = run("tessel crashdump -D /dev/ttyUSB0");
    EXPECT_EQ(r.status, row.status);
    Texts log = said(r);
    std::erase_if(log, [](const std::string& text) { return text.starts_with("I "); });
    EXPECT_EQ(log, row.log);
    const std::string saved = files_in("/sdcard/crashdump")["A.BIN"];
    EXPECT_EQ(saved.size(), row.saved);
    EXPECT_TRUE(regions_of_modem()["A.BIN"].starts_with(saved));
}

TEST_F(Crashdump, NamesFromTheModemStayInTheDumpDirectory)
{
    const std::string cut(19, 'n');
    modem("crashed --regions", {"../x=1,a/b=1,..=1,.=1,=1,Crashdump.LST=1,e\nv=1," + cut + "nn=1,%s%n=1,-a b;c=1"});
    const auto r = run("tessel crashdump -d");
    EXPECT_EQ(r.status, 1);
    const Texts names = {"../x", "a/b", "..", ".", "", "Crashdump.LST", "e?v", cut, "%s%n", "-a b;c"};
    Texts refused;
    std::string list = "File name:  base address, size\n";
    for (size_t i = 0; i < names.size(); ++i) {
        list.append(names[i]).append(": 0x400").append(std::to_string(i)).append("0000, 0x0001\n");
        if (i < 7)
            refused.push_back("Refused the file name of a memory region: " + names[i]);
    }
    EXPECT_EQ(r.errors(), refused);
    EXPECT_EQ(read_file("/sdcard/crashdump/crashdump.lst"), list);
    EXPECT_THAT(names_in("/sdcard/crashdump"),
                UnorderedElementsAreArray({"crashdump.lst", cut.c_str(), "%s%n", "-a b;c"}));
    EXPECT_THAT(names_in("/sdcard"), ElementsAre("crashdump"));
}

TEST_F(Crashdump, FilesInTheWay)
{
    const std::string folder = "/sdcard/crashdump/", list = folder + "crashdump.lst";
    const struct {
        std::string before;
        Texts errors;
        Texts saved;
    } rows[] = {
        {"yes | head -c 9000 > B", {}, {"A", "B", "C"}},
        {"mkdir B", {"Failed to create the dump file: " + folder + "B"}, {"A"}},
        {"mkfifo B", {"Failed to create the dump file: " + folder + "B"}, {"A"}},
        {"mkdir crashdump.lst", {"Failed to create the dump list file: " + list}, {}},
        {"ln -s /dev/full A", {"Failed to write " + folder + "A: No space left on device"}, {"B", "C"}},
        {"ln -s /dev/full crashdump.lst", {"Failed to write " + list + ": No space left on device"}, {}},
    };
    modem("crashed --regions A=8500,B=100,C=1");
    for (const auto& [before, errors, saved] : rows) {
        const auto r = run("f=/sdcard/crashdump; rm -rf $f; mkdir $f; cd $f; " + before + "; tessel crashdump -d");
        EXPECT_EQ(r.status, errors.empty() ? 0 : 1) << before;
        EXPECT_EQ(r.errors(), errors) << before;
        Files expected;
        for (const std::string& name : saved)
            expected[name] = regions_of_modem()[name];
        Files files = files_in(folder);
        files.erase("crashdump.lst");
        EXPECT_TRUE(files == expected) << before;
    }
    const auto r = run("tessel crashdump -p /usr");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.errors(), ElementsAre("Failed to create the dump list file: /usr/crashdump/crashdump.lst"));
}

TEST_F(Crashdump, BaseDirectoryIsTakenAsItIsNamed)
{
    const Texts bases = {"x",  "a b", ";touch ran;", "$(touch ran)", "`touch ran`",        "a'b", "\"q", "|touch ran",
                         "-x", "*",   "a\nb",        "a\\b",         std::string(127, 'l')};
    modem("crashed --regions A=10");
    for (const std::string& base : bases) {
        const auto r = run("tessel crashdump -p '" + replaced(base, "'", R"('\'')") + "'");
        EXPECT_EQ(r.status, 0) << base;
        EXPECT_TRUE(files_in("/data/" + base + "/crashdump")["A"] == regions_of_modem()["A"]) << base;
    }
    const auto r = run("tessel crashdump -p " + std::string(128, 't'));
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.errors(), ElementsAre("Crashdump path is too long."));
    EXPECT_THAT(names_in("/data"), UnorderedElementsAreArray(bases));
}

std::string without_times(std::string text)
{
    for (const std::string mark : {"time of /dev/ttyUSB0 = ", "Total time="}) {
        for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
            at += mark.size();
            text.replace(at, text.find_first_not_of("0123456789", at) - at, "#");
        }
    }
    return text;
}

TEST_F(Crashdump, LogAndConsoleTellTheSame)
{
    // An empty line, which ends a region, stands on the console only.
    const std::string expected = R"(D stdout ON
I Opening port: /dev/ttyUSB0
D ctime of /dev/ttyUSB0 = #
D atime of /dev/ttyUSB0 = #
D mtime of /dev/ttyUSB0 = #
I DLOAD version = 6
I   Framed Memory Read
D Memory regions: 2
D 0:	Save pref (base, len): 0x01 (0x40000000, 0x00000000)
D 	A region: A.BIN
D 1:	Save pref (base, len): 0x01 (0xF0000000, 0x000007D1)
D 	BCDEFGHIJKLMNOPQRST: BCDEFGHIJKLMNOPQRST
I /data/x//crashdump/A.BIN
I To read (0x40000000, 0x0000)

I /data/x//crashdump/BCDEFGHIJKLMNOPQRST
I To read (0xF0000000, 0x07D1)
D addr=0xF0000000 len=0x07D0
D addr=0xF00007D0 len=0x0001

I Total time=# seconds
)";
    modem("crashed --protocol 6 --regions A.BIN=0,BCDEFGHIJKLMNOPQRSTUVWXYZ=2001@0xF0000000");
    const auto r = run("tessel crashdump -o -d -p /data/x/");
    EXPECT_EQ(r.status, 0);
    std::string log;
    std::string console;
    for (std::string_view rest = expected; !rest.empty(); rest.remove_prefix(rest.find('\n') + 1)) {
        const std::string line(rest.substr(0, rest.find('\n')));
        if (!line.empty())
            log += "radio " + line.substr(0, 1) + " RIL_TESSEL: " + line.substr(2) + "\n";
        console += line.empty() ? "\n" : (line[0] == 'I' ? "INFO:#" : "DEBUG:#") + line.substr(2) + "#\n";
    }
    EXPECT_EQ(without_times(r.err), log);
    EXPECT_EQ(without_times(r.out), console);
}

TEST_F(Crashdump, VerboseShowsTheTraffic)
{
    modem("crashed --protocol 7 --regions A=1@0x40000000 --fault stray@4 --fault short@2:2");
    const auto r = run("tessel crashdump -v");
    EXPECT_EQ(r.status, 0);
    std::ostringstream byte;
    byte << std::hex << " 0x" << std::setw(2) << std::setfill('0') << (regions_of_modem()["A"].at(0) & 0xFF);
    EXPECT_EQ(r.out, ">>>>>>>>>>>> NO-OP\n0x06\n\n" + received("0x02") + ">>>>>>>>>>>> Request parameters\n0x07\n\n" +
                         received("0x08 0x07") + ">>>>>>>>>>>> Retrieve memory regions\n0x10\n\n" +
                         received("0x11 0x00 0x14 0x01 0x40 0x00 0x00 0x00 0x00 0x00 0x00 0x01 0x41 0x20 0x72 0x65\n"
                                  "0x67 0x69 0x6f 0x6e 0x00 0x41 0x00") +
                         ">>>>>>>>>>>> Read memory: 40000000, 0001\n"
                         "0x14 0x00 0x00 0x00 0x40 0x00 0x00 0x00 0x00 0x00 0x00 0x01\n\n"
                         "Expected: 0x15\nReceived:\n0xa5 0x00 0x01 0x02 0x03 0x04 0x05 0x06\n\n" +
                         received("0x15 0x00 0x00 0x00 0x40 0x00 0x00 0x00 0x00 0x00 0x00 0x01" + byte.str()) + "\n");
}

TEST_F(Crashdump, RunningModemHasNoMemoryToSave)
{
    modem("normal --regions A=5000");
    const auto r = run("tessel crashdump -v");
    EXPECT_EQ(r.status, 34);
    EXPECT_THAT(said(r), ElementsAre(timed_out));
    EXPECT_EQ(r.out, ">>>>>>>>>>>> NO-OP\n0x06\n\nExpected: 0x02\nReceived:\n0x13 0x06\n\n");
    EXPECT_THAT(complaints(), SizeIs(1));

    EXPECT_EQ(run("tessel crashdump -t 3").status, 0);
    wait_for_journal("state dload");
    EXPECT_EQ(run("tessel crashdump -d").status, 0);
    EXPECT_TRUE(files_in("/sdcard/crashdump")["A"] == regions_of_modem()["A"]);
}

} // namespace
