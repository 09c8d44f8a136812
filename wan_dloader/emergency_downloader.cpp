#include "wan_dloader/emergency_downloader.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "wan_dloader/image_catalogue.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace {

// DLOAD protocol, big-endian.
constexpr uint8_t acknowledge_code = 0x02;
constexpr uint8_t parameter_code = 0x07, parameter_reply_code = 0x08;
constexpr uint8_t no_operation_code = 0x06;

// Write: 01, address (3), length (2), data; or 0F, address (4), length (2), data. The length is that of the data.
struct WriteLayout {
    uint8_t code;
    size_t address_size;

    static constexpr size_t address_at = 1, length_size = 2;
    [[nodiscard]] constexpr size_t length_at() const { return address_at + address_size; }
    [[nodiscard]] constexpr size_t data_at() const { return length_at() + length_size; }
};
constexpr WriteLayout write_24 = {0x01, 3}, write_32 = {0x0F, 4};

// A write goes out once it has grown this long, header included.
constexpr size_t write_threshold = 1024;

// Go: 05, segment (2), offset (2); or 05, address (4).
namespace go {
constexpr uint8_t code = 0x05;
constexpr size_t segment_at = 1, address_at = 1, size = 5;
} // namespace go

// DIAG requests of one byte, answered with the same code.
constexpr uint8_t enter_dload_code = 0x3A;
constexpr uint8_t diag_probe_code = 0x1D;
constexpr uint32_t diag_probe_reply_size = 9; // a time stamp: what else answers this code is not DIAG

constexpr int32_t exit_bad_call = 1, exit_bad_record = 69, exit_not_reenumerated = 72;

// Clears ExitOnTimeout for an exchange that may well stay without an answer.
class TolerateSilence {
public:
    TolerateSilence() : saved_(ExitOnTimeout) { ExitOnTimeout = 0; }
    TolerateSilence(const TolerateSilence&) = delete;
    TolerateSilence(TolerateSilence&&) = delete;
    TolerateSilence& operator=(const TolerateSilence&) = delete;
    TolerateSilence& operator=(TolerateSilence&&) = delete;
    ~TolerateSilence() { ExitOnTimeout = saved_; }

private:
    int32_t saved_;
};

// Whether the port answers `probe` with `expected_code`. The length of the answer is in sResponseLen.
bool answers(const std::string& port, uint8_t probe, uint8_t expected_code)
{
    if (!path_exists(port)) {
        log_warning("DIAG port (%s) doesn't exist", printable(port).c_str());
        return false;
    }
    (void)OpenSerialPort(port.c_str());
    const TolerateSilence for_one_exchange;
    const int32_t result = SendPktAndWait(std::array{probe}, expected_code);
    CloseSerialPort();
    return result == exchange_accepted;
}

