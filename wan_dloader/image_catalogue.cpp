#include "wan_dloader/image_catalogue.h"

#include "app/applet_log.h"
#include "platform/os.h"
#include "platform/tar.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

// Type codes are those of the chips' download protocol; the bit above says which -m asks for the image.
constexpr std::array<ModemModel, 3> modem_img{{
    {"QSC6270",
     "NPRG6270.hex",
     "partition.mbn",
     {{
         {"dbl.mbn", nullptr, 0x1000F},
         {"fsbl.mbn", nullptr, 0x10011},
         {"osbl.mbn", nullptr, 0x10010},
         {"amss.mbn", nullptr, 0x20005},
     }}},
    {"MDM9600",
     "NPRG9x00.hex",
     "partition.mbn",
     {{
         {"dbl.mbn", nullptr, 0x1000F},
         {"fsbl.mbn", nullptr, 0x10011},
         {"osbl.mbn", nullptr, 0x10010},
         {"dsp1.mbn", nullptr, 0x4000D},
         {"dsp2.mbn", nullptr, 0x40012},
         {"amss.mbn", nullptr, 0x20005},
     }}},
    {"MDM9615",
     "NPRG9x15.hex",
     "partition.mbn",
     {{
         {"sbl1.mbn", nullptr, 0x10014},
         {"sbl2.mbn", "sbl2", 0x10015},
         {"rpm.mbn", "rpm", 0x10016},
         {"dsp1.mbn", "dsp1", 0x4000D},
         {"dsp2.mbn", "dsp2", 0x40012},
         {"appsboot.mbn", "aboot", 0x1000A},
     }}},
}};
// An empty row ends each list.
static_assert(std::ranges::all_of(modem_img, [](const ModemModel& model) {
    return model.images.front().file != nullptr && model.images.back().file == nullptr;
}));
// Every image can be asked for.
static_assert(std::ranges::all_of(modem_img, [](const ModemModel& model) {
    return std::ranges::all_of(model.images, [](const ModemImage& image) {
        return image.file == nullptr || (image.type & flash_mode::modem_images) != 0;
    });
}));

constexpr std::array<LinuxImage, 3> linux_images{{
    {"boot-oe-msm9615.img", "boot"},
    {"9615-cdp-image-9615-cdp.yaffs2", "system"},
    {"9615-cdp-usr-image.usrfs.yaffs2", "userdata"},
}};

int32_t s_in_tar_file_mode = 0;
int32_t sSelectedModel = model_none;
int32_t s_dlSkipUSB_ReEnumerate = 0;
int32_t s_dlWrite32Flag = 0;
uint32_t sTotalBlocksToFlash = 0;

namespace {

constexpr const char* package_name = "fwupdate.tar";
constexpr const char* emergency_prefix = "E";
constexpr int32_t exit_no_folder = 78;

// Chips whose serial port stays when the downloader starts.
constexpr std::array sNonReenumerateMdms{model_mdm9615};

int32_t s_emergency_downloader = 0;

int32_t s_fidx = -1;    // the open member of the package
UniqueFile s_open_file; // or the open file of the folder

// Adds a file's size in blocks.
void count_blocks(int64_t size)
{
    constexpr int64_t block = 1024;
    sTotalBlocksToFlash += static_cast<uint32_t>(size / block);
    if (size % block != 0)
        ++sTotalBlocksToFlash;
}

} // namespace

std::span<const ModemImage> ModemModel::used_images() const
{
    const auto* const end = std::ranges::find(images, nullptr, &ModemImage::file);
    return {images.begin(), end};
}

std::string path_of_image(const std::string& name)
{
    return ImagePath + name;
}

int32_t InitTarFile()
{
    const std::string path = path_of_image(package_name);
    if (!path_exists(path)) {
        log_warning("Not found: %s", printable(path).c_str());
        return 0;
    }
    log_info("Found firmware: %s", printable(path).c_str());
    s_in_tar_file_mode = 1;
    return tar_init(path);
}

