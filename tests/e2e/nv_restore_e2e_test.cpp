// What a restore makes of a backup file: of one that is damaged or lies, and with a modem that refuses.
#include "tests/e2e/nv_fixture.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using namespace std::string_literals;

namespace {

// A backup file, damaged, and what a restore makes of it.
struct Damage {
    const char* name;
    std::string bytes;
    Texts complaints;
    size_t items;       // how many items the modem then has, in the order of the file
    const char* files;  // which files it then has, by the last letter of their names
    bool whole = false; // its records are, whatever stands in them
};

const Texts hand_made_items = {nv_record(0, "\1"), nv_record(10, "\2"), nv_record(85, "\3")};
const std::map<std::string, std::string> hand_made_files = {{"nv/item_files/a", "abc"},
                                                            {"nv/item_files/ax", "abc"},
                                                            {"sd/b", pattern(600, 1)},
                                                            {"sd/e", pattern(600, 2)},
                                                            {"sd/f", "ef"}};
const Texts hand_made_item_files = {file_record("/nv/item_files/a", "abc"), file_record("/sd/b", pattern(600, 1))};
const Texts hand_made_efs_files = {file_record("/sd/e", pattern(600, 2)), file_record("/sd/f", "ef")};

std::string damaged_backup(const Texts& second)
{
    return backup_file({{nv_items, hand_made_items}, {nv_item_files, second}, {efs_files, hand_made_efs_files}});
}

const std::string good_backup = damaged_backup(hand_made_item_files);

// Where its chunks and records begin.
constexpr size_t items_at = 16, item_0 = 28, item_files_at = 28 + 3 * 130, record_a = item_files_at + 12,
                 record_b = record_a + 24, efs_files_at = record_b + 610, record_e = efs_files_at + 12,
                 record_f = record_e + 610, backup_end = record_f + 12;

std::string cut(size_t size)
{
    return good_backup.substr(0, size);
}

std::string with(size_t at, const std::string& bytes)
{
    return std::string(good_backup).replace(at, bytes.size(), bytes);
}

std::string inside(int record)
{
    return "E NV backup file ends inside record " + std::to_string(record);
}

std::string damaged(int record, const std::string& path)
{
    return "E NV backup file is damaged at record " + std::to_string(record) + ": " + path;
}

std::string no_data(const std::string& path)
{
    return "E Failed to read file: /data/nvbackup.bin for " + path + " record";
}

const std::string no_items = "E !!!Not found NV item block", no_item_files = "E !!!Not found NV item file block",
                  no_efs_files = "E !!!Not found EFS file block";
const std::string one_not_restored = "E 1 NV item files were not restored";
const std::string two_too_much = "E 2 EFS2 replies belong to no request: what came before may be another file's";
const Texts no_chunks = {no_items, no_item_files, no_efs_files};
const Texts no_backup(3, "E Not a valid NV backup file");
const std::string four_billion = "\xFF\xFF\xFF\xFF";

// clang-format off
const std::vector<Damage> cut_early = {
    {"empty file", cut(0), no_backup, 0, ""},
    {"in the magic", cut(7), no_backup, 0, ""},
    {"in the number of chunks", cut(13), no_chunks, 0, ""},
    {"before the first chunk", cut(items_at), no_chunks, 0, ""},
    {"in its header", cut(item_0 - 1), {inside(0), no_item_files, no_efs_files}, 0, ""},
    {"in an item", cut(item_0 + 259), {inside(1), no_item_files, no_efs_files}, 1, ""},
    {"behind the items", cut(item_files_at), {no_item_files, no_efs_files}, 3, ""},
    {"in the second header", cut(item_files_at + 5), {inside(0), no_efs_files}, 3, ""},
    {"in a path's length", cut(record_a + 1), {inside(0), no_efs_files}, 3, ""},
    {"in a path", cut(record_a + 18), {inside(0), no_efs_files}, 3, ""},
    {"in a length", cut(record_a + 20), {inside(0), no_efs_files}, 3, ""},
    {"in the data", cut(record_b - 1), {no_data("/nv/item_files/a"), no_efs_files}, 3, ""},
};
const std::vector<Damage> cut_late = {
    {"between files", cut(record_b), {inside(1), no_efs_files}, 3, "a"},
    {"in the second path's length", cut(record_b + 1), {inside(1), no_efs_files}, 3, "a"},
    {"in the second path", cut(record_b + 5), {inside(1), no_efs_files}, 3, "a"},
    {"in the last data", cut(efs_files_at - 1), {no_data("/sd/b"), no_efs_files}, 3, "a"},
    {"behind the item files", cut(efs_files_at), {no_efs_files}, 3, "ab"},
    {"in the third header", cut(efs_files_at + 9), {inside(0)}, 3, "ab"},
    {"in the data of a regular file", cut(record_f - 1), {no_data("/sd/e")}, 3, "ab"},
    {"between regular files", cut(record_f), {inside(1)}, 3, "abe"},
    {"one byte short", cut(backup_end - 1), {no_data("/sd/f")}, 3, "abe"},
    {"no damage", cut(backup_end), {}, 3, "abef", true},
    {"trailing bytes", good_backup + "more", {}, 3, "abef"},
    {"no chunks", with(12, le32(0)), no_chunks, 0, ""},
    {"endless chunks", with(12, four_billion).substr(0, efs_files_at), {no_efs_files}, 3, "ab"},
};
const std::vector<Damage> lies = {
    {"first magic", with(3, "M"), no_backup, 0, ""},
    {"second magic", with(4, "Q"), no_backup, 0, ""},
    {"version", with(8, four_billion), {}, 3, "abef", true},
    {"tag", with(items_at, "\3"), {no_items}, 0, "abef"},
    {"items: count", with(items_at + 4, four_billion), {}, 3, "abef"},
    {"items: fewer", with(items_at + 4, le32(2)), {}, 3, "abef"},
    {"items: count and size", with(items_at + 4, four_billion + four_billion), {
     "E The NV item block is damaged: 4294967295 NV items in 4294967295 bytes", no_item_files, no_efs_files}, 0, ""},
    {"items: count, of a cut block", with(items_at + 4, four_billion).substr(0, item_files_at - 1), {
     "E The NV item block is damaged: 4294967295 NV items in 390 bytes", no_item_files, no_efs_files}, 0, ""},
    {"items: size", with(items_at + 8, four_billion), {no_item_files, no_efs_files}, 3, ""},
    {"items: short", with(items_at + 8, le32(129)), {no_item_files, no_efs_files}, 3, ""},
    {"files: count", with(item_files_at + 4, four_billion), {inside(2)}, 3, "abef"},
    {"files: fewer", with(item_files_at + 4, le32(1)), {}, 3, "aef"},
    {"files: short", with(item_files_at + 8, le32(25)), {inside(1), no_efs_files}, 3, "a"},
};
const std::vector<Damage> odd_records = {
    {"path beyond the chunk", with(record_a, "\xFF\xFF"), {inside(0)}, 3, "ef"},
    {"no path", with(record_a, le16(0)), {no_data("")}, 3, "ef"},
    {"data cut", with(record_a + 19, le16(2)), {damaged(0, "/nv/item_files/a")}, 3, "ef"},
    {"data of the next", with(record_a + 19, le16(30)), {damaged(0, "/nv/item_files/a")}, 3, "ef"},
    {"data of the next, for a long one's", with(record_a + 19, le16(515)), {damaged(0, "/nv/item_files/a")}, 3, "ef"},
    {"long data cut", with(record_e + 8, le16(516)), {damaged(0, "/sd/e")}, 3, "ab"},
    {"last data cut", with(record_f + 8, le16(1)), {damaged(1, "/sd/f")}, 3, "abe"},
    {"path without zero", with(record_a + 18, "x"), {}, 3, "xbef", true},
    {"data beyond the chunk", with(record_a + 19, "\xFF\xFF"), {no_data("/nv/item_files/a")}, 3, "ef"},
    {"data beyond a request", damaged_backup({hand_made_item_files[0], file_record("/sd/b", std::string(2100, 'b'))}),
     {"E EFS2 request is too long: 2120 bytes, with a path of 5 characters", "E Failed to put nv file: /sd/b", one_not_restored}, 3, "aef", true},
    {"path beyond a request", damaged_backup({file_record(std::string(3000, 'p'), ""), hand_made_item_files[1]}),
     {"E EFS2 request is too long: 3015 bytes, with a path of 3000 characters", "E Failed to put nv file: " + std::string(3000, 'p'), one_not_restored}, 3, "bef", true},
    {"path of a folder", damaged_backup({file_record("/sd", "x"), hand_made_item_files[1]}),
     {"E Is a directory", "E Failed to put nv file: /sd", one_not_restored}, 3, "bef", true},
};
// clang-format on

// As many as can wait for their turns together.
struct Damages {
    std::string name;
    std::vector<Damage> files;
};

void PrintTo(const Damages& damages, std::ostream* out)
{
    *out << damages.name;
}

class DamagedBackup : public NvOnTablet, public ::testing::WithParamInterface<Damages> {};

INSTANTIATE_TEST_SUITE_P(Restore, DamagedBackup,
                         ::testing::Values(Damages{"CutEarly", cut_early}, Damages{"CutLate", cut_late},
                                           Damages{"WithLies", lies}, Damages{"WithOddRecords", odd_records}),
                         [](const auto& tested) { return tested.param.name; });

} // namespace

