// Oddities of the format that are kept on purpose, since existing backups have them:
//   - An item that the modem refuses for want of the service programming code is stored with the request's data.
//   - Of an item file of more than 512 bytes only the first part is fetched (see fetch_nvitemfile), while D is what the
//     modem said. A restore takes what follows for the rest of it, and loses the item files behind it; an ERROR says so
//     when the backup is made.
//   - The item file that the table has twice is stored twice.

#include "wan_dloader/nv_backup.h"

#include "app/applet_log.h"
#include "crashdump/efs2.h"
#include "crashdump/efs2_exchange.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "platform/progress.h"
#include "wan_dloader/nv_file.h"
#include "wan_dloader/nv_tables.h"
#include "wan_dloader/nv_transfer.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int64_t file_header_size = nv_file_header::size;
constexpr int64_t chunk_header_size = nv_chunk_header::size;

// A file of the modem that claims to be larger is not believed, and is left out.
constexpr uint32_t largest_record = 0x100000;

// Shared with the reader thread.
std::mutex s_nv_mutex;
UniqueFile s_nv_file;         // while NV items are stored
uint32_t s_nvbacked_num = 0;  // of them
uint32_t s_nvrefused_num = 0; // of those, the ones that are stored as zeros
uint32_t s_unread = 0;        // values that the passes so far could not read, or not store as they are
uint32_t s_doubtful = 0;      // values that may be another's
int s_write_error = 0;        // errno of the first write of a pass that failed
NvPacket DiagNvPkt{};         // the request in flight
bool s_indexed = false;       // it is for an entry of an indexed item
bool s_queued = false;        // the modem has answered it by taking it for later
bool s_withheld = false;      // or by something else than the value that it has
int s_late_item = -1;         // the last one that was not answered in time; its answer may still come

// Opens the file of a pass; empty with an ERROR when that fails.
UniqueFile open_backup(const std::string& file_name, const char* mode)
{
    UniqueFile file = open_nv_file(file_name, mode);
    s_write_error = 0;
    if (!file)
        log_error("fopen %s: %s", file_name.c_str(), error_text(errno).c_str());
    return file;
}

void write_record(FILE* file, std::span<const uint8_t> record)
{
    if (fwrite(record.data(), 1, record.size(), file) != record.size() && s_write_error == 0)
        s_write_error = errno;
}

// 0 when every byte of a pass is on the disk, else 1 with an ERROR.
int32_t sync_backup(const UniqueFile& file, const std::string& file_name)
{
    const bool written = ferror(file.get()) == 0;
    if (fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0 && written)
        return 0;
    const int error = s_write_error != 0 ? s_write_error : errno;
    log_error("Failed to write %s: %s", file_name.c_str(), error_text(error).c_str());
    return 1;
}

// Whether the file ends where its chunks do; else an ERROR.
bool has_size(FILE* file, int64_t expected)
{
    const int64_t actual = nv_file_size(file);
    if (actual != expected)
        log_error("NV backup file size is not correct! expected: %lld, actual: %lld", static_cast<long long>(expected),
                  static_cast<long long>(actual));
    return actual == expected;
}

// Stores an NV response that carries data. Reader thread.
int32_t NvBackupCallback(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    const std::lock_guard lock(s_nv_mutex);
    const auto response = nv_response(packet, DiagNvPkt);
    if (response.empty())
        return 1;
    // A late response to the request before looks like one to this one but for the index. Taken for it, it would leave
    // this one's own response for the next request, and so on to the last index, for which none would be left.
    const int item = get_le16(response, nv_packet::item_at), index = get_u8(response, nv_packet::data_at),
              asked = DiagNvPkt[nv_packet::data_at];
    const bool other_index = s_indexed && index != asked;
    if (other_index && item == s_late_item)
        return 1;
    if (get_le16(response, nv_packet::status_at) != 0) {
        const int32_t waits_on = judge_nv_status(response);
        s_queued = waits_on != 0;
        s_withheld = !has_no_nv_item_to_restore(response);
        return waits_on;
    }
    s_withheld = other_index;
    if (other_index)
        log_warning("NV item (%d): index %d instead of %d", item, index, asked);
    if (s_nv_file != nullptr) {
        ++s_nvbacked_num;
        if (get_u8(packet, 0) == bad_spc_code)
            ++s_nvrefused_num;
        // Item and data stand in a record as in the response.
        static_assert(nv_packet::item_at + nv_item_record::data_at == nv_packet::data_at);
        const auto record = response.subspan(nv_packet::item_at, nv_item_record::size);
        write_record(s_nv_file.get(), record);
    }
    return 0;
}

