// NV backups, restores and golden copies of a virtual modem: what stands in the file, and what becomes of one.
#include "tests/e2e/nv_fixture.h"
#include "wan_dloader/nv_tables.h"

#include <sstream>

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using namespace std::string_literals;

namespace {

using NvBackup = NvOnTablet;

using Files = std::map<std::string, std::string>;

const std::string item_files = "nv/item_files/";
const std::string radio_files = item_files + "rfnv/";

// A modem that has everything that the tables name.
class FullModem : public NvOnTablet {
protected:
    void SetUp() override
    {
        NvOnTablet::SetUp();
        if (HasFatalFailure() || IsSkipped())
            return;
        modem("normal", full_modem(root()));
        nv = all_in("nv");
        efs = all_in("efs");
    }

    // The items are still there, but zero, and the files are not.
    void wipe() const
    {
        Files zero;
        for (const auto& [name, text] : nv) {
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line);)
                zero[name] +=
                    line.substr(0, line.find(':') + 1) + (line.find("spc") != std::string::npos ? " spc\n" : "\n");
        }
        fill("nv", zero);
        fill("efs", {});
    }

    Files nv, efs;
};

// A modem with little in it.
class SmallModem : public NvOnTablet {
protected:
    const Files nv = {{"00000", "0: 01 02 03\n"}, {"00010", "10: FF\n"}};
    const Files efs = {{item_files + "jcdma/jcdma_mode", "\x04"}};
    const std::string saved = backup_file({{nv_items, {nv_record(0, "\1\2\3"), nv_record(10, "\xFF")}},
                                           {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", "\x04")}},
                                           {efs_files, {}}});

    void fill_all() const
    {
        fill("nv", nv);
        fill("efs", efs);
    }

    void wipe() const
    {
        fill("nv", {});
        fill("efs", {});
    }

    // Runs an operation with a file system of its own as /data, on which `folder` has what is before and afterwards.
    static std::string in_own_data(const std::string& folder, const std::string& disk)
    {
        return "unshare -rm sh -c 'mount -t tmpfs none /data && cp -r " + folder + "/before/. /data && " + disk +
               " && %; status=$?; cp /data/* " + folder + "/after; exit $status'";
    }

    void expect_restored() const
    {
        EXPECT_EQ(all_in("nv"), nv);
        EXPECT_EQ(all_in("efs"), efs);
    }
};

} // namespace

TEST_F(FullModem, IsTheSameAfterBackupLossAndRestore)
{
    ASSERT_EQ(nv.size(), 1360U);
    ASSERT_EQ(efs.size(), 188U + 8 + 1); // and the list of types
    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))), IsEmpty());
    EXPECT_EQ(requests().size(), 1 + 1489 + 2 + 189 * 2 + 1 + 2 + 8 * 4 + 2 + 1); // two files are longer than a piece
    const std::string saved = read_file(backup);

    wipe();
    EXPECT_THAT(complaints_of(take_turn(queue("-nr"), true)), IsEmpty());
    EXPECT_EQ(all_in("nv"), nv);
    EXPECT_EQ(all_in("efs"), efs);
    EXPECT_EQ(read_file(backup), saved);

    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))), IsEmpty());
    EXPECT_EQ(read_file(backup), saved);
}

// What follows a long item file in its chunk is lost, no more: the record says more bytes than it holds.
TEST_F(FullModem, LosesWhatFollowsALongItemFile)
{
    constexpr size_t row = 156;
    const std::string path = NvItemFileList[row].path, name = path.substr(1);
    write_file("/modem/efs" + path, pattern(600, 1));
    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))),
                ElementsAre("E " + path + ": saved 512 of 600 bytes; a restore loses what is behind it",
                            "E NV backup file ends inside record 157"));
    wipe();
    EXPECT_THAT(complaints_of(take_turn(queue("-nr"), true)),
                ElementsAre("W /data/nvbackup.bin is not complete, what can be read of it is restored",
                            "E NV backup file ends inside record 157"));
    EXPECT_EQ(all_in("nv"), nv);
    Files restored;
    for (const NvFileRow& file : NvItemFileList.first(row))
        restored[file.path + 1] = efs[file.path + 1];
    for (const NvFileRow& file : EFSFileList)
        restored[file.path + 1] = efs[file.path + 1];
    Files found = all_in("efs");
    found.erase(".types");
    EXPECT_EQ(found[name].substr(0, 512), pattern(512, 1));
    found.erase(name);
    EXPECT_EQ(found, restored);
}