TEST_P(DamagedBackup, GivesWhatItCanAndSaysWhatNot)
{
    ASSERT_EQ(good_backup.size(), backup_end);
    modem("normal --reenumerate 50");
    const auto folder = [](size_t i) { return "/sdcard/" + std::to_string(i); };
    std::vector<Job> jobs;
    for (size_t i = 0; i < GetParam().files.size(); ++i)
        jobs.push_back(queue("-nr", with_data_in(folder(i))));
    for (size_t i = 0; i < jobs.size(); ++i) {
        const Damage& damage = GetParam().files[i];
        SCOPED_TRACE(damage.name);
        write_file(folder(i) + "/nvbackup.bin", damage.bytes);
        fill("nv", {{"00085", "85: spc 00\n"}});
        fill("efs", {{"sd/old", ""}});

        const auto r = take_turn(jobs[i], true);
        EXPECT_EQ(r.status, 0);
        Texts complaints = damage.complaints;
        if (!damage.whole)
            complaints.insert(complaints.begin(),
                              "W /data/nvbackup.bin is not complete, what can be read of it is restored");
        EXPECT_EQ(complaints_of(r), complaints);
        Files nv = {{"00000", "0: 01\n"}, {"00010", "10: 02\n"}, {"00085", "85: spc 03\n"}};
        if (damage.items < 3)
            nv["00085"] = "85: spc 00\n";
        if (damage.items < 2)
            nv.erase("00010");
        if (damage.items < 1)
            nv.erase("00000");
        EXPECT_EQ(all_in("nv"), nv);
        Files efs = {{"sd/old", ""}};
        for (const auto& [path, bytes] : hand_made_files) {
            if (std::string_view(damage.files).find(path.back()) != std::string_view::npos)
                efs[path] = bytes;
        }
        if (efs.contains("sd/b"))
            efs[".types"] = "item /sd/b\n";
        EXPECT_EQ(all_in("efs"), efs);
    }
}

