// NV update files applied to a virtual modem, its files shown and deleted, and the options of wan_dloader.
#include "tests/e2e/nv_fixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using namespace std::string_literals;

namespace {

class NvUpdate : public NvOnTablet {
protected:
    // The bytes as PrintHex shows them.
    static std::string shown(const std::string& bytes)
    {
        std::string text;
        for (size_t i = 0; i < bytes.size(); ++i) {
            char digits[8] = "";
            (void)snprintf(digits, sizeof digits, "0x%02x", static_cast<unsigned>(static_cast<uint8_t>(bytes[i])));
            text += digits;
            text += (i + 1) % 16 == 0 || i + 1 == bytes.size() ? '\n' : ' ';
        }
        return text + "\n";
    }

    // What a write of an NV item prints.
    static std::string written(uint16_t item, const std::string& data)
    {
        return "write_nvitem\n" + shown("\x27" + nv_record(item, data) + le16(0));
    }
};

const std::string unaware =
    "W The modem answers neither query nor hello: an answer that is still on the way goes unnoticed";

const std::string wan_dloader_usage = R"(
wan_dloader version: 7.1

Usage: wan_dloader -p <path> -P <port> -D <port> -R <port> [options]

	-a Override partition table, all partitins need to be flashed
	-p <PATH to Image Files>
	-e Set emergency download
	-d Enable debug message
	-P <port> : Diag port before entering download mode (/dev/ttyUSB0)
	-D <port> : Diag port in download mode (/dev/ttyUSB0)
	-R <port> : Diag port after reset (/dev/ttyUSB0)
	-m <type> : MBN type to flash. Can repeat multiple times.
	   Valid mbn types: all, amss, dsp, boot, nvitem
	-l Modem linux images
	-o Output to console
	-f Force firmware update
	-n<f> : -nb - backup NV items
		-nr - restore NV items
		-ng - make a golden copy of NV items
		-nG - restore from a golden copy of NV items
		-nU<nv file path> - update NV items given in <nv file path>
	-E Backup NV/Erase & Flash all partitions/Restore NV
	-s Skip NV backup and jump to start downloading DLOADER
	-h Help
)";

} // namespace

