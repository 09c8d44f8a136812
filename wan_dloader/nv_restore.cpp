#include "wan_dloader/nv_restore.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/efs2.h"
#include "crashdump/efs2_exchange.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "platform/progress.h"
#include "wan_dloader/nv_file.h"
#include "wan_dloader/nv_transfer.h"
#include "wan_dloader/run_settings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t item_file_flags = 0x80040; // of the modem: make the file, and the directories above it
constexpr uint32_t write_new = 0x41;          // write only, create
constexpr uint32_t write_over = 0x201;        // write only, truncate
constexpr uint32_t open_to_all = 0666;        // mode of a new file

// Items, files and whole steps that the last restore could not carry out.
uint32_t s_unrestored = 0;

// Something is wrong with the backup file that is being restored.
bool s_is_damaged = false;

// Shared with the reader thread.
std::mutex s_nv_mutex;
NvPacket DiagNvPkt{};    // the request in flight
bool s_nv_taken = false; // the modem did what it asks, or keeps the item from being written: no restore could then

// Numbers of the item files written outside of a restore, in the life of the process.
uint16_t seq_num = 0;
uint16_t seq_out = 0;

// Reader thread.
int32_t NvRestoreCallback(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    const std::lock_guard lock(s_nv_mutex);
    const auto response = nv_response(packet, DiagNvPkt);
    if (response.empty())
        return 1;
    const uint16_t status = get_le16(response, nv_packet::status_at);
    s_nv_taken =
        get_u8(packet, 0) != bad_spc_code && (status == nv_status::done || status == nv_status::write_protected);
    return judge_nv_status(response);
}

NvPacket write_request(NvPacket packet)
{
    put_u8(packet, 0, nv_packet::write_code);
    put_le16(packet, nv_packet::status_at, 0);
    return packet;
}

// Sends a write request, NvRestoreCallback being installed. Whether the modem took it; if not, the log says why.
bool send_nv_write(const NvPacket& request)
{
    {
        const std::lock_guard lock(s_nv_mutex);
        DiagNvPkt = request;
        s_nv_taken = false;
    }
    if (SendPktAndWait(DiagNvPkt, 0) != exchange_accepted)
        log_warning("NV item (%d): no answer", get_le16(request, nv_packet::item_at));
    const std::lock_guard lock(s_nv_mutex);
    return s_nv_taken;
}

constexpr int32_t refused = -1; // of EFS2 operations; other failures are want of an answer

int32_t try_to_open_efs_file(const std::string& path)
{
    const int32_t status = efs2_stat(path, nullptr);
    if (status != 0 && status != refused)
        return status; // no answer: opened as a new one, a file that is there would keep its tail
    if (status == 0)
        log_info("%s exists - overwrite it", printable(path).c_str());
    else
        log_info("%s doesn't exist - create it", printable(path).c_str());
    return efs2_open_file(path, status == 0 ? write_over : write_new, open_to_all);
}

// Opens the regular file `path` of the modem, over one that is there. The descriptor, or a negative failure. When the
// answer is lost the modem may have emptied the file, so it is tried again, and then an ERROR.
int32_t open_efs_file(const std::string& path)
{
    int32_t descriptor = try_to_open_efs_file(path);
    if (descriptor < refused)
        descriptor = try_to_open_efs_file(path);
    if (descriptor < refused)
        log_error("No answer to opening %s, it may be empty on the modem", printable(path).c_str());
    return descriptor;
}

// Writes `data` to the open file `descriptor` of the modem. False with an ERROR when that fails.
bool write_pieces(int32_t descriptor, std::span<const uint8_t> data, const std::string& path)
{
    for (size_t offset = 0; offset < data.size();) {
        const auto piece = data.subspan(offset).first(std::min<size_t>(data.size() - offset, transfer_piece));
        const int32_t written = efs2_write_file(descriptor, piece, static_cast<uint32_t>(offset));
        if (written < 0) {
            log_error("Failed to write EFS file: %s", printable(path).c_str());
            return false;
        }
        if (static_cast<size_t>(written) < piece.size()) {
            log_error("Failed to write %d bytes (only %d) to EFS file: %s", static_cast<int>(piece.size()), written,
                      printable(path).c_str());
            return false;
        }
        offset += piece.size();
    }
    return true;
}

// The same, and closes it.
bool write_and_close(int32_t descriptor, std::span<const uint8_t> data, const std::string& path)
{
    const bool written = write_pieces(descriptor, data, path);
    const bool closed = efs2_close_file(descriptor) == 0;
    if (!closed)
        log_error("Failed to close EFS file: %s, it may not be whole", printable(path).c_str());
    return written && closed;
}