// What is stored, byte for byte, and why the rest is not; what happens on the way, in order.
TEST_F(NvBackup, HoldsWhatTheModemGave)
{
    // Replies: to the offline request, items, hello, query, radio files; then two to each file that there is.
    // What has no answer, or one to another request, is asked for twice; an item that is queued is not.
    // After the last radio file, whose answer comes when it is asked for again, a query and its second answer.
    const size_t late = 2 + NvItemList.size() + 1 + 2 + 152, before = late + 3;
    const auto fault = [](const std::string& word, size_t reply, const std::string& argument = "") {
        return " --fault " + word + "@" + std::to_string(reply) + argument;
    };
    modem("normal" + fault("drop", 2) + fault("delay", 7, ":6000") + fault("delay", 8, ":100") +
          fault("error", 9, ":0x42") + fault("delay", late, ":6000") + fault("delay", late + 1, ":30") +
          fault("refuse", before + 8, ":13") + fault("sequence", before + 12) + fault("sequence", before + 14) +
          fault("drop", before + 16) + fault("short", before + 20, ":314") + fault("refuse", before + 62, ":13") +
          fault("refuse", before + 66, ":16") + fault("short", before + 68, ":12"));
    fill("nv", {{"00000", "0: 07\n"},
                {"00005", "5: status 7 01\n"},
                {"00010", "10: status 1 01\n"},
                {"00018", "18: status 11 01\n"},
                {"00020", "20/0: AA BB\n20/1: CC\n"}});
    const std::string item = pattern(512, 1), regular = pattern(600, 2);
    const Texts regular_files = {"/nv/item_files/rfnv/00020133", "/nv/item_files/rfnv/00022960",
                                 "/nv/item_files/rfnv/00022967", "/nv/item_files/rfnv/00022975",
                                 "/nv/item_files/rfnv/00022976"};
    std::string types = "regular /nv/item_files/mcs/tcxomgr/tcxo_mode\n";
    for (const std::string& path : regular_files)
        types += "regular " + path + "\n";
    fill("efs", {{".types", types},
                 {item_files + "jcdma/jcdma_mode", item},
                 {item_files + "mcs/tcxomgr/field_cal_version", ""},
                 {item_files + "mcs/tcxomgr/tcxo_mode", "x"},
                 {item_files + "mcs/tcxomgr/xo_factory_cal_debug/x", "x"},
                 {item_files + "modem/mmode/ue_usage_setting", "x"},
                 {item_files + "modem/qmi/cat/qmi_cat_mode", "\x02"},
                 {item_files + "modem/uim/gstk/tp_clients", "x"},
                 {item_files + "modem/uim/uimdrv/hotswap_card_inserted_level", "x"},
                 {item_files + "modem/uim/uimdrv/me_hotswap_configuration", item},
                 {radio_files + "00020090", "x"},
                 {radio_files + "00020133", regular},
                 {radio_files + "00022960", ""},
                 {radio_files + "00022967", "x"},
                 {radio_files + "00022975", regular},
                 {radio_files + "00022976", regular}});

    // The daemon is started in the background, so the command stays until that is done.
    const Job job = start("mkfifo go && tessel wan_dloader -nb; status=$?; cat go; exit $status");
    wait_for_journal("ran stop");
    wait_for_journal("ran start");
    std::ofstream(root() + "/data/go") << "";
    const auto r = finish(job);
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(
        complaints_of(r),
        ElementsAre("E Timeout!", "W NV item (0): no answer",
                    "W NV item (5): Parameter is write-protected and thus read-only.",
                    "W NV item (10): Request is queued.", "E Timeout!", "W NV item (10): no answer",
                    "W NV item (18): Unknown status - 11", "E Timeout!", "W NV item (20): no answer",
                    "W Bad SPC for NV item 20", "E 1 of 1489 NV items could not be read: queued by the modem",
                    "E 1 of 1489 NV items could not be read: refused or cut by the modem",
                    "E Stored as zeros, which a restore writes, since the modem refused them: 1", "E Timeout!",
                    "W Skip /nv/item_files/mcs/tcxomgr/field_cal_version",
                    "W /nv/item_files/mcs/tcxomgr/tcxo_mode is not a NV item file: 0x81b6",
                    "W /nv/item_files/mcs/tcxomgr/xo_factory_cal_debug is not a NV item file: 0x41ff",
                    "E Permission denied.", "W Skip /nv/item_files/modem/mmode/ue_usage_setting",
                    "W Seq number is not matched: in - 4, out - 5", "W Skip /nv/item_files/modem/uim/gstk/tp_clients",
                    "W Seq number is not matched: in - 6, out - 7", "W Skip /nv/item_files/modem/uim/gstk/tp_clients",
                    "E Timeout!", "W Skip /nv/item_files/modem/uim/uimdrv/hotswap_card_inserted_level",
                    "W Response announces 512 bytes, 300 taken",
                    "E /nv/item_files/modem/uim/uimdrv/me_hotswap_configuration came short of its 512 bytes, skip it!",
                    "E 1 of 189 NV item files could not be read: no answer",
                    "E 3 of 189 NV item files could not be read: refused or cut by the modem",
                    "W /nv/item_files/rfnv/00020090 is not an EFS file: 0160777", "E Permission denied.",
                    "W Failed to open /nv/item_files/rfnv/00022967, skip it!", "E Device or resource is busy",
                    "W Failed to read /nv/item_files/rfnv/00022975, skip it!", "E EFS2 STAT response is cut: 12 bytes",
                    "E 4 of 8 EFS files could not be read: refused or cut by the modem"));
    EXPECT_EQ(r.out, "chunk size:  390\nchunk size:  707\n");

    // The item that was refused for want of the programming code has the bytes of the request.
    const std::string mode = file_record("/nv/item_files/modem/qmi/cat/qmi_cat_mode", "\x02"),
                      level = file_record("/nv/item_files/modem/uim/uimdrv/hotswap_card_inserted_level", "x");
    EXPECT_EQ(read_file(backup),
              backup_file({{nv_items, {nv_record(0, "\x07"), nv_record(20, "\0\xAA\xBB"s), nv_record(20, "\1")}},
                           {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", item), mode, level, mode}},
                           {efs_files, {file_record(regular_files[0], regular), file_record(regular_files[1], "")}}}));

    std::string sequences;
    for (const std::string& request : requests())
        if (request.find(": 4B 13 27") != std::string::npos)
            sequences += request.substr(request.find(": ") + 2 + size_t{12} * 3, 3);
    EXPECT_EQ(sequences, "00 01 02 03 04 06 08 09 0A 0B ");
    Texts done = journal();
    std::erase_if(done, [](const std::string& line) {
        return !line.starts_with("ran ") && !line.starts_with("state ") && !line.ends_with(" 29 00 00");
    });
    EXPECT_THAT(done, ElementsAre("state normal", "ran stop ril-daemon: 0", "request ttyUSB0 3: 29 00 00",
                                  "state offline", "ran start ril-daemon: 0"));
    EXPECT_EQ(journal().back(), done.back());
    const Texts records = r.records();
    EXPECT_THAT(
        Texts(records.end() - 21, records.end()),
        ElementsAre("I >>> Start verifying nvbackup file ...", "I Total chunks: 3", "I >>> 3",
                    "I NV Item chunk:", "I \tNV items: 3", "I \tTotal size: 390", "I >>> 2",
                    "I NV Item File chunk:", "I \tNV item files: 4", "I \tTotal size: 707",
                    "I    0 /nv/item_files/jcdma/jcdma_mode", "I    1 /nv/item_files/modem/qmi/cat/qmi_cat_mode",
                    "I    2 /nv/item_files/modem/uim/uimdrv/hotswap_card_inserted_level",
                    "I    3 /nv/item_files/modem/qmi/cat/qmi_cat_mode", "I >>> 1",
                    "I EFS File chunk:", "I \tEFS files: 2", "I \tTotal size: 666", "I    0 " + regular_files[0],
                    "I    1 " + regular_files[1], "I >>> Completed nvbackup file verifying: OK"));
}

// Each operation has a /data of its own, so that what it finds there is not what another one did.
TEST_F(SmallModem, NoCopyIsLostForALesserOne)
{
    modem("normal");
    fill_all();
    const std::string name = "nvbackup_golden.bin", parked = name + "tmp", fresh = saved, old = "old", half = "half";
    // Of a modem that has not lost item 5, and of one that had nothing in item 0.
    const std::string more = backup_file({{nv_items, {nv_record(0, "\1"), nv_record(5, ""), nv_record(10, "\1")}},
                                          {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", "\x04")}},
                                          {efs_files, {}}});
    const std::string less = backup_file({{nv_items, {nv_record(0, ""), nv_record(10, "\1")}},
                                          {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", "\x04")}},
                                          {efs_files, {}}});
    const std::string other = backup_file({{nv_items, {nv_record(5, "\1"), nv_record(10, "\1")}},
                                           {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", "\x04")}},
                                           {efs_files, {}}});
    const std::string before = backup_file({{nv_items, {nv_record(0, "\2"), nv_record(10, "\2")}},
                                            {nv_item_files, {file_record("/nv/item_files/jcdma/jcdma_mode", "\2")}},
                                            {efs_files, {}}});
    const std::string cut = saved.substr(0, 200);
    // Nothing is lost in it but the length of a path, which hides the item file.
    std::string damaged = saved;
    damaged.at(saved.find("/nv/item_files") - 2) = 'x';
    const std::string holds_fresh = "holds 2 NV items (2 not zero), 1 item files (1 bytes), 0 EFS files (0 bytes); ",
                      with_more = "with 3 NV items (2 not zero), 1 item files (1 bytes), 0 EFS files (0 bytes), ";
    const std::string absent = ": No such file or directory", missing = "E fopen "s + golden + absent;
    const std::string fresh_golden = golden + ".new"s, no_fresh = "E fopen " + fresh_golden + absent;
    const auto no_room = [](const std::string& path) {
        return Texts{"E Failed to write " + path + ": No space left on device",
                     "E NV backup file size is not correct! expected: 28, actual: 0",
                     "E NV backup file size is not correct! expected: 40, actual: 0", "E Not a valid NV backup file"};
    };
    Texts no_room_beside = no_room(backup + ".new"s);
    no_room_beside.emplace_back("E No new backup: /data/nvbackup.bin is the one from before");
    const std::string stored = "nvbackup.bin", kept = stored + ".old";
    const std::string not_better = "E The new golden copy " + holds_fresh + "the old one, " + with_more + "stays";
    const std::string set_aside =
        "W The new backup " + holds_fresh + "the one before, " + with_more + "is kept as /data/nvbackup.bin.old";
    const std::string not_whole = "W "s + golden + " is not complete, make it anew with -f";
    const std::string undone = "W Putting back the golden copy of a renewal that was cut short";
    const struct {
        const char* options;
        const char* disk;
        Files before, after;
        Texts complaints;
        bool asks, resets;
    } rows[] = {
        {"-ng", "true", {}, {{name, fresh}}, {}, true, false},
        {"-ng", "true", {{name, old}}, {{name, old}}, {not_whole}, false, false},
        {"-ng", "true", {{name, fresh}, {parked, old}}, {{name, fresh}, {parked, old}}, {}, false, false},
        {"-ng", "mount -o remount,size=4k /data", {{half, fresh}}, {{half, fresh}}, no_room(fresh_golden), true, false},
        {"-fng", "true", {{name, cut}}, {{name, fresh}}, {}, true, false},
        {"-fng", "true", {{name, less}}, {{name, fresh}}, {}, true, false},
        {"-fng", "true", {{name, more}}, {{name, more}}, {not_better}, true, false},
        {"-ng", "true", {{name, fresh}, {parked, more}}, {{name, more}}, {undone}, false, false},
        {"-ng", "true", {{name, fresh}, {parked, before}}, {{name, fresh}, {parked, before}}, {}, false, false},
        {"-ng", "true", {{name, fresh + "x"}, {parked, fresh}}, {{name, fresh}}, {undone}, false, false},
        {"-ng", "true", {{parked, fresh}}, {{name, fresh}}, {undone}, false, false},
        {"-fng",
         "mkdir /tmp/none && ln -s /bin/false /tmp/none/rm && export PATH=/tmp/none:$PATH",
         {{name, before}},
         {{name, fresh}, {parked, before}},
         {"W Failed to remove /data/" + parked},
         true,
         false},
        {"-ng", "true", {{name, fresh}, {parked, less}}, {{name, fresh}, {parked, less}}, {}, false, false},
        {"-nb", "true", {{stored, less}}, {{stored, fresh}}, {}, true, false},
        {"-nb",
         "true",
         {{stored, more}, {kept, less}},
         {{stored, fresh}, {kept, less}, {kept + "1", more}},
         {set_aside + "1"},
         true,
         false},
        {"-nb",
         "true",
         {{stored, other}},
         {{stored, fresh}, {kept, other}},
         {"W The new backup " + holds_fresh +
              "the one before, with 2 NV items (2 not zero), 1 item files (1 bytes), 0 EFS "
              "files (0 bytes), is kept as /data/nvbackup.bin.old",
          "W Not in the new one: NV item 5"},
         true,
         false},
        {"-nb",
         "true",
         {{stored, "x" + more}},
         {{stored, fresh}, {kept, "x" + more}},
         {"W The new backup " + holds_fresh +
          "the one before, with 0 NV items (0 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes), is kept as "
          "/data/nvbackup.bin.old"},
         true,
         false},
        {"-nb",
         "true",
         {{stored, damaged}, {stored + ".new", more}},
         {{stored, fresh}, {kept, more}, {kept + "1", damaged}},
         {"W /data/nvbackup.bin.new had not taken its place, and is kept as /data/nvbackup.bin.old",
          "W The new backup " + holds_fresh +
              "the one before, with 2 NV items (2 not zero), 0 item files (0 bytes), 0 EFS files (0 bytes), is kept as "
              "/data/nvbackup.bin.old1"},
         true,
         false},
        {"-nb", "true", {{stored, cut}, {stored + ".new", cut}}, {{stored, fresh}}, {}, true, false},
        {"-fng",
         "true",
         {{name, damaged}},
         {{name, fresh}, {name + ".old", damaged}},
         {"W The old golden copy is damaged, and is kept as "s + golden + ".old"},
         true,
         false},
        {"-nb", "true", {{stored, less}, {kept, more}}, {{stored, fresh}, {kept, more}}, {}, true, false},
        {"-nb", "mount -o remount,size=4k /data", {{stored, more}}, {{stored, more}}, no_room_beside, true, false},
        {"-fng", "mount -o remount,size=4k /data", {{name, old}}, {{name, old}}, no_room(fresh_golden), true, false},
        {"-fng",
         "mount -o remount,ro /data",
         {{name, old}},
         {{name, old}},
         {"E Failed to move "s + golden + " to " + golden + "tmp"},
         false,
         false},
        {"-ng",
         "mount -o remount,ro /data",
         {},
         {},
         {"E fopen " + fresh_golden + ": Read-only file system", no_fresh, no_fresh, no_fresh},
         true,
         false},
        {"-ng", "true", {{name, half}, {parked, old}}, {{name, half}, {parked, old}}, {not_whole}, false, false},
        {"-ng",
         "true",
         {{name, fresh + "x"}, {parked, ""}},
         {{name, fresh + "x"}, {parked, ""}},
         {not_whole},
         false,
         false},
        {"-nG", "true", {{name, half}, {parked, fresh}}, {{name, fresh}}, {undone}, true, true},
        {"-nG", "true", {}, {}, {missing, missing, missing}, true, true},
    };
    // So few wait at once that none waits for its turn for as long as it would for a modem.
    constexpr size_t at_once = 3;
    std::vector<Job> jobs;
    for (size_t i = 0; i < std::size(rows); ++i) {
        while (jobs.size() < std::min(std::size(rows), i + at_once)) {
            const auto& row = rows[jobs.size()];
            const std::string folder = "/sdcard/" + std::to_string(jobs.size());
            put(folder + "/before/", row.before);
            fs::create_directories(root() + folder + "/after");
            jobs.push_back(queue(row.options, in_own_data(folder, row.disk)));
        }
        SCOPED_TRACE(i);
        const size_t asked = requests().size();
        const auto r = take_turn(jobs[i], rows[i].resets);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(complaints_of(r), rows[i].complaints);
        EXPECT_EQ(files_in("/sdcard/" + std::to_string(i) + "/after"), rows[i].after);
        EXPECT_EQ(requests().size() != asked, rows[i].asks);
    }
    expect_restored();
}

// An answer to a file comes twice, and the second may have been taken for that to the next: the same size tells
// nothing. Behind the last file it shows by a question, if that is answered.
TEST_F(SmallModem, NoCopyIsLostForADoubtfulOne)
{
    // Replies of a backup: to the offline request, items, hello, query, files, the one that is there, and the question.
    const size_t first_file = 1 + NvItemList.size() + 2 + 1,
                 each = first_file + NvItemFileList.size() + 1 + 2 + EFSFileList.size() + 1;
    const std::string first = std::to_string(first_file), last = std::to_string(2 * each - 1),
                      question = std::to_string(3 * each), greeting = std::to_string(3 * each + 1);
    modem("normal --fault twice@" + first + " --fault twice@" + last + " --fault dribble@" + last +
          ":1000 --fault drop@" + question + " --fault drop@" + greeting);
    fill_all();
    const std::string doubled = "E 1 EFS2 replies belong to no request: what came before may be another file's",
                      holds = "2 NV items (2 not zero), 1 item files (1 bytes), 0 EFS files (0 bytes)";
    const Texts not_kept = {doubled, "E The new golden copy is not kept"};
    // Where it comes before the next request is out, it is passed over; else all answers from there on are the next's.
    const Texts shifted = {"W Skip /nv/item_files/mcs/tcxomgr/field_cal_version", doubled,
                           "E 1 of 189 NV item files could not be read: refused or cut by the modem", not_kept.back()};
    write_file(backup, saved);
    EXPECT_THAT(complaints_of(take_turn(queue("-ng"))), ::testing::AnyOf(not_kept, shifted));
    EXPECT_EQ(files_in("/data"), (Files{{"nvbackup.bin", saved}}));
    write_file(golden, saved);
    EXPECT_EQ(complaints_of(take_turn(queue("-fng"))), not_kept);
    EXPECT_EQ(files_in("/data"), (Files{{"nvbackup.bin", saved}, {"nvbackup_golden.bin", saved}}));
    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))),
                ElementsAre("E Timeout!", "E Timeout!",
                            "E No answer behind the last file: what came before may be another file's",
                            "W The new backup holds " + holds + "; the one before, with " + holds +
                                ", is kept as /data/nvbackup.bin.old"));
    EXPECT_EQ(read_file("/data/nvbackup.bin.old"), saved);
}

