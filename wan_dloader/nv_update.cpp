#include "wan_dloader/nv_update.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/efs2.h"
#include "crashdump/efs2_exchange.h"
#include "crashdump/nv_item.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "wan_dloader/nv_restore.h"
#include "wan_dloader/nv_transfer.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

constexpr size_t longest_update_line = 254;            // without its line feed; of a data line, too
constexpr size_t initial_buffer = 1024;                // bytes
constexpr uint32_t largest_file = 16U * 1024U * 1024U; // of the modem, whose whole file system is smaller
constexpr uint16_t first_sequence = 100;               // of the requests that show an item file
constexpr int32_t read_attempts = 10;                  // for one piece of a file

struct Keyword {
    std::string_view text;
    NvRecordType type;
};

// In the order of testing.
constexpr Keyword keywords[] = {
    {"NV ITEM=", NvRecordType::nv_item},
    {"NV ITEM FILE=", NvRecordType::nv_item_file},
    {"EFS FILE=", NvRecordType::efs_file},
    {"DEL EFS FILE=", NvRecordType::del_efs_file},
};

// A line with its line feed, where it has one. Of a refused one, what came before the cause.
struct UpdateLine {
    std::string text;
    bool refused;
};

// What one update file has at work.
struct NvUpdate {
    UniqueFile file;
    std::vector<uint8_t> buffer;
    std::string path;     // of the last file record
    bool met_next_header; // the line to come ended the data of a record
};

// Reads the next line, to its end also where it is refused. False at the end of the file, or when reading fails.
bool read_line(FILE* file, UpdateLine& line)
{
    line = {};
    int c = EOF;
    while ((c = getc(file)) != EOF && c != '\n') {
        line.refused = line.refused || c == '\0' || line.text.size() == longest_update_line;
        if (!line.refused)
            line.text += static_cast<char>(c);
    }
    if (c == '\n' && !line.refused)
        line.text += '\n';
    return ferror(file) == 0 && (line.refused || !line.text.empty());
}

void refuse(const UpdateLine& line)
{
    log_error("UpdateNV: line with a zero byte or more than %zu characters refused: %s", longest_update_line,
              printable(line.text).c_str());
}