// A WARNING when the modem says nothing; else what came of it is in the file, or in the log. Fetch::got also when the
// modem has no such item.
Fetch read_nv_item(const NvItemRow& row)
{
    {
        const std::lock_guard lock(s_nv_mutex);
        DiagNvPkt.fill(0);
        put_u8(DiagNvPkt, 0, nv_packet::read_code);
        put_le16(DiagNvPkt, nv_packet::item_at, row.item);
        put_u8(DiagNvPkt, nv_packet::data_at, static_cast<uint8_t>(row.index & 0xFF));
        s_indexed = is_indexed_nv_item(row.item);
        s_queued = false;
        s_withheld = false;
    }
    const bool answered = SendPktAndWait(DiagNvPkt, 0) == exchange_accepted;
    if (!answered)
        log_warning("NV item (%d): no answer", row.item);
    const std::lock_guard lock(s_nv_mutex);
    if (answered)
        return s_withheld ? Fetch::withheld : Fetch::got;
    s_late_item = row.item;
    return s_queued ? Fetch::queued : Fetch::unanswered;
}

bool can_write()
{
    const std::lock_guard lock(s_nv_mutex);
    return ferror(s_nv_file.get()) == 0;
}

// A record of a file of the modem, as it stands in the backup file.
std::vector<uint8_t> file_record(const std::string& path, uint32_t size, std::span<const uint8_t> contents)
{
    const size_t path_size = path.size() + 1; // with its zero
    const size_t length_at = 2 + path_size, contents_at = length_at + 2;
    std::vector<uint8_t> record(contents_at + contents.size());
    put_le16(record, 0, static_cast<uint16_t>(path_size));
    std::ranges::copy(path, record.begin() + 2);
    put_le16(record, length_at, static_cast<uint16_t>(size & 0xFFFF));
    std::ranges::copy(contents, record.begin() + static_cast<std::ptrdiff_t>(contents_at));
    return record;
}

// What is stored as the other kind of file has data all the same; a directory has none. Of what is no kind at all there
// is no telling.
Fetch other_kind(const Efs2Stat& status)
{
    const uint32_t type = status.mode & efs2_mode::type_bits;
    const bool is_file = type == efs2_mode::regular_file || type == efs2_mode::item_file;
    const bool has_data = is_file ? status.size != 0 : type != efs2_mode::directory;
    return has_data ? Fetch::withheld : Fetch::left_out;
}

// The contents of an item file; a WARNING when the modem has none of this name and kind, or does not give it.
Fetch get_item_file(const std::string& path, uint16_t& sequence, Efs2Stat& status, std::vector<uint8_t>& contents)
{
    if (efs2_stat(path, &status) != 0) {
        log_warning("%s not found", path.c_str());
        return efs2_not_found() ? Fetch::left_out : Fetch::withheld;
    }
    if ((status.mode & efs2_mode::type_bits) != efs2_mode::item_file) {
        log_warning("%s is not a NV item file: 0x%x", path.c_str(), static_cast<unsigned>(status.mode));
        return other_kind(status);
    }
    log_info("Get file: %s, size: %d", path.c_str(), static_cast<int>(status.size));
    if (status.size > largest_record) {
        log_warning("Skip %s", path.c_str());
        return Fetch::withheld;
    }
    if (const Fetch result = fetch_nvitemfile(path, status.size, sequence, contents); result != Fetch::got)
        return result == Fetch::withheld && status.size == 0 ? Fetch::left_out : result; // there is nothing in it
    // Stored, it would be restored with the records behind it as the rest of its data.
    if (status.size <= transfer_piece && contents.size() < status.size) {
        log_error("%s came short of its %u bytes, skip it!", path.c_str(), static_cast<unsigned>(status.size));
        return Fetch::withheld;
    }
    return Fetch::got;
}