// The modem goes away between two files: what was complete is on the disk, and the next run uses it.
TEST_F(SmallModem, GoesAwayAmongTheFiles)
{
    if (!obstacle().empty())
        return skip(obstacle()); // without power files it would not come back
    modem("normal --fault unplug@" + std::to_string(1 + NvItemList.size() + 2 + 153 + 2));
    fill_all();
    const auto r = take_turn(queue("-nb"));
    EXPECT_EQ(r.status, 69);
    EXPECT_THAT(r.errors(), Contains("Error in pktio_send_packet()"));
    wipe();
    (void)run("echo 2 >/sys/wan/power");
    EXPECT_THAT(complaints_of(take_turn(queue("-nr"), true)),
                ElementsAre("W /data/nvbackup.bin is not complete, what can be read of it is restored",
                            "E !!!Not found NV item file block", "E !!!Not found EFS file block"));
    EXPECT_EQ(all_in("nv"), nv);
    EXPECT_EQ(all_in("efs"), Files{});
}

// It goes away among the items: none counts, and the old golden copy stays where the next run looks for it.
TEST_F(SmallModem, GoesAwayAmongTheItems)
{
    modem("normal --fault unplug@50");
    fill_all();
    write_file(golden, "old");
    const auto r = run("tessel wan_dloader -fng");
    EXPECT_EQ(r.status, 69);
    EXPECT_THAT(r.errors(), Contains("Error in pktio_send_packet()"));
    Files left = files_in("/data");
    EXPECT_EQ(left["nvbackup_golden.bintmp"], "old");
    EXPECT_THAT(left["nvbackup_golden.bin.new"], StartsWith(backup_file({{nv_items, {}}}) + nv_record(0, "\1\2\3")));
    EXPECT_EQ(left.size(), 2U);
}

