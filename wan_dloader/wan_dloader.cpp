// wan_dloader: firmware and NV data of the modem.
//
//   wan_dloader [-aeEflrsdvo] [-m TYPE] [-p DIR] [-P PORT] [-D PORT] [-R PORT]
//   wan_dloader [-P PORT] [-fdvo] -n OPERATION
//
// Without -n: updates the firmware from the package in DIR, in stages (update_flow.h).
//
//   -p DIR   folder of the package, /sdcard/firmware/ unless given, at most 255 characters
//   -m TYPE  add to what is flashed: all, amss, dsp, boot, nvitem; by prefix, in any case. May be given many times
//   -l       add the modem's Linux images
//   -a       flash every partition, over the partition table there is, instead of what was chosen so far
//   -E       back up, erase and flash everything, restore, instead of what was chosen so far
//   -e -f -s -r   emergency download; whatever the versions say; look at no versions; in recovery mode
//
//   -n b       back up the NV data to /data/nvbackup.bin
//   -n r       restore them from there
//   -n g       make a golden copy, /data/nvbackup_golden.bin, unless there is one (-f: make it anew)
//   -n G       restore from the golden copy
//   -n UFILE   apply an NV update file (nv_update.h); the modem stays offline
//   -n FPATH   show an item file or regular file of the modem in hex
//   -n DPATH   delete a file of the modem
//
//   -P PORT, -D PORT, -R PORT   DIAG port before download mode, in it, and after the modem's reset; /dev/ttyUSB0 unless
//            given, cut at 127 characters
//   -d -v -o the port's time stamps, traffic, log lines on standard output
//   -h       usage
//
// The radio daemon is stopped first, and started again afterwards; not so with -r, and not where another wan_dloader is
// at work: then nothing is done, which is an ERROR.
//
// Exit status: 0 after any -n, whatever came of it, also when there is no such operation; after an update that came to
// its end, also where nothing was due or the package is for another modem. 1 another wan_dloader is at work, or there
// is no valid package, or backup, the way into download mode, the downloader, the partition table or the restore
// failed; or a port cannot be examined any more. 2 usage shown, or unusable arguments. 18 to 22, 25, 26 with -r: the
// modem could not be powered on (mdmctrl.h). 32 no /dev/ttyUSB0 when the SKU is read. 64 the port cannot be opened. 69
// a request could not be sent, or the downloader has a record of unknown type. 72 the modem's port did not come back.
// 76 the partition table was refused. 78 no such folder. After 32, 64, 69, 72, 78 and a port that vanished the radio
// daemon is not started again.
//
// Kept on purpose: options count in their order, and -n runs at once, so that what follows it is not looked at. -t has
// an argument and is as unknown as any other letter.

#include "wan_dloader/wan_dloader.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/efs2.h"
#include "diag/exchange.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "wan_dloader/fastboot.h"
#include "wan_dloader/nv_copies.h"
#include "wan_dloader/nv_transfer.h"
#include "wan_dloader/nv_update.h"
#include "wan_dloader/run_settings.h"
#include "wan_dloader/update_flow.h"
#include "wan_dloader/version_policy.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <strings.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int version_major = 7;
constexpr int version_minor = 1;

constexpr int32_t exit_done = 0;
constexpr int32_t exit_usage = 2;

constexpr size_t longest_port = 127;
constexpr size_t longest_image_path = 255;

// What -m adds to sFlashMode.
struct MbnType {
    const char* name;
    size_t compared; // letters, in any case; what follows them is not looked at
    uint32_t bits;
};

constexpr MbnType mbn_types[] = {
    {"all", 3, flash_mode::modem_images}, //
    {"amss", 4, flash_mode::amss},        //
    {"dsp", 3, flash_mode::dsp},          //
    {"boot", 4, flash_mode::boot},        //
    {"nvitem", 4, flash_mode::nv_items},
};

// What -n does, by its first letter. `path` is the text behind the letter. Results are in the log.
struct NvOperation {
    char letter;
    void (*run)(const char* path);
};

constexpr NvOperation nv_operations[] = {
    {'b',
     [](const char*) {
         log_info("NV backup ...");
         (void)BackupQCN(s_diag_port);
     }},
    {'r',
     [](const char*) {
         log_info("NV restore ...");
         sFlashAllPartitions = 1; // or there would be nothing to restore
         (void)RestoreQCN(s_diag_port);
     }},
    {'g',
     [](const char*) {
         log_info("Make a golden copy of NV ...");
         (void)BackupGoldenQCN(s_diag_port);
     }},
    {'G',
     [](const char*) {
         log_info("Restore NV from the golden copy ...");
         sFlashAllPartitions = 1;
         (void)RestoreGoldenQCN(s_diag_port);
     }},
    {'U',
     [](const char* path) {
         log_info("Update NV from %s", printable(path).c_str());
         CheckModemSku(s_modem_sku);
         (void)UpdateNV(path, s_diag_port);
     }},
    {'F',
     [](const char* path) {
         log_info("Read NV File: %s", printable(path).c_str());
         (void)ReadNVF(path, s_diag_port);
     }},
    {'D',
     [](const char* path) {
         log_info("Delete EFS2 File: %s", printable(path).c_str());
         (void)DeleteEFS2F(path, s_diag_port);
     }},
};

void show_version(const char* name)
{
    (void)printf("\n%s version: %d.%d\n\n", name, version_major, version_minor);
}

