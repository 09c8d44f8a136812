#include "wan_dloader/streaming_download.h"

#include "app/applet_log.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "mdmctrl/mdmctrl.h"
#include "platform/os.h"
#include "platform/progress.h"
#include "wan_dloader/emergency_downloader.h"
#include "wan_dloader/image_catalogue.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <string_view>
#include <thread>
#include <unistd.h>

int32_t s_parti_overwrite = 0;

namespace {

// Requests and their replies. Fields are little-endian.
namespace hello {
constexpr uint8_t code = 0x01, reply_code = 0x02;
// Without a terminator, as long as the field.
constexpr std::string_view host = "QCOM fast download protocol host";
constexpr uint8_t version = 0x03, compatible_version = 0x02, features = 0x09;
constexpr size_t host_at = 1, version_at = 33, compatible_version_at = 34, features_at = 35, size = 36;
static_assert(host_at + host.size() == version_at);
} // namespace hello

namespace security {
constexpr uint8_t code = 0x17, reply_code = 0x18;
constexpr uint8_t mode = 1;
} // namespace security

// Partition table: 19, override (1), table. Reply: 1A, status (1).
namespace partition_table {
constexpr uint8_t code = 0x19, reply_code = 0x1A;
constexpr size_t override_at = 1, table_at = 2, longest = 512;
constexpr size_t status_at = 1, reply_size = 2;
} // namespace partition_table

namespace open_image {
constexpr uint8_t code = 0x1B, reply_code = 0x1C;
} // namespace open_image

// Stream write: 07, offset in the image (4), data.
namespace stream {
constexpr uint8_t code = 0x07, reply_code = 0x08;
constexpr size_t offset_at = 1, data_at = 5, block = 1024;
} // namespace stream

namespace close_image {
constexpr uint8_t code = 0x15, reply_code = 0x16;
} // namespace close_image

namespace erase {
constexpr uint8_t code = 0x1D, reply_code = 0x1E;
} // namespace erase

// What the programmer may send at any time. Error: 0D, code (4), text. Log: 0E, text.
namespace error_reply {
constexpr uint8_t code = 0x0D;
constexpr size_t error_at = 1, text_at = 5;
} // namespace error_reply
namespace log_reply {
constexpr uint8_t code = 0x0E;
constexpr size_t text_at = 1;
} // namespace log_reply

// By the status of a partition table's reply.
constexpr std::array s_parti_rsp_status_str{
    "Partition table accepted",
    "Partition table differs, override is accepted",
    "Partition table format not recognized, does not accept override",
    "Erase operation failed",
};
enum TableStatus : uint32_t {
    table_accepted,
    table_differs,
    table_not_recognized,
    table_erase_failed,
    table_no_answer
};
static_assert(s_parti_rsp_status_str.size() == table_no_answer);

// By the code of an error reply.
constexpr std::array s_flash_err_str{
    "Illegal reason (don't use)",           // 0
    "Reserved",                             // 1
    "Invalid destination address",          // 2
    "Invalid length",                       // 3
    "Unexpected end of packet",             // 4
    "Invalid command",                      // 5
    "Resered",                              // 6
    "Operation failed",                     // 7
    "Wrong Flash intelligent ID",           // 8
    "Bad programming voltage",              // 9
    "Write-verify failed",                  // 10
    "Reserved",                             // 11
    "Incorrect security code",              // 12
    "Cannot power down phone",              // 13
    "NAND flash programming not supported", // 14
    "Command out of sequence",              // 15
    "Close did not succeed",                // 16
    "Imcompatible feature bits",            // 17
    "Out of space",                         // 18
    "Invalid security mode",                // 19
    "Multi-image NAND not supported",       // 20
    "Power off command not supported",      // 21
};
static_assert(s_flash_err_str.size() == 22);

constexpr const char* power_path = "/sys/wan/power";
constexpr int32_t exit_unreadable = 1;

// Set by the callbacks on the reader thread, read by the main thread after the exchange.
std::atomic<bool> s_flash_error_set = false;
std::atomic<uint32_t> s_flash_error_code = 0; // the last status of a partition table, or the last error

// Over all images of the run.
uint32_t sNumOfBlocksFlashed = 0;
uint32_t sPercentage = 0;

// The text at the end of a reply, up to a zero byte.
std::string text_from(std::span<const uint8_t> packet, size_t offset)
{
    const auto bytes = packet.subspan(std::min(offset, packet.size()));
    return printable(std::string(bytes.begin(), std::ranges::find(bytes, 0)));
}

// The replies that answer any request. 0 when it ends the wait. Reader thread.
int32_t take_unasked_reply(std::span<const uint8_t> packet)
{
    constexpr int32_t done = 0, wait_on = 1;
    if (get_u8(packet, 0) == log_reply::code)
        log_info("Log message: %s", text_from(packet, log_reply::text_at).c_str());
    if (get_u8(packet, 0) != error_reply::code || packet.size() < error_reply::text_at)
        return wait_on;
    s_flash_error_code = get_le32(packet, error_reply::error_at);
    s_flash_error_set = true;
    log_error("Error rsp: %d - %s", static_cast<int>(s_flash_error_code),
              text_from(packet, error_reply::text_at).c_str());
    return done;
}

int32_t SendPartitionTableCallBack(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    using namespace partition_table;
    if (get_u8(packet, 0) != reply_code)
        return take_unasked_reply(packet);
    if (packet.size() < reply_size)
        return 1;
    const uint8_t status = get_u8(packet, status_at);
    s_flash_error_set = false;
    s_flash_error_code = status;
    if (status < s_parti_rsp_status_str.size())
        log_info("Partition Table: %d - %s", status, s_parti_rsp_status_str.at(status));
    else
        log_warning("Partition Table: %d - Unknown status", status);
    return 0;
}

int32_t SendEraseCallBack(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    if (get_u8(packet, 0) != erase::reply_code)
        return take_unasked_reply(packet);
    s_flash_error_set = false;
    return 0;
}

// Requests of this run that were not answered as they should be. The sequence goes on without them.
uint32_t s_unanswered = 0;

// send_behind_flag for a request whose reply decides nothing.
void send_unexamined(std::span<const uint8_t> request, uint8_t expected_code)
{
    if (send_behind_flag(request, expected_code) != exchange_accepted)
        ++s_unanswered;
}

// The selected chip; null when none is.
const ModemModel* selected_model()
{
    return sSelectedModel == model_none ? nullptr : &modem_img.at(static_cast<size_t>(sSelectedModel));
}

void show_progress()
{
    ++sNumOfBlocksFlashed;
    if (sTotalBlocksToFlash == 0)
        return; // an image that appeared since it was counted
    const auto percentage = static_cast<uint32_t>(uint64_t{100} * sNumOfBlocksFlashed / sTotalBlocksToFlash);
    if (percentage == sPercentage)
        return;
    sPercentage = percentage;
    log_debug("STAGE3: Write %d%% Done", static_cast<int>(percentage));
}

// Sends the partition table until the modem takes it. 0, or the stage's result.
int32_t settle_partition_table()
{
    int32_t override_flag = sFlashAllPartitions;
    for (int32_t result = 0; (result = SendPartitionTable(override_flag)) != 0;) {
        if (result == download_error_reply)
            return download_flash_refused;
        switch (s_flash_error_code) {
        case table_differs:
            log_info("Normal rsp 1: retry partition override");
            override_flag = 1;
            continue;
        case table_not_recognized:
            log_info("Normal rsp 2: retry erasing the whole flash");
            log_info("!!! Don't support erasing whole flash: exit !!!");
            return download_flash_refused;
        default:
            log_error("Unknown partition table response status");
            return result;
        }
    }
    s_parti_overwrite = override_flag;
    return 0;
}

// Starts the downloader, over a port of its own: its service is not the one that comes after. 0 or 1.
int32_t start_flash_programmer(const std::string& port)
{
    (void)OpenSerialPort(port.c_str());
    const int32_t result = SendDownLoader();
    CloseSerialPort();
    if (result != 0)
        log_error("Error in the Downloader???");
    return result;
}

void wait_for_flash_programmer(const std::string& port)
{
    log_debug("Opening Diag Port at %s", printable(port).c_str());
    if (s_dlSkipUSB_ReEnumerate == 0) {
        (void)CheckSerialReEnumerate(port.c_str());
        return;
    }
    log_debug("Skip DIAG port's re-enumerating...");
    std::this_thread::sleep_for(std::chrono::seconds(3)); // until it listens
}

// What the programmer is told over the open port. 0, or the stage's result.
int32_t write_images()
{
    SendHelloPacket();
    SendSecurityModePacket(security::mode);
    if (const int32_t result = settle_partition_table(); result != 0)
        return result;

    log_info("STAGE3: Writing Start");
    for (const ModemImage& image : selected_model()->used_images()) {
        if ((image.type & sFlashMode) == 0)
            continue;
        SendMultiOpenPacket(static_cast<uint8_t>(image.type & 0xFF));
        SendBootLoader(image.file);
        SendClosePacket();
    }
    if (s_unanswered != 0)
        log_error("%u requests were not answered as expected: the modem's flash may not be whole, repeat with -f",
                  static_cast<unsigned>(s_unanswered));
    SendReset();
    return 0;
}

} // namespace

