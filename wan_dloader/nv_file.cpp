#include "wan_dloader/nv_file.h"

#include "diag/packet_fields.h"
#include "wan_dloader/nv_tables.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

// What the file does not hold stays zero.
template <size_t size>
std::array<uint8_t, size> read_bytes(FILE* file)
{
    std::array<uint8_t, size> bytes{};
    (void)!fread(bytes.data(), 1, bytes.size(), file);
    return bytes;
}

constexpr uint32_t chunk_order[] = {nv_chunk_header::nv_items, nv_chunk_header::nv_item_files,
                                    nv_chunk_header::efs_files};

bool is_chunk_tag(uint32_t tag)
{
    return std::ranges::find(chunk_order, tag) != std::end(chunk_order);
}

// Counts the records of a chunk into `contents`. False when one is damaged, or there are more or fewer than it says.
bool count_records(NvChunkReader& records, const NvChunkHeader& chunk, NvFileContents& contents)
{
    int32_t previous = -1;               // NV item
    uint32_t entry = 0;                  // of those of that item: its index, or its number
    constexpr size_t most_names = 10000; // of a backup file that is none
    for (uint32_t i = 0; i < chunk.count; ++i) {
        if (chunk.tag == nv_chunk_header::nv_items) {
            std::array<uint8_t, nv_item_record::size> record{};
            if (!records.read(record))
                return false;
            ++contents.items;
            // Items in a row have indexes, which stand in their first byte also where the modem refused the rest.
            const uint16_t item = get_le16(record, nv_item_record::item_at);
            const bool indexed = is_indexed_nv_item(item);
            const size_t index_size = indexed || item == previous ? 1 : 0;
            entry = indexed ? get_u8(record, nv_item_record::data_at) : item == previous ? entry + 1 : 0;
            previous = item;
            const auto data = std::span(record).subspan(nv_item_record::data_at + index_size);
            if (std::ranges::any_of(data, [](uint8_t byte) { return byte != 0; })) {
                ++contents.filled_items;
                if (contents.names.size() < most_names)
                    contents.names.push_back("NV item " + std::to_string(item) +
                                             (entry != 0 ? " index " + std::to_string(entry) : ""));
            }
            continue;
        }
        const auto path = records.read_path();
        const auto length = path ? records.read_number() : std::nullopt;
        if (!length || !records.skip(*length))
            return false;
        const bool item_file = chunk.tag == nv_chunk_header::nv_item_files;
        ++(item_file ? contents.item_files : contents.efs_files);
        (item_file ? contents.item_file_bytes : contents.efs_file_bytes) += *length;
        if (contents.names.size() < most_names)
            contents.names.push_back(*path);
    }
    return records.at_end();
}

} // namespace

UniqueFile open_nv_file(const std::string& path, const char* mode)
{
    constexpr mode_t for_root = 0600; // identities and keys are among the data
    const std::string_view how = mode;
    const int flags = how == "w" ? O_WRONLY | O_CREAT | O_TRUNC : how == "r+" ? O_RDWR : O_RDONLY;
    UniqueFd fd(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, for_root));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0)
        return nullptr;
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    UniqueFile file(fdopen(fd.get(), mode));
    if (file)
        (void)fd.release();
    return file;
}

NvFileHeader read_nv_file_header(FILE* file)
{
    using namespace nv_file_header;
    const auto bytes = read_bytes<size>(file);
    return {get_le32(bytes, magic_1_at), get_le32(bytes, magic_2_at), get_le32(bytes, version_at),
            get_le32(bytes, chunks_at)};
}

NvChunkHeader read_nv_chunk_header(FILE* file)
{
    using namespace nv_chunk_header;
    const auto bytes = read_bytes<size>(file);
    return {get_le32(bytes, tag_at), get_le32(bytes, count_at), get_le32(bytes, size_at)};
}

void write_nv_file_header(FILE* file, uint32_t chunks)
{
    using namespace nv_file_header;
    std::array<uint8_t, size> bytes{};
    put_le32(bytes, magic_1_at, magic_1);
    put_le32(bytes, magic_2_at, magic_2);
    put_le32(bytes, version_at, version);
    put_le32(bytes, chunks_at, chunks);
    (void)fwrite(bytes.data(), 1, bytes.size(), file);
}

void write_nv_chunk_header(FILE* file, const NvChunkHeader& header)
{
    using namespace nv_chunk_header;
    std::array<uint8_t, size> bytes{};
    put_le32(bytes, tag_at, header.tag);
    put_le32(bytes, count_at, header.count);
    put_le32(bytes, size_at, header.size);
    (void)fwrite(bytes.data(), 1, bytes.size(), file);
}

bool NvFileContents::holds_less_than(const NvFileContents& other) const
{
    return items < other.items || filled_items < other.filled_items || item_files < other.item_files ||
           item_file_bytes < other.item_file_bytes || efs_files < other.efs_files ||
           efs_file_bytes < other.efs_file_bytes || !std::ranges::includes(names, other.names);
}

std::string NvFileContents::text() const
{
    const auto number = [](uint64_t value) { return std::to_string(value); };
    return number(items) + " NV items (" + number(filled_items) + " not zero), " + number(item_files) +
           " item files (" + number(item_file_bytes) + " bytes), " + number(efs_files) + " EFS files (" +
           number(efs_file_bytes) + " bytes)";
}