// ---- restore ----

// A backup file, open at the records of one chunk.
struct Chunk {
    UniqueFile file;
    NvChunkHeader header;
};

// Opens the backup file `file_name` and looks for a chunk, which `block` names. No file when there is none, with an
// ERROR.
Chunk find_chunk(const std::string& file_name, uint32_t tag, const char* block)
{
    UniqueFile file = open_nv_file(file_name, "r");
    if (!file) {
        log_error("fopen %s: %s", file_name.c_str(), error_text(errno).c_str());
        return {};
    }
    const NvFileHeader header = read_nv_file_header(file.get());
    if (!header.is_valid()) {
        log_error("Not a valid NV backup file");
        return {};
    }
    for (uint32_t i = 0; i < header.chunks; ++i) {
        const NvChunkHeader chunk = read_nv_chunk_header(file.get());
        if (chunk.tag == tag)
            return {std::move(file), chunk};
        // Looked at before the seek, which forgets it: the file may claim billions of chunks.
        if (feof(file.get()) != 0)
            break;
        (void)fseeko(file.get(), chunk.size, SEEK_CUR);
    }
    log_error("!!!Not found %s block", block);
    return {};
}

// An ERROR, unless `number` is 0. What was it is in the log before.
void report_failed(uint32_t number, const char* what)
{
    s_unrestored += number;
    if (number != 0)
        log_error("%u %s were not restored", static_cast<unsigned>(number), what);
}

int32_t NvItemRestore(const std::string& file_name)
{
    log_info(">>> Start restoring NV items ...");
    const Chunk chunk = find_chunk(file_name, nv_chunk_header::nv_items, "NV item");
    if (!chunk.file)
        return 1;
    const auto items = nv_items_in(chunk.file.get(), chunk.header);
    if (!items) { // what is behind them would go to the modem as items
        log_error("The NV item block is damaged: %u NV items in %u bytes", static_cast<unsigned>(chunk.header.count),
                  static_cast<unsigned>(chunk.header.size));
        return 1;
    }
    send_service_programming_code();

    SetRspCallback(NvRestoreCallback);
    if (sDebug != 0)
        log_debug("Restoring modem NV items");
    uint32_t sent = 0;
    uint32_t failed = 0;
    NvChunkReader records(chunk.file.get(), {chunk.header.tag, *items, *items * uint32_t{nv_item_record::size}});
    Progress progress("NV items", *items, ProgressUnit::pieces);
    for (; sent < *items; ++sent) {
        NvPacket packet{};
        // Item and data stand in a record as in the request.
        if (!records.read(std::span(packet).subspan(nv_packet::item_at, nv_item_record::size))) {
            log_error("NV backup file ends inside record %d", static_cast<int>(sent));
            ++s_unrestored;
            break;
        }
        if (!send_nv_write(write_request(packet)))
            ++failed;
        progress.advance_to(sent + 1);
    }
    SetRspCallback(nullptr);
    log_info(">>> Totally restored %d NV items.", static_cast<int>(sent));
    report_failed(failed, "NV items");
    return 0;
}

// One file of a backup.
struct FileRecord {
    std::string path;
    std::vector<uint8_t> data;
};

// Reads record `number` of a chunk of kind `tag` and logs its path. Nothing, with an ERROR, where the chunk or the file
// ends inside, or, in a damaged file, the record ends where no other can begin: its data would be cut or hold those of
// others, and go over good ones.
std::optional<FileRecord> read_file_record(NvChunkReader& records, uint32_t tag, uint32_t number)
{
    FileRecord record;
    const auto path = records.read_path();
    const auto length = path ? records.read_number() : std::nullopt;
    if (!length) {
        log_error("NV backup file ends inside record %d", static_cast<int>(number));
        return std::nullopt;
    }
    const std::string name = printable(*path);
    log_info("\t%4d %s", static_cast<int>(number), name.c_str());
    // The record of a long item file may hold less than it says, and what follows is taken for the rest.
    const uint32_t stored = tag == nv_chunk_header::nv_item_files ? fetched_of_nvitemfile(*length) : *length;
    if (s_is_damaged && !records.file_record_at(*length) && !records.file_record_at(stored)) {
        log_error("NV backup file is damaged at record %d: %s", static_cast<int>(number), name.c_str());
        return std::nullopt;
    }
    record.path = *path;
    record.data.resize(*length);
    if (!records.read(record.data)) {
        // Names the plain backup while the golden copy is restored, too; readers of logs know this text.
        log_error("Failed to read file: %s for %s record", "/data/nvbackup.bin", name.c_str());
        return std::nullopt;
    }
    return record;
}