int32_t SendHelloPacket()
{
    using namespace hello;
    log_debug(">>>>>>>>>>>>Send Hello! to flash programmer");
    std::array<uint8_t, size> request{code};
    std::ranges::copy(host, request.begin() + host_at);
    put_u8(request, version_at, version);
    put_u8(request, compatible_version_at, compatible_version);
    put_u8(request, features_at, features);
    send_unexamined(request, reply_code);
    return 0;
}

int32_t SendSecurityModePacket(uint8_t mode)
{
    log_debug(">>>>>>>>>>>>Send Security Mode %d to Flash Programmer", mode);
    send_unexamined(std::array{security::code, mode}, security::reply_code);
    return 0;
}

int32_t SendMultiOpenPacket(uint8_t type)
{
    log_debug(">>>>>>>>>>>>Send Multi Open Mode %d to Flash Programmer", type);
    send_unexamined(std::array{open_image::code, type}, open_image::reply_code);
    return 0;
}

int32_t SendClosePacket()
{
    log_debug(">>>>>>>>>>>>Send Close to Flash Programmer");
    send_unexamined(std::array{close_image::code}, close_image::reply_code);
    return 0;
}

int32_t SendPartitionTable(int32_t override_flag)
{
    using namespace partition_table;
    s_flash_error_set = false;
    s_flash_error_code = table_no_answer;
    const std::string name = selected_model() != nullptr ? selected_model()->partition_table : "";
    if (name.empty() || OpenModemFile(name) < 0) {
        log_error("Unable to open partition file %s", printable(path_of_image(name)).c_str());
        return download_action_needed;
    }
    std::array<uint8_t, table_at + longest> request{code};
    put_u8(request, override_at, static_cast<uint8_t>(override_flag));
    const size_t length = ReadModemFile(std::span(request).subspan(table_at));
    // A table cut short by a failed read would be taken for another one, and override what is there.
    if (length < longest && (!EOF_ModemFile() || static_cast<int64_t>(length) != GetModemFileSize())) {
        log_error("fread: %d - %s", errno, error_text(errno).c_str());
        end_process(exit_unreadable);
    }
    if (GetModemFileSize() > static_cast<int64_t>(longest))
        log_warning("Partition table has %lld bytes, only %zu are sent", static_cast<long long>(GetModemFileSize()),
                    longest);
    CloseModemFile();

    log_debug(">>>>>>>>>>>>Send Partition Table to flash programmer");
    (void)pktio_send_end_of_packet_char(); // as in send_behind_flag
    const auto packet = std::span(request).first(table_at + length);
    if (SendPktWithCallback(packet, reply_code, SendPartitionTableCallBack) != exchange_accepted) {
        s_flash_error_set = false; // what comes now is too late
        s_flash_error_code = table_no_answer;
    }
    const uint32_t outcome = s_flash_error_code;
    if (s_flash_error_set) {
        log_error("Flash error: %s", outcome < s_flash_err_str.size() ? s_flash_err_str.at(outcome) : "unknown");
        return download_error_reply;
    }
    if (outcome == table_accepted)
        return 0;
    log_info("Action needed! status=%d", static_cast<int>(outcome));
    return download_action_needed;
}