std::string NvFileContents::lacks_of(const NvFileContents& other) const
{
    constexpr size_t named = 3;
    std::vector<std::string> missing;
    std::ranges::set_difference(other.names, names, std::back_inserter(missing));
    std::string text;
    for (size_t i = 0; i < std::min(missing.size(), named); ++i)
        text += (i != 0 ? ", " : "") + printable(missing[i]);
    if (missing.size() > named)
        text += " and " + std::to_string(missing.size() - named) + " more";
    return text;
}

NvFileContents nv_file_contents(const std::string& path)
{
    NvFileContents contents{};
    const UniqueFile file = open_nv_file(path, "r");
    if (!file)
        return contents;
    const NvFileHeader header = read_nv_file_header(file.get());
    if (!header.is_valid()) {
        contents.damaged = nv_file_size(file.get()) > 0;
        return contents;
    }
    bool whole = header.chunks == std::size(chunk_order);
    for (uint32_t i = 0; i < header.chunks; ++i) {
        const NvChunkHeader chunk = read_nv_chunk_header(file.get());
        NvChunkReader records(file.get(), chunk);
        // One damaged record hides those behind it in its chunk, but not the other chunks.
        const bool is_sound = is_chunk_tag(chunk.tag) && count_records(records, chunk, contents);
        const bool is_cut = feof(file.get()) != 0;
        contents.damaged = contents.damaged || !(is_sound || is_cut);
        whole = is_sound && whole && chunk.tag == chunk_order[i];
        if (is_cut || !records.skip_rest()) {
            whole = false;
            break;
        }
    }
    std::ranges::sort(contents.names);
    contents.whole = whole && ftello(file.get()) == nv_file_size(file.get());
    // A chunk that the file does not count is empty as long as it is being made.
    const NvChunkHeader uncounted = read_nv_chunk_header(file.get());
    contents.damaged =
        contents.damaged || (is_chunk_tag(uncounted.tag) && uncounted.count != 0) || ferror(file.get()) != 0;
    return contents;
}

std::optional<uint32_t> nv_items_in(FILE* file, const NvChunkHeader& chunk)
{
    const uint32_t by_size = chunk.size / nv_item_record::size;
    if (uint64_t{chunk.count} * nv_item_record::size == chunk.size)
        return chunk.count;
    const off_t start = ftello(file);
    const int64_t file_end = nv_file_size(file);
    const auto ends_behind = [&](uint32_t items) {
        const int64_t end = start + int64_t{items} * int64_t{nv_item_record::size};
        if (end >= file_end)
            return end == file_end;
        (void)fseeko(file, static_cast<off_t>(end), SEEK_SET);
        return is_chunk_tag(read_nv_chunk_header(file).tag);
    };
    std::optional<uint32_t> items;
    if (ends_behind(chunk.count))
        items = chunk.count;
    else if (ends_behind(by_size))
        items = by_size;
    (void)fseeko(file, start, SEEK_SET);
    return items;
}

int64_t nv_file_size(FILE* file)
{
    const off_t position = ftello(file);
    (void)fseeko(file, 0, SEEK_END);
    const off_t size = ftello(file);
    (void)fseeko(file, position, SEEK_SET);
    return size;
}

bool NvChunkReader::read(std::span<uint8_t> bytes)
{
    if (bytes.size() > left_ || fread(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        return false;
    left_ -= static_cast<uint32_t>(bytes.size());
    return true;
}

std::optional<uint16_t> NvChunkReader::read_number()
{
    std::array<uint8_t, 2> bytes{};
    if (!read(bytes))
        return std::nullopt;
    return get_le16(bytes, 0);
}

std::optional<std::string> NvChunkReader::read_path()
{
    const auto length = read_number();
    if (!length)
        return std::nullopt;
    std::vector<uint8_t> bytes(*length);
    if (!read(bytes))
        return std::nullopt;
    std::string path(bytes.begin(), bytes.end());
    const size_t end = std::min(path.find('\0'), path.size());
    if (end + 1 < path.size())
        return std::nullopt;
    path.resize(end);
    return path;
}

bool NvChunkReader::file_record_at(uint32_t ahead) const
{
    const off_t position = ftello(file_);
    const int64_t behind = nv_file_size(file_) - position - int64_t{ahead}; // bytes of the file
    if (ahead >= left_ || behind <= 0)
        return true;
    const bool is_cut = behind < int64_t{left_} - int64_t{ahead};
    (void)fseeko(file_, static_cast<off_t>(ahead), SEEK_CUR);
    std::array<uint8_t, sizeof(uint16_t) + 1> head{}; // length, first character
    bool result = is_cut;
    if (fread(head.data(), 1, head.size(), file_) == head.size()) {
        const uint16_t length = get_le16(head, 0);
        std::vector<uint8_t> rest(length > 1 ? length - size_t{1} : 0);
        const size_t count = fread(rest.data(), 1, rest.size(), file_);
        const bool has_end = count == rest.size() ? !rest.empty() && rest.back() == 0 : is_cut;
        result = head.back() == '/' && has_end;
    }
    (void)fseeko(file_, position, SEEK_SET);
    return result;
}

bool NvChunkReader::skip(uint32_t size)
{
    if (size > left_ || nv_file_size(file_) - ftello(file_) < size)
        return false;
    left_ -= size;
    return fseeko(file_, size, SEEK_CUR) == 0;
}