// The contents of a regular file, in the same way.
Fetch get_efs_file(const std::string& path, Efs2Stat& status, std::vector<uint8_t>& contents)
{
    if (efs2_stat(path, &status) != 0) {
        log_warning("%s not found", path.c_str());
        return efs2_not_found() ? Fetch::left_out : Fetch::withheld;
    }
    if ((status.mode & efs2_mode::type_bits) != efs2_mode::regular_file) {
        log_warning("%s is not an EFS file: 0%o", path.c_str(), static_cast<unsigned>(status.mode));
        return other_kind(status);
    }
    log_info("Get file: %s, size: %d", path.c_str(), static_cast<int>(status.size));
    if (status.size > largest_record) {
        log_warning("Skip %s", path.c_str());
        return Fetch::withheld;
    }
    const int32_t descriptor = efs2_open_file(path, open_read_only, open_read_mode);
    if (descriptor < 0) {
        log_warning("Failed to open %s, skip it!", path.c_str());
        return Fetch::withheld;
    }
    contents.resize(status.size);
    uint32_t offset = 0;
    while (offset < status.size) {
        const auto piece = std::span(contents).subspan(offset).first(std::min(status.size - offset, transfer_piece));
        const int32_t count = efs2_read_file(descriptor, piece, offset);
        if (count <= 0)
            break;
        offset += static_cast<uint32_t>(count);
    }
    (void)efs2_close_file(descriptor);
    if (offset == status.size)
        return Fetch::got;
    log_warning("Failed to read %s, skip it!", path.c_str());
    return Fetch::withheld;
}

// Gets values one after the other, and those for which an answer was lost on the way once more: what is not in the
// backup is gone when the modem is erased. A modem that was silent already at the value before is not waited for again.
class SecondTries {
public:
    // Runs `get`, which returns a Fetch, and returns what it did at last.
    template <typename Get>
    Fetch operator()(const Get& get)
    {
        const bool was_silent = silent_;
        Fetch result = try_once(get);
        // What is queued would only be queued once more.
        if (result == Fetch::unanswered && !(was_silent && silent_))
            result = try_once(get);
        if (result == Fetch::unanswered)
            ++unanswered_;
        if (result == Fetch::queued)
            ++queued_;
        if (result == Fetch::withheld)
            ++withheld_;
        return result;
    }

    // How many values the modem did not answer for, how many it took for later, and how many it kept for itself.
    [[nodiscard]] uint32_t unanswered() const { return unanswered_; }
    [[nodiscard]] uint32_t queued() const { return queued_; }
    [[nodiscard]] uint32_t withheld() const { return withheld_; }

private:
    template <typename Get>
    Fetch try_once(const Get& get)
    {
        const uint32_t before = unanswered_requests();
        Fetch result = get();
        const bool timed_out = unanswered_requests() != before;
        if (result == Fetch::withheld && timed_out) // what is left out was answered for
            result = Fetch::unanswered;
        silent_ = result == Fetch::unanswered && timed_out;
        return result;
    }

    bool silent_ = false;
    uint32_t unanswered_ = 0;
    uint32_t queued_ = 0;
    uint32_t withheld_ = 0;
};

// What a pass could not read, of `total` values that `what` names.
void report_unread(const SecondTries& tries, size_t total, const char* what)
{
    s_unread += tries.unanswered() + tries.queued() + tries.withheld();
    const auto report = [&](uint32_t number, const char* why) {
        if (number != 0)
            log_error("%u of %zu %s could not be read: %s", static_cast<unsigned>(number), total, what, why);
    };
    report(tries.unanswered(), "no answer");
    report(tries.queued(), "queued by the modem");
    report(tries.withheld(), "refused or cut by the modem");
}

// Appends the file `path`, whose size the modem gave as `size`.
void append_file(FILE* file, NvChunkHeader& chunk, const std::string& path, uint32_t size,
                 std::span<const uint8_t> contents)
{
    if (contents.size() != (size & 0xFFFF)) {
        ++s_unread;
        log_error("%s: saved %zu of %u bytes; a restore loses what is behind it", path.c_str(), contents.size(),
                  static_cast<unsigned>(size));
    }
    const auto record = file_record(path, size, contents);
    write_record(file, record);
    ++chunk.count;
    chunk.size += static_cast<uint32_t>(record.size());
}

