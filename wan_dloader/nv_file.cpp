#include "wan_dloader/nv_file.h"

#include "diag/packet_fields.h"
#include "platform/os.h"

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

} // namespace

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

bool is_whole_nv_file(const std::string& path)
{
    constexpr uint32_t chunks = 3;
    const UniqueFile file = open_file(path, "r");
    if (!file)
        return false;
    const NvFileHeader header = read_nv_file_header(file.get());
    if (!header.is_valid() || header.chunks != chunks)
        return false;
    for (uint32_t i = 0; i < chunks; ++i) {
        NvChunkReader records(file.get(), read_nv_chunk_header(file.get()));
        if (!records.skip_rest())
            return false;
    }
    return ftello(file.get()) == nv_file_size(file.get());
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
    path.resize(std::min(path.find('\0'), path.size()));
    return path;
}

bool NvChunkReader::skip(uint32_t size)
{
    if (size > left_ || nv_file_size(file_) - ftello(file_) < size)
        return false;
    left_ -= size;
    return fseeko(file_, size, SEEK_CUR) == 0;
}
