// Gates and ways out of the firmware update: packages that are not for this modem or damaged, modems that do not do
// their part. A row is one run, with all that it complains of and what is then in the modem's flash.
#include "tests/e2e/update_exits.h"

namespace {

const std::string base = ":020000042A00D0", code = ":080000004E50524700000000B2", begin = ":040000052A000000CD",
                  end = ":00000001FF", zeros(500, '0');

const std::string cut_table = "W Partition table has 649 bytes, only 512 are sent";
const std::string modem_images = "aboot dsp1 dsp2 rpm sbl1 sbl2", linux_images = "boot system userdata";
const std::string newer_apps = "--apps APPS_2", few_images = "--without sbl1.mbn --without dsp1.mbn";
const std::string nv_files_only = edited("rm *.mbn *.img *.yaffs2 *.hex fwversion.txt");

// clang-format off
const UpdateCase package_cases[] = {
    {.name = "ForForeignSkus", .modem = "--sku 1", .package = "--sku RIDGE,VALLEY", .options = "-a",
     .records = {"I FW OTA Config: RIDGE", "I FW OTA Config: VALLEY", "W The modem FW is not for SUMMIT", exiting[0]}},
    {.name = "ForNoSuchSku", .modem = "--sku 0x20", .options = "-a",
     .records = Texts{"I MODEM TYPE: UNKNOWN - 32", "W The modem FW is not for UNKNOWN"} + exiting},
    {.name = "ForWhomIsNotToBeSeen", .package = "--sku VALLEY", .before = "mkdir /data/tmp.bin", .options = "-m all",
     .records = Texts{"E Failed to open file /data/tmp.bin", "E Failed to detect FW config!"} + exiting},
    {.name = "WithNvFilesOnly", .before = nv_files_only, .options = "-m nvitem",
     .records = Texts{"I Only update NV items"} + stage6 +
                Texts{"I NV file (NON-PVT): nvitems.txt", "I NV file (ALL): nvitems_all.txt"} + ended},
    {.name = "WithNvFilesOfOtherSkus", .modem = "--sku 1", .before = nv_files_only, .status = 1, .records = invalid_package},
    {.name = "WithMoreFilesThanAreListed", .before = edited("for i in 1 2 3 4; do echo $i > x$i; done"),
     .records = Texts{"W A package of 20 files or more counts as one of NV files: no image is written",
                      "I Only update NV items"} + finished},
    {.name = "Missing", .before = "rm " + tar, .options = "-a", .status = 1,
     .records = Texts{"W Not found: " + tar, not_listed, "I No OTA update config file found!"} + invalid_package},
    {.name = "InNoFolder", .options = "-a -p /nowhere", .status = 1,
     .records = Texts{"W Not found: /nowhere/fwupdate.tar", not_listed} + invalid_package},
    {.name = "CutShort", .before = "truncate -s 700 " + tar, .options = "-a", .status = 1,
     .records = Texts{"E Failed to get files in tar file", not_listed} + invalid_package},
    {.name = "WithAFolderInFront", .before = "cd /tmp && tar -xf " + tar + " && tar --format=ustar -cf " + tar + " .",
     .status = 1, .records = Texts{"W ./ is empty: what is behind it in tar file is not listed",
                                   "E Failed to find the file ota_conf.txt"} + invalid_package},
    {.name = "WithoutDownloader", .package = "--without NPRG9x15.hex",
     .records = verified + Texts{"W Not found file: NPRG9x15.hex", "E No modem downloader is found",
                                 "I     SKIP firmware update ..."} + finished},
    {.name = "Older", .package = "--version RIDGE_02_05_06", .options = "-m all -l",
     .records = verified + too_old + finished},
    {.name = "OfTheSameVersions", .package = "--version RIDGE_02_05_07", .options = "-m all -l",
     .records = verified + same_firmware + same_apps + finished},
    {.name = "WithoutSomeImages", .package = "--without rpm.mbn --without sbl2.mbn",
     .records = started({"sbl2.mbn", "rpm.mbn"}) + written +
                Texts{"E Unable to open file: sbl2.mbn", "E Unable to open file: rpm.mbn"} + finished,
     .changed = "aboot dsp1 dsp2 sbl1"},
    {.name = "WithoutPartitionTable", .before = edited("rm partition.mbn"), .status = 1,
     .records = started({"partition.mbn"}) + no_table},
    // What is empty ends the list: the images behind it are missing, too.
    {.name = "WithAnEmptyPartitionTable", .before = edited("> partition.mbn"), .status = 1,
     .records = Texts{"W partition.mbn is empty: what is behind it in tar file is not listed"} +
                started({"partition.mbn", "sbl1.mbn", "sbl2.mbn", "rpm.mbn"}) + no_table},
    // Only what a request can hold of it is sent, and as it differs, it is sent once more.
    {.name = "WithALongPartitionTable", .before = edited("yes | head -c 600 >> partition.mbn"),
     .records = started() + Texts{cut_table, "I Partition Table: 1 - Partition table differs, override is accepted",
                                  "I Normal rsp 1: retry partition override", cut_table,
                                  "I Partition Table: 0 - Partition table accepted"} + written + finished,
     .changed = "aboot -boot dsp1 dsp2 mibib rpm sbl1 sbl2 -system -userdata"},
    // Blocks that are full to the last, or hold one byte: the bytes behind an image in the package are never its own.
    {.name = "WithImagesOfWholeBlocks",
     .before = edited("truncate -s 1024 sbl1.mbn; truncate -s 2048 sbl2.mbn; truncate -s 1 rpm.mbn"),
     .records = started() + written + "D STAGE3: Write 100% Done" + finished, .changed = modem_images},
    // Its last file claims more bytes than any file can have.
    {.name = "WithAnEndlessImage",
     .before = edited(":") + "; block=$(tar -tRf " + tar + " | sed -n 's/^block \\([0-9]*\\): sbl2.mbn$/\\1/p') && "
               "printf '\\200\\0\\0\\0\\177\\377\\377\\377\\377\\377\\377\\377' | "
               "dd status=none conv=notrunc bs=1 seek=$((block * 512 + 124)) of=" + tar,
     .records = started() + written + "E The file sbl2.mbn is cut short" + "E Unable to open file: sbl2.mbn" + finished,
     .changed = "aboot dsp1 dsp2 rpm sbl1"},
    {.name = "WithLinuxImagesByPartition", .package = newer_apps,
     .before = edited("mv boot-oe-msm9615.img boot.img; rm 9615-cdp-usr-image.usrfs.yaffs2"), .options = "-l",
     .records = linux_alone + Texts{"E Failed to find the file boot-oe-msm9615.img",
                                    "E Failed to find the file 9615-cdp-usr-image.usrfs.yaffs2",
                                    "E Failed to find the file userdata.img",
                                    "W Failed to fetch partition userdata's image file"} + stage5 + finished,
     .changed = "boot system"},
    {.name = "ThatCannotBeUnpacked", .package = newer_apps + " --without ota_conf.txt", .before = "mkdir /data/tmp.bin",
     .options = "-l",
     .records = Texts{"E Failed to find the file ota_conf.txt"} + linux_alone +
                not_unpacked("boot") + not_unpacked("system") + not_unpacked("userdata") + stage5 + finished},
};

constexpr const char* no_record = "E packet didn't start with :";
const UpdateCase downloader_cases[] = {
    {.name = "LongRecord", .before = programmer({base, code, ":21000000" + zeros, begin, end}), .status = 1,
     .records = started() + "E packet holds more than 32 bytes" + bad_programmer},
    {.name = "LongLine", .before = programmer({base, code + zeros, begin, end}), .status = 1,
     .records = started() + "E packet is longer than 511 characters" + bad_programmer},
    {.name = "CutAddress", .before = programmer({base, code, begin.substr(0, 13), end}), .status = 1,
     .records = started() + "E packet is cut short" + bad_programmer},
    {.name = "NoEnd", .before = programmer({base, code, begin}), .status = 1, .records = started() + bad_programmer},
    {.name = "UnknownRecord", .before = programmer({base, code, ":00000006FA", begin, end}), .status = 69,
     .records = started() + "E bad packet from the file"},
    // Blank lines, and neither the write nor the start is acknowledged: it runs, and that is what counts.
    {.name = "Unacknowledged", .modem = "--fault dload/drop@2 --fault dload/drop@3",
     .before = programmer({"", base, code, "", begin, end}),
     .records = started() + no_record + no_record + time_out + time_out +
                "D Not sure if modem jumps to downloader" + written + finished,
     .changed = modem_images},
};

const UpdateCase modem_cases[] = {
    // Its echo is an answer, although no good one.
    {.name = "TellsNoVersion", .modem = "--fault at-silence@1+", .options = "-m all -l",
     .records = verified + Texts{"E Unknown err_code: 0x69", "E Unknown err_code: 0x69",
                                 "E Failed to get modem firmware version!"} + finished},
    {.name = "IsSilent", .modem = "--fault diag/silence@1", .options = "-m all -l",
     .records = time_out + "I MODEM TYPE: RIDGE" + verified + time_out +
                "W Failed to get modem apps firmware version!" + finished},
    {.name = "NeedNotTellItsVersionByForce", .modem = "--fault at-silence@1+", .options = "-f -m all",
     .records = verified + "I Force updating modem firmware to RIDGE_02_05_08" +
                "I Force updating modem apps firmware to APPS_1" + erasing + "W Not official version: " +
                "W Modem firmware version () is older than 01_05_0F" + not_erased + stage2 + stage3 +
                "I Updating modem firmware from  to RIDGE_02_05_08" + written + stage4 +
                "I     Skip updating LINUX images" + stage5 + finished,
     .changed = modem_images},
    // A reply of another length is no DIAG, and then it is not in DLOAD mode either.
    {.name = "IsInNoKnownMode", .modem = "--fault diag/short@3:8",
     .records = decided() + "W Expected rsp: 0x02, received: 0x13 " + time_out + finished,
     .complaints = {"complaint: DLOAD command to a modem that is not in DLOAD mode"}},
    {.name = "NeverComesBack", .modem = "--fault diag/unplug@4", .status = 72,
     .records = decided() + stage2 + time_out + never_came_back},
    {.name = "IsNeverReset", .modem = "--modules usbserial,usb_wwan,ehci_hcd,option,rmnet_usb", .status = 72,
     .records = started() + written + "E Unable to open file /sys/wan/power (No such file or directory)" +
                never_came_back,
     .changed = modem_images},
    {.name = "DoesNotKnowTheTable", .modem = "--fault flash/refuse@3:2", .status = 76,
     .records = started() +
                Texts{"I Partition Table: 2 - Partition table format not recognized, does not accept override",
                      "I Action needed! status=2", "I Normal rsp 2: retry erasing the whole flash",
                      "I !!! Don't support erasing whole flash: exit !!!"} + exiting},
    {.name = "CannotErase", .modem = "--fault flash/refuse@3:3", .status = 1,
     .records = started() + "I Partition Table: 3 - Erase operation failed" + bad_table},
    {.name = "HasAnUnknownStatus", .modem = "--fault flash/refuse@3:7", .status = 1,
     .records = started() + Texts{"W Partition Table: 7 - Unknown status", "I Action needed! status=7"} + bad_table},
    {.name = "RefusesTheTable", .modem = "--fault flash/error@3:10", .status = 76,
     .records = started() + "E Error rsp: 10 - Refused on demand" + "E Flash error: Write-verify failed" + exiting},
    {.name = "HasAnUnknownError", .modem = "--fault flash/error@3:22", .status = 76,
     .records = started() + Texts{"E Error rsp: 22 - Refused on demand", "E Flash error: unknown"} + exiting},
    {.name = "DoesNotAnswerTheTable", .modem = "--fault flash/drop@3", .status = 1,
     .records = started() + time_out + "I Action needed! status=4" + bad_table},
    {.name = "TalksBeforeItAnswers", .modem = "--fault flash/log@3:erasing",
     .records = started() + "I Log message: erasing" + written + finished, .changed = modem_images},
    // Nobody looks at these replies: the image is lost, those behind it are not.
    {.name = "RefusesAnImage", .modem = "--fault flash/error@4:18", .before = edited("truncate -s 1 sbl1.mbn"),
     .records = started() + written + refused("1c") + refused("08") + refused("16") +
                Texts{"E 3 requests were not answered as expected: the modem's flash may not be whole, repeat with -f"} +
                finished,
     .changed = "aboot dsp1 dsp2 rpm sbl2",
     .complaints = {"complaint: block while no image is open", "complaint: close while no image is open"}},
};

const UpdateCase fastboot_cases[] = {
    {.name = "ByDiag", .package = newer_apps, .options = "-l",
     .records = linux_alone + "I Start flashing linux images" + stage5 + finished, .changed = linux_images},
    {.name = "ByAdb", .modem = "--diag-fastboot off", .package = newer_apps, .options = "-l",
     .records = linux_alone + not_by_diag + "I Entering fastboot mode: ADB" + "I Start flashing linux images" + stage5 +
                finished,
     .changed = linux_images},
    {.name = "WithoutOneImage", .modem = "--fail fastboot:userdata", .package = newer_apps, .options = "-l",
     .records = linux_alone + "I Start flashing linux images" + "E Failed to flash partition userdata" + stage5 +
                finished,
     .changed = "boot system"},
    {.name = "ByNoWay", .modem = "--diag-fastboot off --adb off", .package = newer_apps, .options = "-l", .status = 72,
     .records = linux_alone + not_by_diag + no_device + "I Check fastboot mode" + no_device +
                "E Not in fastboot mode" + never_came_back},
    {.name = "OfOneAmongMany", .modem = "--usb-device fastboot --usb-device fastboot", .package = newer_apps,
     .options = "-l", .status = 72,
     .records = linux_alone + Texts{"W Too many devices", "E Failed to enter fastboot mode: DIAG"} + no_device +
                Texts{"I Check fastboot mode", "W Too many devices", "E Not in fastboot mode"} + never_came_back},
};

const UpdateCase option_cases[] = {
    {.name = "StartInDload", .package = newer_apps, .options = "-s -m all -l", .records = verified + finished},
    // No chip of this kind has such an image: the whole stage, without any.
    {.name = "AmssOfThisChip", .options = "-m amss", .records = started() + written + finished},
    // What was asked for shows in what is missed: -a replaces what came before it, -m adds to it.
    {.name = "DspOnly", .package = few_images, .options = "-s -m DSP2",
     .records = verified + "W Not found file: dsp1.mbn" + finished},
    {.name = "AllInsteadOfAmss", .package = few_images + " --without nvitems.txt --without nvitems_all.txt",
     .options = "-s -m amss -a",
     .records = verified + "W Not found file: sbl1.mbn" + "W Not found file: dsp1.mbn" + stage6 +
                "E Failed to find the file nvitems.txt" + "W Failed to fetch NV file nvitems.txt" +
                "E Failed to find the file nvitems_all.txt" + "W Failed to fetch NV file nvitems_all.txt" + ended},
    {.name = "EmergencyWithoutDownloader", .package = "--without ENPRG9x15.hex", .options = "-e -m all", .status = 1,
     .records = decided({"ENPRG9x15.hex"}) + "E Not found emergency downloader" + exiting},
    {.name = "EmergencyAtNoPort", .options = "-e -m all -D /dev/ttyUSB9", .status = 1,
     .records = decided() + "W Timeout: DIAG port (/dev/ttyUSB9) doesn't exist" + exiting},
};
// clang-format on

const auto case_name = [](const auto& row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(Package, UpdateExits, ::testing::ValuesIn(package_cases), case_name);
INSTANTIATE_TEST_SUITE_P(Downloader, UpdateExits, ::testing::ValuesIn(downloader_cases), case_name);
INSTANTIATE_TEST_SUITE_P(Modem, UpdateExits, ::testing::ValuesIn(modem_cases), case_name);
INSTANTIATE_TEST_SUITE_P(Fastboot, UpdateExits, ::testing::ValuesIn(fastboot_cases), case_name);
INSTANTIATE_TEST_SUITE_P(Option, UpdateExits, ::testing::ValuesIn(option_cases), case_name);

TEST_P(UpdateExits, Run)
{
    const UpdateCase& row = GetParam();
    modem("normal --revision RIDGE_02_05_07 --apps APPS_1 " + row.modem);
    package("--version RIDGE_02_05_08 --apps APPS_1 " + row.package);
    write_file("/modem/flash/mibib", member("partition.mbn"));
    EXPECT_EQ(run(row.before).status, 0);
    const Files before = flash();

    const auto r = run("tessel wan_dloader " + row.options);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(said(r, row.records), row.records);
    EXPECT_EQ(changed_since(before), row.changed);
    EXPECT_EQ(complaints(), row.complaints);
}

} // namespace
