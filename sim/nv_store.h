// The modem's NV items: one text file an item below modem/nv/, read anew for every request, so that an edit counts
// at once. A line is one value:
//   550: 08 1A 2B             plain item 550
//   20/1: 00 05               indexed item 20, index 1 (the index itself is not part of the bytes)
//   57/*:                     item 57 is indexed; says so where it has no value yet
//   4398: status 7 01 02      reads and writes are refused with status 7
//   447: write-status 7 01    reads succeed, writes are refused
//   85: spc 30 30             writes need the service programming code; also before a status
// A blank line or one that begins with # says nothing. Bytes that are not given are zero.
#pragma once

#include "os.h"

#include <map>
#include <optional>

namespace sim {

enum NvStatus : uint16_t { nv_done = 0, nv_failed = 4, nv_not_active = 5 };

class NvStore {
public:
    // The value of an item, as an NV packet carries it.
    static constexpr size_t value_size = 128;

    explicit NvStore(fs::path directory) : directory_(std::move(directory)) {}

    // Checks a store text and spreads it over the item files. Throws UsageError with the line that is wrong.
    void load(std::string_view text, const std::string& origin) const;

    // `value` is the packet's data field: index in its first byte for an indexed item. Both return an NV status.
    [[nodiscard]] uint16_t read(uint16_t number, Bytes& value) const;
    [[nodiscard]] uint16_t write(uint16_t number, View value) const;
    // Makes the bytes of all values zero that can be written at all.
    void wipe() const;
    // An item, all of its indices, is as protected as any of its values.
    [[nodiscard]] bool is_protected(uint16_t number) const;

private:
    struct Value {
        uint16_t read_status = nv_done;
        uint16_t write_status = nv_done;
        bool is_protected = false;
        Bytes bytes;
    };
    struct Item {
        bool indexed = false;
        std::map<uint8_t, Value> values; // a plain item has one, under 0
    };

    [[nodiscard]] static bool parse_line(std::string_view line, std::map<uint16_t, Item>& items);
    [[nodiscard]] fs::path path_of(uint16_t item) const;
    [[nodiscard]] std::optional<Item> find(uint16_t number) const;
    void save(uint16_t number, const Item& item) const;

    fs::path directory_;
};

extern const std::string_view default_nv_items;

} // namespace sim
