// What can be flashed and where it lies: the modem chips with their images, the modem's Linux images, and uniform
// access to firmware files, which are members of the package "fwupdate.tar" or, without one, loose in its folder.
//
// One firmware file is open at a time. Main thread.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

// One image of a chip, in flashing order.
struct ModemImage {
    const char* file;      // null: the row behind the last one
    const char* partition; // null: none of its own
    uint32_t type;         // a bit of flash_mode above, the image type of the download protocol below
};

struct ModemModel {
    const char* chip;
    const char* downloader; // flash programmer, Intel HEX
    const char* partition_table;
    std::array<ModemImage, 8> images;

    // The rows that are used.
    [[nodiscard]] std::span<const ModemImage> used_images() const;
};

constexpr int32_t model_none = -1, model_mdm9615 = 2; // indexes into modem_img
extern const std::array<ModemModel, 3> modem_img;

// Linux images of the modem's applications side, in flashing order. In a package an image may also be named after its
// partition, "%s.img".
struct LinuxImage {
    const char* file;
    const char* partition;
};
extern const std::array<LinuxImage, 3> linux_images;

// Scratch copies of package members.
constexpr const char* scratch_path = "/data/tmp.bin";
constexpr const char* second_scratch_path = "/data/tmp1.bin";

extern int32_t s_in_tar_file_mode;      // 1: every file is a member of the package, the folder is not looked at
extern int32_t sSelectedModel;          // index into modem_img; model_none until CheckImageFiles has found a downloader
extern int32_t s_dlSkipUSB_ReEnumerate; // 1: the chip keeps its serial port when the downloader starts
extern int32_t s_dlWrite32Flag;         // 1: the chip is sent its downloader with 32-bit addresses
extern uint32_t sTotalBlocksToFlash;    // blocks of 1024 bytes, each image rounded up

// Looks for the package in the image folder and opens it. 0, also when there is none (WARNING), or -1 with an ERROR
// when it cannot be read.
int32_t InitTarFile();
void DeinitTarFile();

// Opens a firmware file for reading. 0 or above, or -1 when it is not there. The second one opens the emergency
// downloader (INFO) in place of the downloader `name` while emergency download mode is on.
[[nodiscard]] int32_t OpenModemFile(const std::string& name);
[[nodiscard]] int32_t OpenModemDownloader(const std::string& name);
// The file that OpenModemDownloader opens.
[[nodiscard]] std::string downloader_file(const std::string& name);

// Bytes read into `data`; fewer than there is room for at the end of the file or after a failed read, which errno
// tells.
[[nodiscard]] size_t ReadModemFile(std::span<uint8_t> data);
// Reads a line with its line end, as much of it as fits with a terminating zero. False at the end of the file.
[[nodiscard]] bool FgetsModemFile(std::span<char> line);
[[nodiscard]] bool EOF_ModemFile();
// Bytes of the open file, -1 when there is none.
[[nodiscard]] int64_t GetModemFileSize();
void CloseModemFile();

// Where `name` would lie in the image folder; what messages call a firmware file.
[[nodiscard]] std::string path_of_image(const std::string& name);

// 0 when the firmware has the file, else 1 with a WARNING. With `count` its blocks are added to sTotalBlocksToFlash.
[[nodiscard]] int32_t check_img(const std::string& name, int32_t count);

// The same for the emergency downloader that belongs to the downloader `name`; emergency_downloader_exist tells the
// outcome later: 1 or 0.
int32_t check_emergency_img(const std::string& name);
[[nodiscard]] int32_t emergency_downloader_exist();

constexpr int32_t images_no_downloader = 77;

// Selects the first chip whose downloader is there, and looks which of the images to be flashed are: missing ones are
// WARNINGs. 0, or images_no_downloader with an ERROR. Where the image folder is missing the process ends with 78.
[[nodiscard]] int32_t CheckImageFiles();