void DeinitTarFile()
{
    if (s_in_tar_file_mode != 0)
        tar_deinit();
}

int32_t OpenModemFile(const std::string& name)
{
    if (s_in_tar_file_mode != 0)
        return s_fidx = tar_fopen(name);
    s_open_file = open_regular_file(path_of_image(name));
    return s_open_file ? 0 : -1;
}

int32_t OpenModemDownloader(const std::string& name)
{
    if (is_emergency_download_mode() != 0)
        log_info("Send emergency downloader");
    return OpenModemFile(downloader_file(name));
}

std::string downloader_file(const std::string& name)
{
    return is_emergency_download_mode() != 0 ? emergency_prefix + name : name;
}

size_t ReadModemFile(std::span<uint8_t> data)
{
    errno = 0;
    if (s_in_tar_file_mode != 0) {
        const auto count = tar_fread(data);
        return count > 0 ? static_cast<size_t>(count) : 0;
    }
    return s_open_file ? fread(data.data(), 1, data.size(), s_open_file.get()) : 0;
}

bool FgetsModemFile(std::span<char> line)
{
    if (s_in_tar_file_mode != 0)
        return tar_fgets(line) != nullptr;
    return s_open_file && fgets(line.data(), static_cast<int>(line.size()), s_open_file.get()) != nullptr;
}

bool EOF_ModemFile()
{
    if (s_in_tar_file_mode != 0)
        return tar_feof() != 0;
    return !s_open_file || feof(s_open_file.get()) != 0;
}

int64_t GetModemFileSize()
{
    if (s_in_tar_file_mode != 0)
        return tar_get_file_size(s_fidx);
    struct stat status {};
    if (!s_open_file || fstat(fileno(s_open_file.get()), &status) != 0)
        return -1;
    return status.st_size;
}

void CloseModemFile()
{
    if (s_in_tar_file_mode != 0)
        tar_fclose();
    s_fidx = -1;
    s_open_file.reset();
}

int32_t check_img(const std::string& name, int32_t count)
{
    int64_t size = 0;
    if (s_in_tar_file_mode != 0) {
        const int32_t slot = tar_seek_file(name);
        if (slot < 0) {
            log_warning("Not found file: %s", printable(name).c_str());
            return 1;
        }
        size = tar_get_file_size(slot);
    } else {
        const std::string path = path_of_image(name);
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) {
            log_warning("%s: %s", printable(path).c_str(), error_text(errno).c_str());
            return 1;
        }
        size = status.st_size;
    }
    if (count != 0)
        count_blocks(size);
    return 0;
}

int32_t check_emergency_img(const std::string& name)
{
    const int32_t missing = check_img(emergency_prefix + name, 0);
    s_emergency_downloader = missing == 0 ? 1 : 0;
    return missing;
}

int32_t emergency_downloader_exist()
{
    return s_emergency_downloader;
}

int32_t CheckImageFiles()
{
    // The package lies there, too.
    if (!path_exists(ImagePath)) {
        log_error("Can't open directory %s", printable(ImagePath).c_str());
        end_process(exit_no_folder);
    }
    log_debug("Checking Images files ... ");

    const auto* const model = std::ranges::find_if(
        modem_img, [](const ModemModel& candidate) { return check_img(candidate.downloader, 0) == 0; });
    if (model == modem_img.end()) {
        log_error("No modem downloader is found");
        return images_no_downloader;
    }
    sSelectedModel = static_cast<int32_t>(model - modem_img.begin());

    // What is missing of these shows when it is needed.
    (void)check_emergency_img(model->downloader);
    (void)check_img(model->partition_table, 0);
    for (const ModemImage& image : model->used_images())
        if ((image.type & sFlashMode) != 0)
            (void)check_img(image.file, 1);

    if (std::ranges::find(sNonReenumerateMdms, sSelectedModel) != sNonReenumerateMdms.end())
        s_dlSkipUSB_ReEnumerate = 1;
    if (sSelectedModel == model_mdm9615)
        s_dlWrite32Flag = 1;
    return 0;
}
