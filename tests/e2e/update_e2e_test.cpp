// Complete firmware updates of a virtual modem: what stands in its flash afterwards, and what is as it was.
#include "tests/e2e/nv_fixture.h"
#include "tests/e2e/scenario.h"
#include "tests/e2e/update_fixture.h"

#include <filesystem>
#include <random>
#include <utility>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;
using ::testing::Not;
using namespace std::string_literals;

namespace {

using Places = std::map<std::string, std::string>;
const Places mdm9615 = {{"sbl1", "sbl1.mbn"}, {"sbl2", "sbl2.mbn"}, {"rpm", "rpm.mbn"},
                        {"dsp1", "dsp1.mbn"}, {"dsp2", "dsp2.mbn"}, {"aboot", "appsboot.mbn"}};
const Places qsc6270 = {{"dbl", "dbl.mbn"}, {"fsbl", "fsbl.mbn"}, {"osbl", "osbl.mbn"}, {"amss", "amss.mbn"}};
const Places linux_side = {{"boot", "boot-oe-msm9615.img"},
                           {"system", "9615-cdp-image-9615-cdp.yaffs2"},
                           {"userdata", "9615-cdp-usr-image.usrfs.yaffs2"}};

Places both(Places places, const Places& more)
{
    places.insert(more.begin(), more.end());
    return places;
}

const Places everything = both(both(mdm9615, linux_side), {{"mibib", "partition.mbn"}});
const Places mdm9600 = both(qsc6270, {{"dsp1", "dsp1.mbn"}, {"dsp2", "dsp2.mbn"}});

// The stages, as runs show them.
const Texts all_verified = {"I >>> STAGE1: Verify image files to be updated ...",
                            "I >>> Verify if needing to erase all partitions ..."};
const Texts from_diag = {"I >>> STAGE2: Backup NV items ..."};
const Texts modem_written = {"I >>> STAGE3: Update MODEM images ..."};
const Texts linux_written = {"I >>> STAGE4: Update LINUX images ...", "I >>> STAGE5: Restore NV items ..."};
const Texts completed = {"I >>> STAGE6: Update the given NV items ...", "I >>> STAGE7: Completed!", "I >>> Exiting..."};
const Texts all_written = modem_written + linux_written + completed,
            all_stages = all_verified + from_diag + all_written;

const std::string update = "tessel wan_dloader ";
const std::string older = "normal --revision RIDGE_02_05_07 --apps VA1", newer = "--version RIDGE_02_05_08 --apps VA2";
const std::string without_nv_files = " --without nvitems.txt --without nvitems_all.txt";
const std::string no_erase = "W    No need to erase all partitions!";
const std::string no_rm = "ln -s /bin/false /tmp/rm && PATH=/tmp:$PATH ";
const Texts no_nv_files = {"E Failed to find the file nvitems.txt", "W Failed to fetch NV file nvitems.txt",
                           "E Failed to find the file nvitems_all.txt", "W Failed to fetch NV file nvitems_all.txt"};

class FirmwareUpdate : public UpdateOnTablet {
protected:
    // A run from first to last: the stages it goes through, what it remarks, and that it ends well.
    Result run_through(const std::string& options, const Texts& stages, const Texts& remarked,
                       const std::string& before = {})
    {
        Result r = run(before + update + options);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(those_of(all_stages, headlines(r)), stages); // NV data have headlines of their own
        EXPECT_EQ(remarks(r), remarked);
        return r;
    }
};

// Chips whose port goes away when the flash programmer starts.
class OtherChips : public FirmwareUpdate, public ::testing::WithParamInterface<std::string> {};

// What the run would end for is found out while the modem still has everything.
struct Unsafe {
    const char* name;
    std::string error, options = "-E", modem = {}, package = {}, disk = {};
    std::map<std::string, std::string> nv_data = {};
};

std::vector<Unsafe> unsafe()
{
    const std::string no_room = "No room in /data for the Linux images: .* bytes needed, .* free",
                      small_disk = "mount -t tmpfs -o size=40k none /data && ",
                      not_whole = "Nothing is erased: 1 values of the modem are not whole in its backup";
    const std::string first_file = std::to_string(4 + NvItemList.size() + 2);
    return {
        {.name = "WithoutProgrammer", .error = "Not found emergency downloader", .package = "--without ENPRG9x15.hex"},
        {.name = "WithoutTable",
         .error = "Unable to open partition file /sdcard/firmware/partition.mbn",
         .package = "--without partition.mbn"},
        {.name = "WithoutRoomForABackup",
         .error = "Not a valid NV backup file",
         .disk = "mount -t tmpfs -o size=4k none /data && "},
        {.name = "WithoutRoom", .error = no_room, .package = "--size 1000000", .disk = small_disk},
        {.name = "WithoutRoomForTheGoldenCopy",
         .error = no_room,
         .package = "--size 1000000",
         .disk = small_disk,
         .nv_data = {{"efs/nv/item_files/rfnv/00022960", std::string(20'000, 'x')}}},
        {.name = "WithoutRoomToUpdate",
         .error = no_room,
         .options = "-f -a -l",
         .package = "--size 1000000",
         .disk = small_disk},
        {.name = "WithoutScratchFile",
         .error = "/data/tmp.bin is in the way of the Linux images",
         .package = "--without ota_conf.txt",
         .disk = "mkfifo /data/tmp.bin && "},
        {.name = "Unanswered", .error = not_whole, .modem = "--fault drop@4 --fault drop@5"},
        {.name = "Refused", .error = not_whole, .modem = "--fault error@4:0x42"},
        {.name = "Withheld", .error = not_whole, .modem = "--fault refuse@" + first_file + ":13"},
        {.name = "Doubled", .error = not_whole, .modem = "--fault twice@" + first_file},
        {.name = "TooLong",
         .error = not_whole,
         .nv_data = {{"efs/nv/item_files/jcdma/jcdma_mode", std::string(600, 'x')}}},
        {.name = "NoKind", .error = not_whole, .modem = "--fault refuse@" + first_file + ":0"},
        {.name = "OtherKind",
         .error = not_whole,
         .nv_data = {{"efs/.types", "regular /nv/item_files/rfnv/00020090\nitem /sd/rat_acq_order\n"}}},
        {.name = "OtherIndex",
         .error = not_whole,
         .modem = "--fault twice@8 --fault dribble@8:100",
         .nv_data = {{"nv/00020", "20/0: AA\n20/1: CC\n"}}},
        {.name = "Status", .error = not_whole, .nv_data = {{"nv/00550", "550: status 4 01\n"}}},
    };
}

void PrintTo(const Unsafe& row, std::ostream* out)
{
    *out << row.name;
}

class UnsafeUpdate : public FirmwareUpdate, public ::testing::WithParamInterface<Unsafe> {};
INSTANTIATE_TEST_SUITE_P(Update, UnsafeUpdate, ::testing::ValuesIn(unsafe()),
                         [](const auto& tested) { return tested.param.name; });

// The modem goes away in the middle of an image, at a point of its own for each seed.
class CutShort : public FirmwareUpdate, public ::testing::WithParamInterface<unsigned> {
protected:
    // Starts a modem whose reply to one of the blocks of the package's images is its last.
    void weak_modem(const std::string& words, const Texts& more = {})
    {
        constexpr unsigned first = 6, block = 1024; // behind greeting, security mode, tables, opening
        unsigned blocks = 0;
        for (const auto& [partition, name] : mdm9615)
            blocks += static_cast<unsigned>(member(name).size()) / block;
        modem(words + " --fault flash/unplug@" + std::to_string(first + std::mt19937(GetParam())() % blocks), more);
    }

    void run_in_vain(const std::string& options)
    {
        const Result r = run(update + options);
        EXPECT_EQ(r.status, 69);
        EXPECT_THAT(r.errors(), Not(IsEmpty()));
        EXPECT_EQ(headlines(r).back(), modem_written.front());
        remove_modem();
    }
};

} // namespace

TEST_F(FirmwareUpdate, WritesEverythingAndThenFindsNothingToDo)
{
    modem(older);
    package(newer + without_nv_files);
    remember();
    const Result r = run_through("-a -l", all_stages, Texts{no_erase} + no_nv_files);
    EXPECT_THAT(r.records(), IsSupersetOf({"I Updating modem firmware from RIDGE_02_05_07 to RIDGE_02_05_08",
                                           "I Updating modem apps firmware from VA1 to VA2"}));
    expect_written(everything);
    EXPECT_THAT(data(), IsEmpty());

    EXPECT_THAT(run("tessel atcmd -c ATI -v").out, HasSubstr("Revision: RIDGE_02_05_08"));
    run_through("-l -m all", Texts{all_verified.front()} + completed,
                {"W modem FW version is RIDGE_02_05_08, there is no need to update",
                 "W modem apps FW version is VA2, there is no need to update"});
}

TEST_F(FirmwareUpdate, ErasesAnOldLayoutAndPutsTheNvDataBack)
{
    modem("normal --revision RIDGE_01_05_0E --apps VA1", full_modem(root()));
    package(newer + without_nv_files);
    remember();
    write_file("/data/nvbackup_golden.bin.new", std::string(1 << 20, 'x')); // of a run that was cut short
    run_through("-E", all_verified + all_written,
                Texts{"W Modem firmware version (RIDGE_01_05_0E) is older than 01_05_0F",
                      "W    Need to erase all partitions!!!"} +
                    no_nv_files);
    flash_before.clear();
    expect_written(everything);
    EXPECT_THAT(data(), ElementsAre("nvbackup_golden.bin"));
}

// An answer to an item is lost, both when it is read, which is tried again, and when it is written. What cannot be
// erased or removed stops nothing, and a golden copy that was left parked is no reason for another.
TEST_F(FirmwareUpdate, KeepsTheBackupOfWhatTheModemDidNotTake)
{
    const std::string parked = backup_file({{nv_items, {nv_record(34, "\1")}}, {nv_item_files, {}}, {efs_files, {}}});
    write_file("/data/nvbackup_golden.bintmp", parked);
    const std::string not_erased = "W Failed to erase partition EFS2";
    modem("normal --revision RIDGE_01_05_0E --apps VA1 --fault diag/drop@4 --fail fastboot:EFS2", full_modem(root()));
    package(newer + without_nv_files);
    run_through("-E", all_verified + all_written,
                Texts{"W Modem firmware version (RIDGE_01_05_0E) is older than 01_05_0F",
                      "W    Need to erase all partitions!!!", "E Timeout!", "W NV item (0): no answer",
                      "W Putting back the golden copy of a renewal that was cut short", not_erased, not_erased,
                      "E Timeout!", "W NV item (5): no answer", "E 1 NV items were not restored",
                      "E Not all NV data were restored: the backup is kept as /data/nvbackup.bin.old",
                      "W Failed to remove /data/nvbackup.bin"} +
                    no_nv_files,
                no_rm);
    EXPECT_THAT(data(), ElementsAre("nvbackup.bin", "nvbackup.bin.old", "nvbackup_golden.bin", "tmp.bin"));
    EXPECT_EQ(read_file("/data/nvbackup_golden.bin"), parked);
}

// The user erases all the same, but the backup, in which a file may be another's, is no golden copy.
TEST_F(FirmwareUpdate, MakesNoGoldenCopyOfADoubtfulBackup)
{
    modem("normal --revision RIDGE_01_05_0E --apps VA1 --fault twice@" + std::to_string(2 + NvItemList.size() + 3));
    package(newer + without_nv_files);
    const Result r = run(update + "-E -f");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.errors(), IsSupersetOf({"1 EFS2 replies belong to no request: what came before may be another file's",
                                          "The new golden copy is not kept"}));
    EXPECT_THAT(data(), IsEmpty());
}

// The modem has lost an item since the last backup.
TEST_F(FirmwareUpdate, MakesNoGoldenCopyOfALesserBackup)
{
    modem("normal --revision RIDGE_01_05_0E --apps VA1");
    package(newer + without_nv_files);
    write_file("/data/nvbackup.bin",
               backup_file({{nv_items, {nv_record(34, "\1")}}, {nv_item_files, {}}, {efs_files, {}}}));
    const Result r = run(update + "-E");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.errors(), ::testing::Contains("The new golden copy is not kept"));
    EXPECT_THAT(data(), ElementsAre("nvbackup.bin.old"));
}

TEST_P(UnsafeUpdate, IsRefused)
{
    const Unsafe& row = GetParam();
    modem("normal --revision RIDGE_01_05_0E --apps VA1 " + row.modem);
    package(newer + " " + row.package);
    for (const auto& [name, bytes] : row.nv_data)
        write_file("/modem/" + name, bytes);
    remember();
    const std::string kept = "/sdcard/kept/";
    std::filesystem::create_directories(root() + kept);
    const Result r = run("unshare -rm sh -c '" + row.disk + update + row.options + "; status=$?; cp /data/nv* " + kept +
                         " 2>/dev/null; exit $status'");
    EXPECT_EQ(r.status, 1);
    for (const auto& [name, bytes] : files_in(kept)) // all copies are whole
        EXPECT_EQ(bytes, read_file(kept + "nvbackup.bin")) << name;
    EXPECT_THAT(r.errors().back(), MatchesRegex(row.error));
    expect_written({});
    const Texts asked = requests(); // where a backup took the modem offline, it does not stay so
    EXPECT_EQ(std::ranges::count(asked, "3: 29 00 00"), asked.back() == "3: 29 02 00");
}

// Eight megabytes, so that every percent shows.
TEST_F(FirmwareUpdate, ErasesNothingOfANewLayout)
{
    modem(older);
    package(newer + " --size 8388608" + without_nv_files);
    give_table_of_package();
    remember();
    Texts progress = run_through("-E", all_stages, Texts{no_erase} + no_nv_files).records(), expected;
    std::erase_if(progress, [](const auto& text) { return !text.starts_with("D STAGE3: Write "); });
    for (int percent = 1; percent <= 100; ++percent)
        expected.push_back("D STAGE3: Write " + std::to_string(percent) + "% Done");
    EXPECT_EQ(progress, expected);
    expect_written(both(mdm9615, linux_side));
}

// Only the Linux side is due. The NV update files are those of the modem's SKU, its own first.
TEST_F(FirmwareUpdate, WritesTheLinuxSideAloneAndUpdatesNvData)
{
    modem("normal --revision RIDGE_02_05_08 --apps VA1 --sku 1");
    package(newer + " --sku SUMMIT");
    add_to_package("nvitems_summit.txt", "NV ITEM=10, INDEX=0\n0102\nEFS FILE=/own, SIZE=2\n4142\n");
    add_to_package("nvitems_summit_all.txt", "NV ITEM=10, INDEX=0\n03\nNV ITEM FILE=/nv/item_files/all, SIZE=1\n43\n");
    write_file("/modem/efs/own", "before");
    remember();
    run_through("-E", all_verified + from_diag + linux_written + completed,
                {"W modem FW version is RIDGE_02_05_08, there is no need to update", no_erase});
    nv["00010"] = "10: 03\n";
    efs["own"] = "AB";
    efs["nv/item_files/all"] = "C";
    expect_written(linux_side);
    EXPECT_THAT(requests(), ::testing::Contains("3: 29 00 00"));
}

// The modem refuses the first table. Under the second its Linux side is gone: it starts in fastboot mode by itself.
TEST_F(FirmwareUpdate, OverridesAnotherPartitionTable)
{
    modem(older);
    package(newer);
    remember();
    const Result r = run_through("-m all -l", all_stages, {no_erase});
    const Texts rounds = {"I Partition Table: 1 - Partition table differs, override is accepted",
                          "I Action needed! status=1",
                          "I Normal rsp 1: retry partition override",
                          "I Partition Table: 0 - Partition table accepted",
                          "I STAGE3: Writing Start",
                          "I Overwrite - jump to fastboot check",
                          "I Start flashing linux images"};
    EXPECT_EQ(those_of(rounds, r.records()), rounds);
    expect_written(everything);
}

TEST_P(OtherChips, TakeTheirImages)
{
    modem(older + " --chip " + GetParam());
    package(newer + " --chip " + GetParam());
    give_table_of_package();
    remember();
    const Result r = run_through("-m all", all_stages, {no_erase});
    EXPECT_THAT(r.records(), IsSupersetOf({"I     Skip updating LINUX images", "I     Skip updating NV items"}));
    expect_written(GetParam() == "mdm9600" ? mdm9600 : qsc6270);
    EXPECT_THAT(run("tessel atcmd -c ATI -v").out, HasSubstr("Revision: RIDGE_02_05_08"));
}

INSTANTIATE_TEST_SUITE_P(Update, OtherChips, ::testing::Values("mdm9600", "qsc6270"));

// All partitions have been erased by then: what is left is the modem's boot ROM, and the backup on the tablet.
TEST_P(CutShort, ErasedModemIsBroughtBackWithItsNvData)
{
    package(newer + without_nv_files);
    weak_modem("normal --revision RIDGE_01_05_0E --apps VA1", full_modem(root()));
    remember();
    run_in_vain("-E");
    EXPECT_THAT(data(), IsSupersetOf({"nvbackup.bin"s, "nvbackup_golden.bin"s}));

    modem("normal", {"--efs", root() + "/modem/efs"});
    EXPECT_EQ(journal().back(), "state bootrom");
    run_through("-a -e -f", all_verified + all_written,
                Texts{"E Received sth else", "E Timeout!",
                      "W Not official version: ", "W Modem firmware version () is older than 01_05_0F", no_erase} +
                    no_nv_files);
    EXPECT_THAT(complaints(), ElementsAre("complaint: command 4B to a modem in DLOAD mode")); // for its SKU
    flash_before.clear();
    expect_written(everything);
    EXPECT_THAT(data(), ElementsAre("nvbackup_golden.bin"));
}

// It starts with what it has, old and new.
TEST_P(CutShort, HalfUpdatedModemIsUpdatedByForce)
{
    package(newer);
    weak_modem(older);
    give_table_of_package();
    remember();
    run_in_vain("-m all -l");

    modem(older);
    run_through("-m all -l -f", all_stages,
                {"W Not official version: ", "W Modem firmware version () is older than 01_05_0F", no_erase});
    expect_written(everything);
}

INSTANTIATE_TEST_SUITE_P(Update, CutShort, ::testing::Values(1U, 2U));

// The modem has no power and the tablet no modules, and nobody asks for the radio daemon.
TEST_F(FirmwareUpdate, RecoveryModePowersTheModem)
{
    modem("off --modules none --revision RIDGE_02_05_07 --apps VA1");
    package(newer);
    remember();
    run_through("-r -m all -l", all_stages, {no_erase});
    expect_written(everything);
    EXPECT_THAT(journal(), Not(::testing::Contains(HasSubstr("ril-daemon"))));

    const auto r = run(update + "-r -m all -l"); // the modules are there by now
    EXPECT_EQ(r.status, 20);
    EXPECT_THAT(r.records(), ElementsAre("E Failed to power on the modem: 20"));
}

// In recovery mode the NV data of the SKU are for units that are not from series production.
TEST_F(FirmwareUpdate, NvDataOfTheSkuAreForPreProductionUnits)
{
    const std::string own = "I NV file (NON-PVT): nvitems.txt", all = "I NV file (ALL): nvitems_all.txt";
    const std::pair<const char*, Texts> boards[] = {
        {"0c03999999999999", {"I DEVICE TYPE: OSPREY", "I NOT PVT", own, all}},
        {"0c04000000000000", {"I DEVICE TYPE: OSPREY", "I PVT", all}},
        {"0d03999999999999", {"I DEVICE TYPE: PIPIT", "I NOT PVT", own, all}},
        {"0d0a000000000000", {"I DEVICE TYPE: PIPIT", "I PVT", all}},
        {"0010999959999999", {"I DEVICE TYPE: QUAIL", "I NOT PVT", own, all}},
        {"0010000060000000", {"I DEVICE TYPE: QUAIL", "I PVT", all}},
        {"0b03000000000000", {"I DEVICE TYPE: UNKNOWN - -1", all}},
    };
    modem("off --modules none --revision RIDGE_02_05_07 --apps VA1");
    package("--version RIDGE_02_05_07 --apps VA1");
    for (const auto& [id, said] : boards) {
        SCOPED_TRACE(id);
        write_file("/proc/board_id", id);
        Texts records = run(update + "-r -m nvitem && tessel mdmctrl unloadall").records();
        std::erase_if(records, [](const std::string& text) {
            return !text.starts_with("I DEVICE TYPE") && !text.starts_with("I NV file (") && !text.ends_with("PVT");
        });
        EXPECT_EQ(records, said);
    }
}