int32_t SendBootLoader(const std::string& file)
{
    using namespace stream;
    if (OpenModemFile(file) < 0) {
        log_error("Unable to open file: %s", file.c_str());
        return download_no_file;
    }
    log_debug("Sending %s ... ", file.c_str());
    const int64_t size = GetModemFileSize();
    std::array<uint8_t, data_at + block> request{code};
    uint32_t offset = 0;
    Progress progress(file, static_cast<uint64_t>(std::max<int64_t>(size, 0)), ProgressUnit::bytes);
    for (size_t length = block; length == block;) {
        length = ReadModemFile(std::span(request).subspan(data_at));
        if (length == 0)
            break;
        put_le32(request, offset_at, offset);
        send_unexamined(std::span(request).first(data_at + length), reply_code);
        offset += static_cast<uint32_t>(length);
        progress.advance_to(offset);
        show_progress();
    }
    CloseModemFile();
    if (offset != size) {
        log_error("Only %lld of %lld bytes of %s could be read", static_cast<long long>(offset),
                  static_cast<long long>(size), file.c_str());
        return download_no_file;
    }
    return 0;
}

int32_t SendErase()
{
    log_debug(">>>>>>>>>>>>Send ERASE to module");
    s_flash_error_set = false;
    (void)pktio_send_end_of_packet_char();
    (void)SendPktWithCallback(std::array{erase::code}, erase::reply_code, SendEraseCallBack);
    return s_flash_error_set ? download_flash_refused : 0;
}

int32_t SendReset()
{
    constexpr char reset = '2';
    const UniqueFd power(open(power_path, O_RDWR | O_CLOEXEC));
    if (!power.valid()) {
        log_error("Unable to open file %s (%s)", power_path, error_text(errno).c_str());
        return 1;
    }
    if (write(power.get(), &reset, sizeof reset) != sizeof reset) {
        log_error("Failed to write to %s (%s)", power_path, error_text(errno).c_str());
        return 1;
    }
    return 0;
}

int32_t UpdateModemImages(const std::string& port)
{
    log_info("Download modem images ...");
    int32_t result = start_flash_programmer(port);
    if (result == 0) {
        wait_for_flash_programmer(port);
        (void)OpenSerialPort(port.c_str());
        result = write_images();
        CloseSerialPort();
        if (result != 0)
            return result; // the programmer goes on waiting for a table that it likes
    }
    if (sFlashAllPartitions != 0 || is_emergency_download_mode() != 0) {
        sFlashAllPartitions = 1;
        log_info("STAGE3: hw reset modem");
        (void)wan_control("reset");
    }
    return result;
}