// Waits up to 31 s until `path` is another device file than the one that was opened last. `status` is what it is then.
bool comes_back(const char* path, struct stat& status)
{
    log_debug("Waiting for serial port re-enumeration");
    constexpr int tries = 31;
    for (int i = 0; i < tries; ++i) {
        // A port that comes back is a new device file; one that stays keeps its ctime.
        if (stat(path, &status) == 0 && status.st_ctime != gSerialStat.st_ctime)
            return true;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return false;
}

// ---- Intel HEX ----

// Record: ":", data bytes (2 digits), address (4), type (2), data, check sum (2).
namespace hex_record {
constexpr size_t count_at = 1, offset_at = 3, type_at = 7, data_at = 9;
constexpr size_t address_digits = 4, start_digits = 8;
enum Type : uint32_t { data, end_of_file, segment_address, segment_start, linear_address, linear_start, unknown };
} // namespace hex_record

constexpr size_t longest_line = 511;

bool has_hex_digits(std::string_view text, size_t at, size_t count)
{
    return text.size() >= at + count &&
           std::ranges::all_of(text.substr(at, count), [](char c) { return hex2int(c) >= 0; });
}

// ---- sending the downloader ----

// The write that is being filled.
class WritePacket {
public:
    explicit WritePacket(const WriteLayout& layout) : layout_(layout), bytes_{layout.code} {}

    // The packet's address is that of the first record in it; those behind it are taken to follow on.
    void append(uint32_t address, std::span<const uint8_t> data)
    {
        if (bytes_.size() == 1) {
            bytes_.resize(layout_.data_at());
            for (size_t i = 0; i < layout_.address_size; ++i)
                put_u8(bytes_, WriteLayout::address_at + i,
                       static_cast<uint8_t>(address >> 8 * (layout_.address_size - 1 - i) & 0xFF));
        }
        bytes_.insert(bytes_.end(), data.begin(), data.end());
    }

    [[nodiscard]] bool is_full() const { return bytes_.size() >= write_threshold; }

    // Sends what there is and begins anew. A write that is not acknowledged is not sent again.
    void flush(uint32_t last_address)
    {
        if (bytes_.size() == 1)
            return;
        put_be16(bytes_, layout_.length_at(), static_cast<uint16_t>(bytes_.size() - layout_.data_at()));
        log_debug(">>>>>>>>>>>>>Addr: 0x%.8x", last_address);
        (void)send_behind_flag(bytes_, acknowledge_code);
        bytes_.resize(1);
    }

private:
    const WriteLayout& layout_;
    std::vector<uint8_t> bytes_;
};

// Sends the records of the open downloader. 0, or 1 where the file is damaged (ERROR) or ends without its end record.
int32_t send_records(HexState& state)
{
    if (s_dlWrite32Flag != 0)
        log_debug("Using 32-bit write");
    WritePacket packet(s_dlWrite32Flag != 0 ? write_32 : write_24);

    std::array<char, longest_line + 1> buffer{};
    std::vector<uint8_t> data;
    bool continues = false; // the line before went on
    for (int32_t eof = 0; eof == 0;) {
        if (!FgetsModemFile(buffer))
            return 1;
        const std::string_view line = buffer.data();
        const bool is_rest = std::exchange(continues, line.size() == longest_line && !line.ends_with('\n'));
        if (is_rest)
            continue; // of a line that is no record
        if (continues && line.starts_with(':')) {
            log_error("packet is longer than %d characters", static_cast<int>(longest_line));
            return 1;
        }
        const int32_t type = ParseIntelHex(line, state, data, eof);
        if (type == hex_damaged)
            return 1;
        if (type != hex_record::data)
            continue;
        packet.append(state.dlRAMAddress, data);
        if (packet.is_full())
            packet.flush(state.dlRAMAddress);
    }
    packet.flush(state.dlRAMAddress);
    return 0;
}

void start_downloader(const HexState& state)
{
    log_debug("*");
    std::array<uint8_t, go::size> request{go::code};
    if (s_dlWrite32Flag != 0)
        put_be32(request, go::address_at, state.dlRAMAddrStart32);
    else
        put_be16(request, go::segment_at, static_cast<uint16_t>(state.dlRAMAddrStart & 0xFFFF)); // at offset 0

    log_debug(">>>>>>>>>>>>Jump to Downloader");
    const TolerateSilence for_one_exchange; // it may start before it has answered
    if (send_behind_flag(request, acknowledge_code) == exchange_accepted)
        log_debug("Jumped to Downloader");
    else
        log_debug("Not sure if modem jumps to downloader");
}

} // namespace