TEST_F(NvUpdate, WritesWhatTheFileSays)
{
    modem("normal");
    fill("nv", {{"00020", "20/0: 11\n"},
                {"00085", "85: spc 30\n"},
                {"00447", "447: write-status 7 01\n"},
                {"00448", "448: write-status 11 01\n"},
                {"00071", "71: 56\n"}});
    fill("efs",
         {{"nv/item_files/there", "old and long"}, {"nv/item_files/gone", "x"}, {"there", std::string(700, 'x')}});
    const std::string blanks(254, ' ');
    write_file("/data/update.txt", "# a comment with EFS FILE=/never,SIZE=1\n"
                                   "\n\r\n \t\n"
                                   "NV ITEM=10, INDEX=1\n 01 02\n\t# 03\n"
                                   "  NV ITEM=20, INDEX=0\r\n00 0A0b 0C\r\n\tFF X1 FF\r\n"
                                   "NV ITEM=85, INDEX=0\n31\n"
                                   "NV ITEM=447, INDEX=0\n02\n"
                                   "NV ITEM=448, INDEX=0\n02\n"
                                   "NV ITEM=71, INDEX=0\n"
                                   "NV ITEM=65536, INDEX=0\n01\n"
                                   "NV ITEM FILE=/nv/item_files/new/x, SIZE=3\n0A\n0B0C 0\n"
                                   "NV ITEM FILE=/nv/item_files/there, SIZE=2\n4142\n"
                                   "NV ITEM FILE SIZE=2\n"
                                   "NV ITEM FILE= SIZE=1\n43\n"
                                   "NV ITEM FILE=/nv/item_files/none, SIZE=2\n# no data\n"
                                   "NV ITEM FILE=/nv/item_files/none, SIZE=1025\n44\n"
                                   "EFS FILE=/there, SIZE=4\n" +
                                       blanks.substr(3) + "717\n72\n" +
                                       "EFS FILE=/large, SIZE=2100\n73\n"
                                       "EFS FILE=/no/folder, SIZE=1\n74\n"
                                       "EFS FILE=/refused, SIZE=1100\n75\n" +
                                       blanks + "76\n" +
                                       "EFS FILE=/refused, SIZE=-1\n"
                                       "DEL EFS FILE=/nv/item_files/gone\r\n"
                                       "DEL EFS FILE=/absent\n"
                                       "DEL EFS FILE=/nv\n"
                                       "nonsense\n"
                                       "DEL EFS FILE=\n"
                                       "EFS FILE=/last, SIZE=2\n7A7B");
    const auto r = run("tessel wan_dloader -nU/data/update.txt");
    EXPECT_EQ(r.status, 0);
    const std::string absent = "E No such file or directory";
    EXPECT_THAT(
        r.records(),
        ElementsAre(
            "I Update NV from /data/update.txt", "I MODEM TYPE: RIDGE", "I Set OFFLINE mode", "I NV item=10, index=1",
            "I NV item=20, index=0", "I NV item=85, index=0", "W Bad SPC for NV item 85", "I NV item=447, index=0",
            "W NV item (447): Parameter is write-protected and thus read-only.", "I NV item=448, index=0",
            "W NV item (448): Unknown status - 11", "I NV item=71, index=0",
            "W UpdateNV: no data for NV item 71, written as zeros", "I NV item=65536, index=0",
            "E UpdateNV: invalid NV item (65536)", "W Invalid type: 01", "I NV item file=/nv/item_files/new/x, size=3",
            "I NV item file=/nv/item_files/there, size=2", "W Invalid type: NV ITEM FILE SIZE=2",
            "W UpdateNV: no \",\" behind a path, taken as /nv/item_files/there",
            "I NV item file=/nv/item_files/there, size=1", "I NV item file=/nv/item_files/none, size=2",
            "W UpdateNV: no data for /nv/item_files/none, not written", "I NV item file=/nv/item_files/none, size=1025",
            "E UpdateNV: invalid size (1025 bytes), at most 1024 for an item file", "W Invalid type: 44",
            "I EFS file=/there, size=4", "W UpdateNV: 2 bytes of data for 4 bytes of /there",
            "I /there exists - overwrite it",

            "I EFS file=/large, size=2100", "W UpdateNV: 1 bytes of data for 2100 bytes of /large", absent,
            "I /large doesn't exist - create it", "I EFS file=/no/folder, size=1", absent,
            "I /no/folder doesn't exist - create it", absent, "W Failed to open /no/folder, skip it",
            "I EFS file=/refused, size=1100",
            "E UpdateNV: line with a zero byte or more than 254 characters refused: " + blanks,
            "I EFS file=/refused, size=-1", "E UpdateNV: invalid size (-1 bytes)",
            "I Delete EFS/NV file: /nv/item_files/gone", "I Delete EFS/NV file: /absent", absent, "W /absent not found",
            "I Delete EFS/NV file: /nv", "E Is a directory", "W Invalid type: nonsense", "I Delete EFS/NV file: ",
            "E UpdateNV: no path", "I EFS file=/last, size=2", absent, "I /last doesn't exist - create it"));
    EXPECT_EQ(r.out, written(10, "\1\2") + written(20, "\0\x0A\x0B\x0C\xFF"s) + written(85, "1") + written(447, "\2") +
                         written(448, "\2") + written(71, ""));
    EXPECT_EQ(all_in("nv"), (Files{{"00010", "10: 01 02\n"},
                                   {"00020", "20/0: 0A 0B 0C FF\n"},
                                   {"00071", "71: 00\n"},
                                   {"00085", "85: spc 30\n"},
                                   {"00447", "447: write-status 7 01\n"},
                                   {"00448", "448: write-status 11 01\n"}}));
    // Behind the data of a record stands what earlier ones left in the buffer.
    EXPECT_EQ(all_in("efs"), (Files{{"nv/item_files/new/x", "\x0A\x0B\x0C"},
                                    {"nv/item_files/there", "C"},
                                    {"there", "qr\x0C\0"s},
                                    {"large", "sr\x0C"s + std::string(2097, '\0')},
                                    {"last", "z{"}}));
    const Texts asked = requests();
    EXPECT_EQ(asked[1], "3: 29 00 00");
    EXPECT_THAT(asked, ::testing::Not(::testing::Contains("3: 29 02 00")));
}