int32_t NvItemFileRestore(const std::string& file_name)
{
    log_info(">>> Start restoring NV item files ...");
    const Chunk chunk = find_chunk(file_name, nv_chunk_header::nv_item_files, "NV item file");
    if (!chunk.file)
        return 1;
    uint16_t sequence = 0;
    uint32_t failed = 0;
    NvChunkReader records(chunk.file.get(), chunk.header);
    for (uint32_t i = 0; i < chunk.header.count; ++i) {
        const auto record = read_file_record(records, chunk.header.tag, i);
        if (!record) {
            ++s_unrestored;
            break;
        }
        ++sequence;
        if (efs2_put_file(record->path, record->data, item_file_flags, sequence) < 0) {
            log_error("Failed to put nv file: %s", printable(record->path).c_str());
            ++failed;
        }
    }
    log_info(">>> Totally restored %d NV item files", static_cast<int>(chunk.header.count));
    report_failed(failed, "NV item files");
    return 0;
}

int32_t EfsFileRestore(const std::string& file_name)
{
    log_info(">>> Start restoring EFS files ...");
    const Chunk chunk = find_chunk(file_name, nv_chunk_header::efs_files, "EFS file");
    if (!chunk.file)
        return 1;
    uint32_t failed = 0;
    NvChunkReader records(chunk.file.get(), chunk.header);
    for (uint32_t i = 0; i < chunk.header.count; ++i) {
        // Read whole before the modem's file is touched: a damaged backup must not cut a good one.
        const auto record = read_file_record(records, chunk.header.tag, i);
        if (!record) {
            ++s_unrestored;
            break;
        }
        const int32_t descriptor = open_efs_file(record->path);
        if (descriptor < 0) {
            log_error("Failed to open EFS file: %s", printable(record->path).c_str());
            ++failed;
            continue;
        }
        if (!write_and_close(descriptor, record->data, record->path))
            ++failed;
    }
    log_info(">>> Totally restored %d EFS files", static_cast<int>(chunk.header.count));
    report_failed(failed, "EFS files");
    return 0;
}

} // namespace

int32_t restore_nv_data(const std::string& port, const std::string& file_name)
{
    if (sFlashAllPartitions == 0)
        return 0;
    if (!await_diag_port(port)) {
        log_error("Timeout: DIAG port (%s) is not ready", port.c_str());
        return 1;
    }
    if (!open_diag_port(port))
        return 1;
    s_is_damaged = path_exists(file_name) && !nv_file_contents(file_name).whole;
    if (s_is_damaged)
        log_warning("%s is not complete, what can be read of it is restored", file_name.c_str());
    request_modem_mode(ModemMode::offline);
    // Each step is of use without the others, and says itself what went wrong.
    s_unrestored = 0;
    const uint32_t strays = efs2_stray_replies();
    for (const auto step : {NvItemRestore, NvItemFileRestore, EfsFileRestore})
        if (step(file_name) != 0)
            ++s_unrestored;
    s_unrestored += stray_replies_since(strays);
    request_modem_mode(ModemMode::reset); // starts on the restored data
    CloseSerialPort();
    return 0;
}

uint32_t nv_values_unrestored()
{
    return s_unrestored;
}

int32_t write_nvitem(const NvPacket& packet)
{
    (void)puts("write_nvitem");
    const NvPacket request = write_request(packet);
    PrintHex(request);
    SetRspCallback(NvRestoreCallback);
    (void)send_nv_write(request);
    SetRspCallback(nullptr);
    return 0;
}

int32_t write_nvitemfile(const std::string& path, std::span<const uint8_t> data)
{
    seq_out = ++seq_num;
    if (efs2_put_file(path, data, item_file_flags, seq_out) < 0) {
        log_error("Failed to put nv file: %s", printable(path).c_str());
        return 1;
    }
    return 0;
}

int32_t write_efsfile(const std::string& path, std::span<const uint8_t> data)
{
    const int32_t descriptor = open_efs_file(path);
    if (descriptor < 0) {
        log_warning("Failed to open %s, skip it\n", printable(path).c_str());
        return 1;
    }
    return write_and_close(descriptor, data, path) ? 0 : 1;
}