int32_t WaitForDiagPort(const std::string& path, int32_t seconds)
{
    for (; seconds > 0; --seconds) {
        if (path_exists(path))
            return 1;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    log_warning("Timeout: DIAG port (%s) doesn't exist", printable(path).c_str());
    return 0;
}

int32_t CheckSerialReEnumerate(const char* path)
{
    if (path == nullptr) {
        log_error("filename is NULL!");
        end_process(exit_bad_call);
    }
    struct stat status {};
    if (comes_back(path, status))
        return 0;
    const std::string name = printable(path);
    log_error("Serial device file %s has not been re-enumerated", name.c_str());
    log_error("ctime of %s = %d", name.c_str(), static_cast<int>(status.st_ctime));
    log_error("atime of %s = %d", name.c_str(), static_cast<int>(status.st_atime));
    log_error("mtime of %s = %d", name.c_str(), static_cast<int>(status.st_mtime));
    end_process(exit_not_reenumerated);
}

void wait_for_reset_modem(const std::string& port)
{
    struct stat status {};
    if (!comes_back(port.c_str(), status))
        log_warning("Modem's port %s has not come back", printable(port).c_str());
}

int32_t IsDLoadMode(const std::string& port)
{
    return answers(port, no_operation_code, acknowledge_code) ? 1 : 0;
}

int32_t IsDiagMode(const std::string& port)
{
    return answers(port, diag_probe_code, diag_probe_code) && sResponseLen == diag_probe_reply_size ? 1 : 0;
}

int32_t Switch2DLoadMode(const std::string& port)
{
    log_info("Entering Download mode");
    (void)OpenSerialPort(port.c_str());
    (void)SendPktAndWait(std::array{enter_dload_code}, enter_dload_code);
    CloseSerialPort();
    return 0;
}

int32_t send_behind_flag(std::span<const uint8_t> request, uint8_t expected_code)
{
    (void)pktio_send_end_of_packet_char(); // a port that is gone fails the request
    return SendPktAndWait(request, expected_code);
}

int32_t SendDownLoader()
{
    log_debug(">>>>>>>>>>>>Parameter Request");
    (void)send_behind_flag(std::array{parameter_code}, parameter_reply_code);

    log_debug("Send Flash Programmer: ");
    const std::string name =
        sSelectedModel == model_none ? "" : modem_img.at(static_cast<size_t>(sSelectedModel)).downloader;
    if (name.empty() || OpenModemDownloader(name) < 0) {
        log_error("Failed to open downloader");
        return 1;
    }
    log_debug("%s", printable(path_of_image(downloader_file(name))).c_str());

    HexState state;
    const int32_t result = send_records(state);
    if (result == 0)
        start_downloader(state);
    CloseModemFile();
    return result;
}

uint32_t ParseUint(std::string_view text, size_t digits)
{
    constexpr size_t most = 8;
    if (digits > most) {
        log_error("invalid length %d", static_cast<int>(digits));
        end_process(exit_bad_call);
    }
    uint32_t value = 0;
    for (const char character : text.substr(0, digits)) {
        const int32_t digit = hex2int(character);
        if (digit < 0)
            break;
        value = value << 4 | static_cast<uint32_t>(digit);
    }
    return value;
}

int32_t ParseIntelHex(std::string_view line, HexState& state, std::vector<uint8_t>& data, int32_t& eof)
{
    using namespace hex_record;
    data.clear();
    eof = 0;
    if (!line.starts_with(':')) {
        log_error("packet didn't start with :");
        return hex_no_record;
    }
    const auto number = [&](size_t at, size_t digits) { return ParseUint(line.substr(at), digits); };
    const auto damaged = [](const char* why) {
        log_error("packet %s", why);
        return hex_damaged;
    };
    if (!has_hex_digits(line, count_at, data_at - count_at))
        return damaged("is cut short");
    const uint32_t count = number(count_at, 2);
    const uint32_t type = number(type_at, 2);
    if (type >= unknown) {
        log_error("bad packet from the file");
        end_process(exit_bad_record);
    }

    switch (type) {
    case hex_record::data:
        if (count > hex_record_bytes)
            return damaged("holds more than 32 bytes");
        if (!has_hex_digits(line, data_at, size_t{2} * count))
            return damaged("is cut short");
        state.dlRAMAddress = state.dlRAMAddrMSW << 16 | number(offset_at, address_digits);
        for (size_t i = 0; i < count; ++i)
            data.push_back(static_cast<uint8_t>(number(data_at + 2 * i, 2)));
        break;
    case end_of_file:
        eof = 1;
        break;
    case linear_address:
        if (!has_hex_digits(line, data_at, address_digits))
            return damaged("is cut short");
        state.dlRAMAddrMSW = number(data_at, address_digits);
        if (state.dlRAMAddrStart == HexState{}.dlRAMAddrStart)
            state.dlRAMAddrStart = state.dlRAMAddrMSW;
        break;
    case linear_start:
        if (!has_hex_digits(line, data_at, start_digits))
            return damaged("is cut short");
        state.dlRAMAddrStart32 = number(data_at, start_digits);
        log_debug("dlRAMAddrStart=%08x", state.dlRAMAddrStart32);
        break;
    default:
        break;
    }
    return static_cast<int32_t>(type);
}