// The answer to the first file comes twice, and is taken for that to the second.
TEST_F(NvUpdate, TellsOfAnAnswerTooMuch)
{
    modem("normal --fault twice@3");
    fill("efs", {{"a", "old"}, {"b", "old"}});
    write_file("/data/update.txt", "DEL EFS FILE=/a\nDEL EFS FILE=/b\n");
    const auto r = run("tessel wan_dloader -nU/data/update.txt");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(complaints_of(r),
                ElementsAre("E 1 EFS2 replies belong to no request: what came before may be another file's"));
}

// The question whether an answer is still on the way ends no run whose work is done.
TEST_F(NvUpdate, GoesOnWithoutThePort)
{
    modem("normal --fault unplug@4");
    write_file("/data/update.txt", "DEL EFS FILE=/absent\n");
    const auto r = run("tessel wan_dloader -nU/data/update.txt");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(complaints_of(r), ::testing::IsSupersetOf({"E Error in pktio_send_packet()"s, unaware}));
}

TEST_F(NvUpdate, GoesOnWithoutTheLastAnswer)
{
    modem("normal --fault drop@2+");
    const auto r = run("tessel wan_dloader -nD/absent");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(complaints_of(r), ElementsAre("E Timeout!", "E Timeout!", unaware));
}

TEST_F(NvUpdate, NeedsAFile)
{
    modem("normal --sku 2");
    for (const std::string& file : {"/data/absent"s, "/data/pipe"s}) {
        const auto r = run("mkfifo pipe; tessel wan_dloader -nU" + file);
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(r.records(), ElementsAre("I Update NV from " + file, "I MODEM TYPE: VALLEY", "I Set OFFLINE mode",
                                             "E Failed to open NV file"));
    }
}

TEST_F(NvUpdate, NeedsAModem)
{
    modem("absent");
    const auto r = run("tessel wan_dloader -nU/data/absent");
    EXPECT_EQ(r.status, 32);
    EXPECT_THAT(r.records(),
                ElementsAre("I Update NV from /data/absent",
                            "E pktio.c:271 open:device=/dev/ttyUSB0,errno=2:cant open device", "E can't start pktio"));
    EXPECT_EQ(actions(), Texts{"ran stop ril-daemon: 0"});
}

// It has asked by then which modem it is.
TEST_F(NvUpdate, NeedsItsPort)
{
    modem("normal");
    const auto r = run("tessel wan_dloader -P /dev/none -nU/data/absent");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(complaints_of(r), ElementsAre("W Timeout: DIAG port (/dev/none) doesn't exist"));
    EXPECT_THAT(requests(), ElementsAre("4: 4B 00 44 00"));
}