// Somebody else is at work on the NV data: nothing is asked, and the radio daemon is not started in the midst of it.
TEST_F(SmallModem, HasOneVisitorAtATime)
{
    modem("normal");
    for (const char* options : {"-nb", "-nU/x", "-nF/x", "-m all"}) {
        const auto r = run("flock /data tessel wan_dloader "s + options);
        EXPECT_EQ(r.status, options[1] == 'm' ? 1 : 0);
        EXPECT_THAT(r.records(), ElementsAre("E NV data are in use by another wan_dloader")) << options;
    }
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_THAT(actions(), IsEmpty());
}

// A run goes on when its messages are read no more.
TEST_F(SmallModem, IsSavedAlsoUnheard)
{
    modem("normal");
    fill_all();
    EXPECT_THAT(complaints_of(run("{ tessel wan_dloader -o -nb; echo $? >/data/status; } | head -n 1")), IsEmpty());
    EXPECT_EQ(files_in("/data"), (Files{{"nvbackup.bin", saved}, {"status", "0\n"}}));
}

// A run that is killed has told in a file what it was at.
TEST_F(SmallModem, TellsWhereItIs)
{
    modem("normal --fault silence@1");
    EXPECT_EQ(
        run(": >/data/log; tessel wan_dloader -o -nb >/data/log & pid=$!; "
            "{ tail -n +1 -f --pid=$pid /data/log & } | grep -qm1 '#Backup QCN'; told=$?; kill -9 $pid; exit $told")
            .status,
        0);
}