// A chunk of files, and what came of fetching them.
struct FilePass {
    NvChunkHeader chunk;
    SecondTries tries;
};

// Appends a chunk of the files that `get` fetches, each as get_efs_file does. Its header is not the final one yet.
template <typename Get>
FilePass append_files(FILE* file, uint32_t tag, std::span<const NvFileRow> files, const Get& get)
{
    FilePass pass = {{tag, 0, 0}, {}};
    const uint32_t strays = efs2_stray_replies();
    (void)fseeko(file, 0, SEEK_END);
    write_nv_chunk_header(file, pass.chunk);
    (void)efs2_init(); // what a modem without EFS2 cannot give shows file by file
    std::vector<uint8_t> contents;
    for (const NvFileRow& row : files) {
        Efs2Stat status{};
        if (pass.tries([&] { return get(row.path, status, contents); }) == Fetch::got)
            append_file(file, pass.chunk, row.path, status.size, contents);
    }
    s_doubtful += stray_replies_since(strays);
    return pass;
}

// Writes the final header of the chunk that begins at `chunk_at`, then counts it in the file's header, unless records
// may be missing.
int32_t finish_chunk(const UniqueFile& file, const std::string& file_name, const NvFileHeader& header, int64_t chunk_at,
                     const NvChunkHeader& chunk)
{
    (void)fseeko(file.get(), static_cast<off_t>(chunk_at), SEEK_SET);
    write_nv_chunk_header(file.get(), chunk);
    (void)fseeko(file.get(), 0, SEEK_SET);
    if (ferror(file.get()) == 0)
        write_nv_file_header(file.get(), header.chunks + 1);
    return sync_backup(file, file_name);
}

// Lists the files of a chunk.
void list_files(NvChunkReader& records, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        const auto path = records.read_path();
        if (path)
            log_info("%4d %s", static_cast<int>(i), printable(*path).c_str());
        const auto length = path ? records.read_number() : std::nullopt;
        if (!length || !records.skip(*length)) {
            log_error("NV backup file ends inside record %d", static_cast<int>(i));
            return;
        }
    }
}

} // namespace

int32_t NvItemBackup(const std::string& file_name)
{
    log_info(">>> Start NV item backup ...");
    UniqueFile file = open_backup(file_name, "w");
    if (!file)
        return 1;
    NvChunkHeader chunk = {nv_chunk_header::nv_items, 0, 0};
    write_nv_file_header(file.get(), 1);
    write_nv_chunk_header(file.get(), chunk);
    {
        const std::lock_guard lock(s_nv_mutex);
        s_nv_file = std::move(file);
        s_nvbacked_num = 0;
        s_nvrefused_num = 0;
        s_late_item = -1;
    }

    s_unread = 0;
    s_doubtful = 0;
    SetRspCallback(NvBackupCallback);
    if (sDebug != 0)
        log_debug("Backing up modem NV items");
    SecondTries get;
    Progress progress("NV items", NvItemList.size(), ProgressUnit::pieces);
    for (size_t i = 0; i < NvItemList.size() && can_write(); ++i) {
        const NvItemRow& row = NvItemList[i];
        (void)get([&] { return read_nv_item(row); }); // what came of it is in the file
        progress.advance_to(i + 1);
    }
    SetRspCallback(nullptr);

    uint32_t refused = 0;
    {
        const std::lock_guard lock(s_nv_mutex);
        file = std::move(s_nv_file);
        chunk.count = s_nvbacked_num;
        refused = s_nvrefused_num;
    }
    chunk.size = chunk.count * static_cast<uint32_t>(nv_item_record::size);
    (void)fseeko(file.get(), nv_file_header::size, SEEK_SET);
    write_nv_chunk_header(file.get(), chunk);
    const int32_t result = sync_backup(file, file_name);
    log_info(">>> Totally backed up %d NV items.", static_cast<int>(chunk.count));
    report_unread(get, NvItemList.size(), "NV items");
    s_unread += refused;
    if (refused != 0)
        log_error("Stored as zeros, which a restore writes, since the modem refused them: %u",
                  static_cast<unsigned>(refused));
    // What holds nothing at all must not pass for a backup: the modem may be erased next.
    return get.unanswered() + get.queued() == NvItemList.size() ? 1 : result;
}