TEST_F(NvUpdate, ShowsAndDeletesFilesOfTheModem)
{
    modem("normal --fault refuse@4:16"); // the second piece of the first file
    const std::string item = pattern(512, 1), regular = pattern(1300, 2), absent = "E No such file or directory";
    fill("efs", {{"nv/item_files/a", item},
                 {"nv/item_files/empty", ""},
                 {"nv/item_files/long", item + item},
                 {"b", regular},
                 {"c", ""}});
    const struct {
        const char* options;
        std::string out;
        Texts records;
    } rows[] = {
        {"-nF/b",
         "file size=1300\n" + shown(regular),
         {"I Read NV File: /b", "I /b is an EFS2 file", "E Device or resource is busy"}},
        {"-nF/nv/item_files/a",
         "file size=512\n" + shown(item),
         {"I Read NV File: /nv/item_files/a", "I /nv/item_files/a is an NV item file"}},
        {"-nF/nv/item_files/long",
         "file size=1024\n" + shown(item),
         {"I Read NV File: /nv/item_files/long", "I /nv/item_files/long is an NV item file",
          "W /nv/item_files/long: only 512 of 1024 bytes"}},
        {"-nF/nv/item_files/empty",
         "file size=0\n",
         {"I Read NV File: /nv/item_files/empty", "I /nv/item_files/empty is an NV item file",
          "W Skip /nv/item_files/empty"}},
        {"-nF/c", "file size=0\n\n", {"I Read NV File: /c", "I /c is an EFS2 file"}},
        {"-nF/nv", "file size=0\n", {"I Read NV File: /nv", "W /nv is an unknown file type: 0x41ff"}},
        {"-nF/absent", "", {"I Read NV File: /absent", absent, "W /absent not found"}},
        {"-nF /b", "", {"I Read NV File: ", "E EFS2 diag - invalid path", "W  not found"}},
        {"-nD/nv/item_files/a", "", {"I Delete EFS2 File: /nv/item_files/a"}},
        {"-nD/b -P/dev/none", "", {"I Delete EFS2 File: /b"}},
        {"-nD/absent", "", {"I Delete EFS2 File: /absent", absent, "W /absent not found"}},
        {"-nD/nv", "", {"I Delete EFS2 File: /nv", "E Is a directory"}},
        {"-nx", "", {"E Invalid option type: x."}},
        {"-n ''", "", {"E Invalid option type: ."}},
    };
    std::vector<Job> jobs;
    for (const auto& row : rows)
        jobs.push_back(queue(row.options, with_data_in("/sdcard/" + std::to_string(jobs.size()))));
    for (size_t i = 0; i < jobs.size(); ++i) {
        const auto r = take_turn(jobs[i]);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, rows[i].out) << rows[i].options;
        EXPECT_EQ(r.records(), rows[i].records) << rows[i].options;
    }
    EXPECT_EQ(all_in("efs"), (Files{{"nv/item_files/empty", ""}, {"nv/item_files/long", item + item}, {"c", ""}}));
    EXPECT_THAT(requests(), ::testing::Not(::testing::Contains(StartsWith("3: 29"))));
}

TEST_F(NvUpdate, OptionsAreJudgedInTheirOrder)
{
    modem("normal");
    const std::string longest(255, 'p');
    const struct {
        std::string options;
        Texts errors;
        bool shows_usage;
    } rows[] = {
        {"", {}, true},
        {"-h", {}, true},
        {"-t x -nb", {}, true},
        {"-x", {}, true},
        {"-P", {}, true},
        {"-n", {}, true},
        {"-m all -m AMSS -mDsPs -m boots -m nvitems -m NVIT -mallx -laefsEr -h", {}, true},
        {"-m al -nb", {"Invalid mbn type: al."}, true},
        {"nb", {"Unexpected argument: nb"}, true},
        {"-E l f -s", {"Unexpected argument: l"}, true},
        {"P /dev/ttyUSB2 -nD/a", {"Unexpected argument: P"}, true},
        {"-E -- -s", {"Unexpected argument: -s"}, true},
        {"-m nvi", {"Invalid mbn type: nvi."}, true},
        {"-m ''", {"Invalid mbn type: ."}, true},
        {"-p " + longest + " -h", {}, true},
        {"-p " + longest + "p -h", {"Image Path is too long."}, false},
    };
    for (const auto& row : rows) {
        const auto r = run("tessel wan_dloader " + row.options);
        EXPECT_EQ(r.status, 2) << row.options;
        EXPECT_EQ(r.errors(), row.errors) << row.options;
        EXPECT_EQ(r.out, row.shows_usage ? wan_dloader_usage : "") << row.options;
    }
    EXPECT_THAT(actions(), IsEmpty());
    EXPECT_THAT(requests(), IsEmpty());
}

// Of the ports before the operation the last one counts, and 127 characters of it.
TEST_F(NvUpdate, PortIsCut)
{
    modem("normal");
    fill("efs", {{"a", "a"}});
    const std::string port = "/dev/" + std::string(122, 'p');
    std::filesystem::create_symlink("/dev/ttyUSB0", root() + port);
    const auto r = run("tessel wan_dloader -od -P /dev/none -P" + port + "qq -D /dev/x -R /dev/y -nD/a -P /dev/none");
    EXPECT_THAT(r.records(), ElementsAre("D stdout ON", "I Delete EFS2 File: /a", StartsWith("D ctime of " + port),
                                         StartsWith("D atime of " + port), StartsWith("D mtime of " + port)));
    EXPECT_THAT(r.out, StartsWith("DEBUG:#stdout ON#\nINFO:#Delete EFS2 File: /a#\n"));
    EXPECT_EQ(all_in("efs"), Files{});
}