void usage(const char* name)
{
    show_version(name);
    (void)printf("Usage: %s -p <path> -P <port> -D <port> -R <port> [options]\n"
                 "\n\t-a Override partition table, all partitins need to be flashed"
                 "\n\t-p <PATH to Image Files>"
                 "\n\t-e Set emergency download"
                 "\n\t-d Enable debug message"
                 "\n\t-P <port> : Diag port before entering download mode (/dev/ttyUSB0)"
                 "\n\t-D <port> : Diag port in download mode (/dev/ttyUSB0)"
                 "\n\t-R <port> : Diag port after reset (/dev/ttyUSB0)"
                 "\n\t-m <type> : MBN type to flash. Can repeat multiple times."
                 "\n\t   Valid mbn types: all, amss, dsp, boot, nvitem"
                 "\n\t-l Modem linux images"
                 "\n\t-o Output to console"
                 "\n\t-f Force firmware update"
                 "\n\t-n<f> : -nb - backup NV items"
                 "\n\t\t-nr - restore NV items"
                 "\n\t\t-ng - make a golden copy of NV items"
                 "\n\t\t-nG - restore from a golden copy of NV items"
                 "\n\t\t-nU<nv file path> - update NV items given in <nv file path>"
                 "\n\t-E Backup NV/Erase & Flash all partitions/Restore NV"
                 "\n\t-s Skip NV backup and jump to start downloading DLOADER"
                 "\n\t-h Help\n",
                 name);
}

// -n
[[noreturn]] void run_nv_operation(const char* text)
{
    if (!lock_nv_data())
        end_process(exit_done); // the daemon stays as the other run wants it
    StopRilDaemon();
    std::this_thread::sleep_for(std::chrono::seconds(5)); // what the daemon had asked for may still be on its way
    const auto* operation = std::ranges::find(nv_operations, *text, &NvOperation::letter);
    if (operation == std::end(nv_operations))
        log_error("Invalid option type: %s.", printable(text).c_str());
    else
        operation->run(text + 1);
    StartRilDaemon();
    end_process(exit_done);
}

// -m
[[nodiscard]] bool add_mbn_type(const char* text)
{
    for (const MbnType& type : mbn_types) {
        if (strncasecmp(text, type.name, type.compared) == 0) {
            sFlashMode |= type.bits;
            return true;
        }
    }
    log_error("Invalid mbn type: %s.", printable(text).c_str());
    return false;
}

// -p
[[nodiscard]] bool set_image_path(const char* text)
{
    if (strlen(text) > longest_image_path) {
        log_error("Image Path is too long.");
        return false;
    }
    ImagePath = text;
    if (!ImagePath.ends_with('/'))
        ImagePath += '/';
    return true;
}

std::string port_of(const char* text)
{
    return std::string(text).substr(0, longest_port);
}

constexpr int word = 1; // what getopt calls a word that is no option, in its turn among them

// An option that lost its dash would make it another run than the one that was meant.
int32_t refuse_word(const char* text, const char* name)
{
    log_error("Unexpected argument: %s", printable(text).c_str());
    usage(name);
    return exit_usage;
}

// Takes one option. Returns the exit status where the run ends with it.
std::optional<int32_t> take_option(int option, const char* text, const char* name)
{
    switch (option) {
    case 'a':
        sFlashAllPartitions = 1;
        sFlashMode = flash_mode::all_partitions;
        return std::nullopt;
    case 'p':
        return set_image_path(text) ? std::nullopt : std::optional(exit_usage);
    case 'e':
        set_emergency_download_mode(1);
        return std::nullopt;
    case 'd':
        sDebug = 1;
        return std::nullopt;
    case 'P':
        s_diag_port = port_of(text);
        return std::nullopt;
    case 'D':
        s_download_port = port_of(text);
        return std::nullopt;
    case 'R':
        s_reset_port = port_of(text);
        return std::nullopt;
    case 'v':
        SetUpdateVerbose(1);
        efs2_set_verbose(1);
        return std::nullopt;
    case 'm':
        if (add_mbn_type(text))
            return std::nullopt;
        break;
    case 'l':
        sFlashMode |= flash_mode::linux_images;
        return std::nullopt;
    case 'o':
        tessel_stdout_on_off(1);
        log_debug("stdout ON");
        return std::nullopt;
    case 'n':
        run_nv_operation(text);
    case 'f':
        s_force_fw_update = 1;
        return std::nullopt;
    case 'E':
        sFlashMode = flash_mode::whole_update;
        s_ota_update_cfg = 1;
        return std::nullopt;
    case 's':
        s_start_from_dloader = 1;
        return std::nullopt;
    case 'r':
        s_run_in_recovery_mode = 1;
        return std::nullopt;
    case word:
        return refuse_word(text, name);
    default:
        break;
    }
    usage(name);
    return exit_usage;
}

} // namespace

int32_t wan_dloader_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    if (argc <= 1) {
        usage(argv[0]);
        return exit_usage;
    }
    (void)signal(SIGPIPE, SIG_IGN); // who reads the messages may end, a run on the modem goes on
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no second thread yet
    for (int option = 0; (option = getopt(argc, argv, "-hap:dP:D:vR:m:elon:t:fEsr")) != -1;) {
        if (const auto status = take_option(option, optarg, argv[0]))
            return *status;
    }
    if (optind < argc) // behind "--"
        return refuse_word(argv[optind], argv[0]);
    show_version(argv[0]);
    return run_update();
}