// Stores the bytes of one data line from buffer[count] on. False when there are more than find room.
bool store_bytes(std::string_view text, std::span<uint8_t> buffer, size_t& count)
{
    for (text = trim_buf(text); text.size() >= 2; text = trim_buf(text.substr(2))) {
        const int32_t high = hex2int(text[0]);
        const int32_t low = hex2int(text[1]);
        if (high < 0 || low < 0)
            break;
        if (count == buffer.size())
            return false;
        buffer[count++] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

// Makes `buffer` `size` bytes large, new ones zero. False when there is no memory.
bool enlarge(std::vector<uint8_t>& buffer, size_t size)
{
    try {
        buffer.resize(size);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

int32_t delete_efs2_file(const std::string& path)
{
    if (efs2_stat(path, nullptr) != 0) {
        log_warning("%s not found", printable(path).c_str());
        return 0;
    }
    return efs2_remove(path);
}

// ---- records ----

int32_t read_data(NvUpdate& update, std::span<uint8_t> destination)
{
    const int32_t count = get_data(destination, update.file.get());
    update.met_next_header = count >= 0;
    return count;
}

// Takes the path of a file record, or leaves the one of the record before it.
void take_path(NvUpdate& update, std::string_view header, std::string_view keyword)
{
    if (get_field_str(header, keyword, update.path) < 0 && !update.path.empty())
        log_warning("UpdateNV: no \",\" behind a path, taken as %s", printable(update.path).c_str());
}

// Reads the data of a file record. False when there are none to write; a WARNING then, and when they are not `size`
// bytes.
bool read_file_data(NvUpdate& update, int32_t size)
{
    const int32_t count = read_data(update, update.buffer);
    if (count == 0)
        log_warning("UpdateNV: no data for %s, not written", printable(update.path).c_str());
    if (count > 0 && count != size)
        log_warning("UpdateNV: %d bytes of data for %d bytes of %s", count, size, printable(update.path).c_str());
    return count > 0;
}

// Whether a file record tells what to write; an ERROR when not.
bool is_complete(const NvUpdate& update, int32_t size)
{
    if (update.path.empty()) {
        log_error("UpdateNV: no path");
        return false;
    }
    if (size < 0)
        log_error("UpdateNV: invalid size (%d bytes)", size);
    return size >= 0;
}

// The item's packet is made in the working buffer, where later records may find its data.
void update_nv_item(NvUpdate& update, std::string_view header)
{
    const int32_t item = get_field_int(header, "NV ITEM");
    log_info("NV item=%d, index=%d", item, get_field_int(header, "INDEX"));
    if (item < 0 || item > std::numeric_limits<uint16_t>::max()) {
        log_error("UpdateNV: invalid NV item (%d)", item);
        return;
    }
    const auto request = std::span(update.buffer).first<nv_packet::size>();
    std::ranges::fill(request, uint8_t{0});
    put_le16(request, nv_packet::item_at, static_cast<uint16_t>(item));
    const int32_t count = read_data(update, request.subspan(nv_packet::data_at, nv_packet::data_size));
    if (count < 0)
        return;
    if (count == 0)
        log_warning("UpdateNV: no data for NV item %d, written as zeros", item);
    NvPacket packet{};
    std::ranges::copy(request, packet.begin());
    (void)write_nvitem(packet);
}

void update_nv_item_file(NvUpdate& update, std::string_view header)
{
    take_path(update, header, "NV ITEM FILE");
    const int32_t size = get_field_int(header, "SIZE");
    log_info("NV item file=%s, size=%d", printable(update.path).c_str(), size);
    if (!is_complete(update, size))
        return;
    const auto length = static_cast<size_t>(size);
    const size_t most = std::min<size_t>(update.buffer.size(), std::numeric_limits<uint16_t>::max());
    if (length > most) {
        log_error("UpdateNV: invalid size (%d bytes), at most %zu for an item file", size, most);
        return;
    }
    if (read_file_data(update, size))
        (void)write_nvitemfile(update.path, std::span(update.buffer).first(length));
}

void update_efs_file(NvUpdate& update, std::string_view header)
{
    take_path(update, header, "EFS FILE");
    const int32_t size = get_field_int(header, "SIZE");
    log_info("EFS file=%s, size=%d", printable(update.path).c_str(), size);
    if (!is_complete(update, size))
        return;
    const auto length = static_cast<size_t>(size);
    if (length > update.buffer.size() && (length > largest_file || !enlarge(update.buffer, length))) {
        log_error("UpdateNV: realloc failed (%d bytes)", size);
        return;
    }
    if (read_file_data(update, size))
        (void)write_efsfile(update.path, std::span(update.buffer).first(length));
}

void delete_file(std::string_view header)
{
    constexpr std::string_view keyword = "DEL EFS FILE=";
    const std::string path(trim_tail(header.substr(keyword.size())));
    log_info("Delete EFS/NV file: %s", printable(path).c_str());
    if (path.empty())
        log_error("UpdateNV: no path");
    else
        (void)delete_efs2_file(path);
}

void update_record(NvUpdate& update, std::string_view text)
{
    switch (get_nvtype(text)) {
    case NvRecordType::nv_item:
        return update_nv_item(update, text);
    case NvRecordType::nv_item_file:
        return update_nv_item_file(update, text);
    case NvRecordType::efs_file:
        return update_efs_file(update, text);
    case NvRecordType::del_efs_file:
        return delete_file(text);
    case NvRecordType::other:
        if (!text.starts_with('\n') && !text.starts_with('\r'))
            log_warning("Invalid type: %s", printable(trim_tail(text)).c_str());
    }
}

// Opens `name`, which must be a regular file: a pipe or a device might never end.
UniqueFile open_update_file(const std::string& name)
{
    struct stat status = {};
    if (stat(name.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    return open_file(name, "r");
}

// Applies one file. 0, or 1 with an ERROR when there is no memory for the buffer, or the file cannot be opened or read.
int32_t update_nv_file(const std::string& name)
{
    NvUpdate update{};
    if (!enlarge(update.buffer, initial_buffer)) {
        log_error("UpdateNV: Failed to alloc buf 1024 bytes!");
        return 1;
    }
    update.file = open_update_file(name);
    if (update.file == nullptr) {
        log_error("Failed to open NV file");
        return 1;
    }

    UpdateLine line{};
    while (read_line(update.file.get(), line)) {
        const std::string_view text = trim_buf(line.text);
        // A comment with a "=" has cut the data before it short, which whoever wrote it should know.
        const bool ended_data = std::exchange(update.met_next_header, false);
        if (line.refused && !text.starts_with('#'))
            refuse(line);
        else if (ended_data || !is_comment_line(text))
            update_record(update, text);
    }
    if (ferror(update.file.get()) != 0) {
        log_error("Failed to read NV file");
        return 1;
    }
    return 0;
}

// ---- showing a file ----

// Fills `data` from the open regular file `path`, and cuts it to what could be read. The modem may be busy, so a failed
// read is tried again.
void read_efs_file(int32_t descriptor, const std::string& path, std::vector<uint8_t>& data)
{
    size_t held = 0;
    for (int32_t failures = 0; held < data.size() && failures < read_attempts;) {
        const auto piece = std::span(data).subspan(held, std::min<size_t>(data.size() - held, transfer_piece));
        const int32_t length = efs2_read_file(descriptor, piece, static_cast<uint32_t>(held));
        failures = length > 0 ? 0 : failures + 1;
        held += static_cast<size_t>(std::max(length, 0));
    }
    if (held < data.size())
        log_error("Failed to read %s: %zu of %zu bytes", printable(path).c_str(), held, data.size());
    data.resize(held);
}

void show_item_file(const std::string& path, std::vector<uint8_t>& data)
{
    uint16_t sequence = first_sequence;
    const size_t size = data.size();
    if (fetch_nvitemfile(path, static_cast<uint32_t>(size), sequence, data) != Fetch::got)
        return;
    PrintHex(data);
    if (data.size() != size)
        log_warning("%s: only %zu of %zu bytes", printable(path).c_str(), data.size(), size);
}

void show_efs_file(const std::string& path, std::vector<uint8_t>& data)
{
    const int32_t descriptor = efs2_open_file(path, open_read_only, open_read_mode);
    if (descriptor < 0) {
        log_warning("Failed to open %s, skip it!", printable(path).c_str());
        return;
    }
    read_efs_file(descriptor, path, data);
    (void)efs2_close_file(descriptor); // was only read
    PrintHex(data);
}

int32_t show_nv_file(const std::string& path)
{
    Efs2Stat status{};
    if (efs2_stat(path, &status) != 0) {
        log_warning("%s not found", printable(path).c_str());
        return 1;
    }
    (void)printf("file size=%d\n", static_cast<int>(status.size));
    std::vector<uint8_t> data;
    if (status.size > largest_file || !enlarge(data, status.size)) {
        log_error("Memory allocation failed: %d\n", static_cast<int>(status.size));
        return 1;
    }

    switch (status.mode & efs2_mode::type_bits) {
    case efs2_mode::item_file:
        log_info("%s is an NV item file", printable(path).c_str());
        show_item_file(path, data);
        return 0;
    case efs2_mode::regular_file:
        log_info("%s is an EFS2 file", printable(path).c_str());
        show_efs_file(path, data);
        return 0;
    default:
        log_warning("%s is an unknown file type: 0x%x", printable(path).c_str(), static_cast<unsigned>(status.mode));
        return 1;
    }
}

// Runs `work` with `port` open. Its result, or 1 when the port does not appear. Answers that may be another file's are
// told of.
template <typename Work>
int32_t with_port(const std::string& port, Work work)
{
    if (!open_diag_port(port))
        return 1;
    const uint32_t strays = efs2_stray_replies();
    const int32_t result = work();
    (void)stray_replies_since(strays); // is in the log
    CloseSerialPort();
    return result;
}

// Applies the files up to the first that fails, to the modem set offline. 0, or 1 when one failed.
int32_t apply_files(std::span<const std::string> files)
{
    log_info("Set OFFLINE mode");
    request_modem_mode(ModemMode::offline);
    return std::ranges::all_of(files, [](const auto& file) { return update_nv_file(file) == 0; }) ? 0 : 1;
}

} // namespace

int32_t UpdateNV(const std::string& file, const std::string& port)
{
    return with_port(port, [&file] {
        (void)apply_files({&file, 1}); // callers go on whatever came of it
        return 0;
    });
}

int32_t UpdateNV2(std::span<const std::string> files, const std::string& port)
{
    return with_port(port, [files] { return apply_files(files); });
}

int32_t ReadNVF(const std::string& path, const std::string& port)
{
    return with_port(port, [&path] { return show_nv_file(path); });
}

int32_t DeleteEFS2F(const std::string& path, const std::string& port)
{
    return with_port(port, [&path] { return delete_efs2_file(path); });
}

NvRecordType get_nvtype(std::string_view text)
{
    for (const Keyword& keyword : keywords) {
        if (text.starts_with(keyword.text))
            return keyword.type;
    }
    return NvRecordType::other;
}

int32_t get_field_int(std::string_view text, std::string_view name)
{
    const size_t at = text.find(name);
    if (at == std::string_view::npos || text.size() - at == name.size())
        return -1;
    const std::string value(text.substr(at + name.size() + 1));
    char* end = nullptr;
    (void)strtol(value.c_str(), &end, 10);
    const bool whole = *end == '\0' || std::string_view(", \t\r\n").find(*end) != std::string_view::npos;
    return end == value.c_str() || !whole ? -1 : text_to_int(value);
}

int32_t get_field_str(std::string_view text, std::string_view name, std::string& value)
{
    const size_t at = text.find(name);
    if (at == std::string_view::npos || text.size() - at == name.size())
        return -1;
    const std::string_view field = text.substr(at + name.size() + 1);
    const size_t comma = field.find(',');
    if (comma == std::string_view::npos)
        return -1;
    value = field.substr(0, comma);
    return static_cast<int32_t>(comma);
}

bool is_next_nvitem(std::string_view text)
{
    return text.find('=') != std::string_view::npos;
}

int32_t get_data(std::span<uint8_t> buffer, FILE* file)
{
    size_t count = 0;
    bool fits = true;
    UpdateLine line{};
    for (off_t start = ftello(file); read_line(file, line); start = ftello(file)) {
        if (is_next_nvitem(line.text)) {
            if (fseeko(file, start, SEEK_SET) != 0)
                return -1;
            break;
        }
        if (line.refused && !trim_buf(line.text).starts_with('#')) {
            refuse(line);
            return -1;
        }
        fits = fits && store_bytes(line.text, buffer, count);
    }
    if (ferror(file) != 0)
        return -1;
    if (!fits)
        log_error("UpdateNV: data beyond %zu bytes refused", buffer.size());
    return static_cast<int32_t>(count);
}
