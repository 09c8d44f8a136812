// The NV backup file.
//
//   file header    magic (4) 0x4E560001, magic (4) 0x424B5550, version (4) 0x00010000, number of chunks (4)
//   chunk header   tag (4), number of records (4), size of the records in bytes (4)
//   NV item        item (2), data (128)
//   file           L (2), path with its zero (L), D (2), contents (D)
//
// Little-endian, no padding, no checksum. Chunks follow each other in the order of their tags: NV items, item files,
// EFS files. What is read here may be damaged or forged: a chunk ends where its header says or the file ends, and no
// record reaches beyond that.
#pragma once

#include "crashdump/nv_item.h"
#include "platform/os.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace nv_file_header {
constexpr uint32_t magic_1 = 0x4E560001, magic_2 = 0x424B5550, version = 0x00010000;
constexpr size_t magic_1_at = 0, magic_2_at = 4, version_at = 8, chunks_at = 12, size = 16;
} // namespace nv_file_header

namespace nv_chunk_header {
constexpr uint32_t nv_items = 0x42504100, nv_item_files = 0x42504101, efs_files = 0x42504102; // tags
constexpr size_t tag_at = 0, count_at = 4, size_at = 8, size = 12;
} // namespace nv_chunk_header

namespace nv_item_record {
constexpr size_t item_at = 0, data_at = 2, size = data_at + nv_packet::data_size;
static_assert(size == 130);
} // namespace nv_item_record

struct NvFileHeader {
    uint32_t magic_1, magic_2, version, chunks;

    [[nodiscard]] bool is_valid() const
    {
        return magic_1 == nv_file_header::magic_1 && magic_2 == nv_file_header::magic_2;
    }
};

struct NvChunkHeader {
    uint32_t tag, count, size;
};

// Opens a backup file: "r", "r+", or "w" to make it anew, for root alone. Empty, errno set, on failure, and for
// whatever is no regular file: a pipe would be waited for without an end.
[[nodiscard]] UniqueFile open_nv_file(const std::string& path, const char* mode);

// Read the header that begins at the file's position. What the file does not hold reads as zero.
[[nodiscard]] NvFileHeader read_nv_file_header(FILE* file);
[[nodiscard]] NvChunkHeader read_nv_chunk_header(FILE* file);

// Write one at the file's position; a failure stays in the stream's error flag.
void write_nv_file_header(FILE* file, uint32_t chunks);
void write_nv_chunk_header(FILE* file, const NvChunkHeader& header);

// What a restore finds in a backup file.
struct NvFileContents {
    bool whole;                   // all of the three chunks, each with as many records as it says, and nothing else
    uint64_t items, filled_items; // NV items, and those of them that are not all zero but for an index
    uint64_t item_files, item_file_bytes; // of data
    uint64_t efs_files, efs_file_bytes;
    std::vector<std::string> names = {}; // of all files, and of the items that are not zero; sorted
    bool damaged = false; // it may hold more than was counted: bytes that cannot be read, or are no records

    // Whether `other` has more of anything, or anything that is not here.
    [[nodiscard]] bool holds_less_than(const NvFileContents& other) const;
    // What `other` names and is not here, for a message: "NV item 10, NV item 12 index 3, /nv/x and 2 more"; empty when
    // there is nothing.
    [[nodiscard]] std::string lacks_of(const NvFileContents& other) const;
    // "3 NV items (1 not zero), 2 item files (10 bytes), 1 EFS file (5 bytes)", for a message.
    [[nodiscard]] std::string text() const;
};

// Reads the backup file `path`, record by record. No numbers when it is none, or cannot be opened. One whose making was
// cut short is not whole, but not damaged either; one with an item file that was saved in part is. Any thread.
[[nodiscard]] NvFileContents nv_file_contents(const std::string& path);

// How many items stand in `chunk`, one of NV items, the file's position being right behind its header, where it stays.
// Nothing when that cannot be told: its number and size contradict each other, and behind neither of the two follow
// another chunk or the end of the file.
[[nodiscard]] std::optional<uint32_t> nv_items_in(FILE* file, const NvChunkHeader& chunk);

// Size of the file in bytes; its position stays.
[[nodiscard]] int64_t nv_file_size(FILE* file);

// The records of one chunk, from the file's position right behind its header.
class NvChunkReader {
public:
    NvChunkReader(FILE* file, const NvChunkHeader& header) : file_(file), left_(header.size) {}

    // Fills `bytes`; false when chunk or file end before.
    [[nodiscard]] bool read(std::span<uint8_t> bytes);
    // Reads a 16-bit number.
    [[nodiscard]] std::optional<uint16_t> read_number();
    // Reads a length and a path of that length. A path without its zero ends with its length; none is empty. Nothing
    // where a zero stands in its midst: what is read is no record then.
    [[nodiscard]] std::optional<std::string> read_path();
    // Leaves out `size` bytes.
    [[nodiscard]] bool skip(uint32_t size);
    // Leaves out the rest of the chunk.
    [[nodiscard]] bool skip_rest() { return skip(left_); }
    [[nodiscard]] bool at_end() const { return left_ == 0; }
    // Whether a file's record can begin `ahead` bytes from here: the chunk or the file ends there or before, or a path
    // from the modem's root follows, whole or cut by the file's end. A record with a wrong length ends anywhere.
    [[nodiscard]] bool file_record_at(uint32_t ahead) const;

private:
    FILE* file_;
    uint32_t left_; // bytes of the chunk that are not read yet
};