// In the place of a backup is something else.
TEST_F(SmallModem, BackupIsAFile)
{
    modem("normal");
    fill_all();
    fs::create_directory(root() + backup);
    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))),
                ElementsAre("E rename /data/nvbackup.bin.new: Is a directory",
                            "E No new backup: /data/nvbackup.bin is the one from before",
                            "W The new one is /data/nvbackup.bin.new"));
    EXPECT_EQ(read_file("/data/nvbackup.bin.new"), saved);
    fs::remove(root() + backup);
    ASSERT_EQ(run_shell("mkfifo %s%s", root().c_str(), backup), 0);
    const std::string no_file = "E fopen /data/nvbackup.bin: Invalid argument";
    EXPECT_THAT(complaints_of(take_turn(queue("-nr"), true)),
                ElementsAre("W /data/nvbackup.bin is not complete, what can be read of it is restored", no_file,
                            no_file, no_file));
    EXPECT_THAT(complaints_of(take_turn(queue("-nb"))),
                ElementsAre("W /data/nvbackup.bin.new had not taken its place, and is kept as /data/nvbackup.bin.old"));
    EXPECT_EQ(files_in("/data"), (Files{{"nvbackup.bin", saved}, {"nvbackup.bin.old", saved}}));
    EXPECT_EQ(fs::status(root() + backup).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// None of the operations finds its port, and a renewal puts the old golden copy back.
TEST_F(SmallModem, IsNotWhereItIsAwaited)
{
    modem("normal");
    write_file("/sdcard/0/nvbackup_golden.bin", saved);
    const std::string timeout = "W Timeout: DIAG port (/dev/none) doesn't exist";
    const std::pair<const char*, Texts> operations[] = {
        {"-fng", {timeout}},  {"-nb", {timeout}},   {"-nr", {timeout, "E Timeout: DIAG port (/dev/none) is not ready"}},
        {"-nF/x", {timeout}}, {"-nD/x", {timeout}},
    };
    std::vector<Job> jobs;
    for (const auto& [options, complaints] : operations) {
        const std::string folder = "/sdcard/" + std::to_string(jobs.size());
        jobs.push_back(queue("-P /dev/none "s + options, with_data_in(folder)));
    }
    for (size_t i = 0; i < jobs.size(); ++i) {
        const auto r = finish(jobs[i]);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(complaints_of(r), operations[i].second);
    }
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(files_in("/sdcard/0"), (Files{{"nvbackup_golden.bin", saved}}));
}
