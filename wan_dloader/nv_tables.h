// What a backup of the modem's calibration saves, in this order. The tables are constant; any thread.
#pragma once

#include <cstdint>
#include <span>

// One NV item, or one entry of an indexed one, which has a row for each of its indexes, one behind the other.
struct NvItemRow {
    uint16_t item;
    uint16_t size;  // data bytes
    uint16_t index; // 0 for a plain item
};

// A file of the modem. Its true size is the modem's to tell.
struct NvFileRow {
    const char* path;
    uint16_t size; // nominal, in bytes
};

// Sorted by item, then index. The list that is shipped is a default: TESSEL_NV_ITEM_LIST names the file of a
// product's own, which is compiled in its place.
extern const std::span<const NvItemRow> NvItemList;

// Whether the first data byte of `item` is an index: a row of it has one.
[[nodiscard]] bool is_indexed_nv_item(uint16_t item);

// Item files, fetched whole. The last one is there twice.
extern const std::span<const NvFileRow> NvItemFileList;

// Files that are too long for that and are read as ordinary ones.
extern const std::span<const NvFileRow> EFSFileList;