namespace {

using NvRestore = NvOnTablet;

}

TEST_F(NvRestore, GoesOnWhereTheModemRefuses)
{
    // Replies: offline, programming code, three items, two item files; then what opens, writes and closes a file.
    modem("normal --spc 123456 --fault drop@3 --fault refuse@6:13 --fault sequence@7 --fault refuse@11:28 --fault "
          "refuse@14:13 --fault twice@14");
    write_file(backup, good_backup);
    fill("nv", {{"00010", "10: write-status 7 FF\n"}, {"00085", "85: spc 00\n"}});
    fill("efs", {{"sd/f", "old"}});
    const auto r = run("tessel wan_dloader -nr");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(complaints_of(r),
                ElementsAre("E Timeout!", "W NV item (0): no answer",
                            "W NV item (10): Parameter is write-protected and thus read-only.",
                            "W Bad SPC for NV item 85", "E 2 NV items were not restored", "E Permission denied.",
                            "E Failed to put nv file: /nv/item_files/a", "W Seq number is not matched: in - 2, out - 3",
                            one_not_restored, "E No space left on device", "E Failed to write EFS file: /sd/e",
                            "E Permission denied.", "E Failed to open EFS file: /sd/f",
                            "E 2 EFS files were not restored", two_too_much));
    for (const char* total : {"I >>> Totally restored 3 NV items.", "I >>> Totally restored 2 NV item files",
                              "I >>> Totally restored 2 EFS files"})
        EXPECT_THAT(r.records(), Contains(total));
    EXPECT_THAT(complaints(), Contains("complaint: wrong service programming code"));
}

// The modem opens the files, and so empties them, but says so only once; and it does not close the first one.
TEST_F(NvRestore, OpensAFileAgainWhenTheAnswerIsLost)
{
    modem("normal --fault drop@9 --fault refuse@14:13 --fault drop@16 --fault drop@18");
    write_file(backup, good_backup);
    fill("efs", {{"sd/e", std::string(700, 'x')}, {"sd/f", "old"}});
    const auto r = run("tessel wan_dloader -nr");
    const std::string timeout = "E Timeout!", no_open = "W EFS2 OPEN DIAG command failure: 71";
    EXPECT_THAT(complaints_of(r),
                ElementsAre(timeout, no_open, "E Permission denied.",
                            "E Failed to close EFS file: /sd/e, it may not be whole", timeout, no_open, timeout,
                            no_open, "E No answer to opening /sd/f, it may be empty on the modem",
                            "E Failed to open EFS file: /sd/f", "E 2 EFS files were not restored"));
    EXPECT_EQ(read_file("/modem/efs/sd/e"), hand_made_files.at("sd/e"));
    EXPECT_EQ(read_file("/modem/efs/sd/f"), "");
}

TEST_F(NvRestore, EndsWithTheModem)
{
    modem("normal --fault unplug@4");
    write_file(backup, good_backup);
    fill("nv", {});
    const auto r = run("tessel wan_dloader -nr");
    EXPECT_EQ(r.status, 69);
    EXPECT_THAT(r.errors(), Contains("Error in pktio_send_packet()"));
    EXPECT_EQ(all_in("nv"), (Files{{"00000", "0: 01\n"}, {"00010", "10: 02\n"}}));
}