int32_t NvItemFileBackup(const std::string& file_name)
{
    log_info(">>> Start NV item file backup ...");
    UniqueFile file = open_backup(file_name, "r+");
    if (!file)
        return 1;
    const NvFileHeader header = read_nv_file_header(file.get());
    const NvChunkHeader existing = read_nv_chunk_header(file.get());
    const int64_t end = file_header_size + chunk_header_size + existing.size;
    if (!has_size(file.get(), end))
        return 1;

    uint16_t sequence = 0;
    const auto get = [&sequence](const char* path, Efs2Stat& status, std::vector<uint8_t>& contents) {
        return get_item_file(path, sequence, status, contents);
    };
    const auto [chunk, tries] = append_files(file.get(), nv_chunk_header::nv_item_files, NvItemFileList, get);
    log_info(">>> Total saved NV item files: %d, size: %d", static_cast<int>(chunk.count),
             static_cast<int>(chunk.size));
    report_unread(tries, NvItemFileList.size(), "NV item files");
    return finish_chunk(file, file_name, header, end, chunk);
}

int32_t EfsFileBackup(const std::string& file_name)
{
    log_info(">>> Start EFS file backup ...");
    UniqueFile file = open_backup(file_name, "r+");
    if (!file)
        return 1;
    const NvFileHeader header = read_nv_file_header(file.get());
    int64_t end = file_header_size;
    for (int i = 0; i < 2; ++i) {
        (void)fseeko(file.get(), static_cast<off_t>(end), SEEK_SET);
        const NvChunkHeader existing = read_nv_chunk_header(file.get());
        (void)printf("chunk size:  %d\n", static_cast<int>(existing.size));
        end += chunk_header_size + existing.size;
    }
    if (!has_size(file.get(), end))
        return 1;

    const auto [chunk, tries] = append_files(file.get(), nv_chunk_header::efs_files, EFSFileList, get_efs_file);
    log_info(">>> Total saved EFS files: %d, size: %d", static_cast<int>(chunk.count), static_cast<int>(chunk.size));
    report_unread(tries, EFSFileList.size(), "EFS files");
    return finish_chunk(file, file_name, header, end, chunk);
}

uint32_t nv_values_unread()
{
    return s_unread + s_doubtful;
}

uint32_t nv_values_doubtful()
{
    return s_doubtful;
}

void NVItemBackupVerify(const std::string& file_name)
{
    log_info(">>> Start verifying nvbackup file ...");
    const UniqueFile file = open_backup(file_name, "r");
    if (!file)
        return;
    const NvFileHeader header = read_nv_file_header(file.get());
    if (!header.is_valid()) {
        log_error("Not a valid NV backup file");
        return;
    }
    log_info("Total chunks: %d", static_cast<int>(header.chunks));
    for (uint32_t to_go = header.chunks; to_go > 0; --to_go) {
        log_info(">>> %d", static_cast<int>(to_go));
        const NvChunkHeader chunk = read_nv_chunk_header(file.get());
        NvChunkReader records(file.get(), chunk);
        switch (chunk.tag) {
        case nv_chunk_header::nv_items:
            log_info("NV Item chunk:");
            log_info("\tNV items: %d", static_cast<int>(chunk.count));
            log_info("\tTotal size: %d", static_cast<int>(chunk.size));
            break;
        case nv_chunk_header::nv_item_files:
            log_info("NV Item File chunk:");
            log_info("\tNV item files: %d", static_cast<int>(chunk.count));
            log_info("\tTotal size: %d", static_cast<int>(chunk.size));
            list_files(records, chunk.count);
            break;
        case nv_chunk_header::efs_files:
            log_info("EFS File chunk:");
            log_info("\tEFS files: %d", static_cast<int>(chunk.count));
            log_info("\tTotal size: %d", static_cast<int>(chunk.size));
            list_files(records, chunk.count);
            break;
        default:
            log_error("Missing chunks: %d", static_cast<int>(to_go));
            if (feof(file.get()) != 0)
                to_go = 1; // a file that has ended has no more of them
            continue;
        }
        if (!records.skip_rest()) {
            log_error("NV backup file ends inside a chunk");
            break;
        }
    }
    log_info(">>> Completed nvbackup file verifying: OK");
}
