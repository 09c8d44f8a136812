// The NV items that are saved where the product does not bring a list of its own. The numbers are a default that is
// replaced as a whole: where TESSEL_NV_ITEM_LIST names a list, nv_item_list.cmake makes the source that is compiled in
// the place of this one.
#include "wan_dloader/nv_tables.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <iterator>

namespace {

constexpr uint16_t item_size = 128;

// Items `first` to `last`.
struct ItemRange {
    uint16_t first, last;
};

constexpr ItemRange item_ranges[] = {
    {0, 0},       {5, 5},       {10, 10},     {18, 18},     {20, 20},     {32, 37},     {40, 43},     {52, 53},
    {57, 57},     {60, 62},     {71, 74},     {85, 85},     {94, 95},     {109, 112},   {122, 122},   {134, 138},
    {176, 183},   {191, 200},   {206, 209},   {215, 219},   {231, 240},   {256, 262},   {296, 306},   {318, 321},
    {340, 349},   {374, 380},   {399, 404},   {423, 447},   {450, 453},   {460, 466},   {495, 501},   {546, 553},
    {562, 571},   {776, 819},   {827, 866},   {938, 962},   {1088, 1121}, {1206, 1206}, {1224, 1232}, {1420, 1433},
    {1633, 1644}, {1695, 1712}, {1873, 1910}, {2072, 2095}, {2286, 2310}, {2389, 2430}, {2493, 2514}, {2539, 2560},
    {2601, 2610}, {2688, 2721}, {2924, 2937}, {3095, 3103}, {3115, 3144}, {3336, 3350}, {3479, 3491}, {3689, 3695},
    {3855, 3886}, {4002, 4044}, {4154, 4163}, {4341, 4358}, {4386, 4427}, {4534, 4543}, {4563, 4605}, {4786, 4807},
    {4885, 4923}, {5115, 5123}, {5225, 5265}, {5307, 5329}, {5488, 5500}, {5703, 5725}, {5848, 5888}, {5923, 5957},
    {6180, 6203}, {6388, 6429}, {6540, 6550}, {6715, 6752}, {6778, 6801}, {6887, 6894}, {6937, 6951}, {6981, 7001},
    {7068, 7081}, {7147, 7181}, {7254, 7254},
};

// Those of them that have indexes, 0 to `count` - 1.
struct IndexedItem {
    uint16_t item, count;
};

constexpr IndexedItem indexed_items[] = {
    {20, 2},  {57, 109}, {94, 2},  {109, 2}, {194, 2},  {209, 2},  {259, 2},  {296, 2},  {303, 6},
    {423, 2}, {460, 2},  {546, 2}, {562, 2}, {1206, 3}, {1873, 2}, {2389, 2}, {4563, 2},
};

constexpr uint16_t index_count(uint16_t item)
{
    const auto* row = std::ranges::find(indexed_items, item, &IndexedItem::item);
    return row == std::end(indexed_items) ? uint16_t{1} : row->count;
}

constexpr size_t row_count()
{
    size_t count = 0;
    for (const ItemRange& range : item_ranges) {
        for (uint16_t item = range.first; item <= range.last; ++item)
            count += index_count(item);
    }
    return count;
}

constexpr auto rows = [] {
    std::array<NvItemRow, row_count()> expanded{};
    auto next = expanded.begin();
    for (const ItemRange& range : item_ranges) {
        for (uint16_t item = range.first; item <= range.last; ++item) {
            for (uint16_t index = 0; index < index_count(item); ++index)
                *next++ = {item, item_size, index};
        }
    }
    return expanded;
}();

constexpr bool equal(const NvItemRow& left, const NvItemRow& right)
{
    return left.item == right.item && left.size == right.size && left.index == right.index;
}

constexpr bool ascends(const NvItemRow& left, const NvItemRow& right)
{
    return left.item < right.item || (left.item == right.item && left.index < right.index);
}

constexpr NvItemRow first_rows[] = {
    {0, 128, 0}, {5, 128, 0}, {10, 128, 0}, {18, 128, 0}, {20, 128, 0}, {20, 128, 1},
};

static_assert(rows.size() == 1489);
static_assert(std::ranges::adjacent_find(rows, std::not_fn(ascends)) == rows.end(), "sorted, no row twice");
static_assert(std::ranges::count(rows, 0, &NvItemRow::index) == 1360, "items");
static_assert(std::ranges::count(rows, 1, &NvItemRow::index) == 17, "indexed items");
static_assert(std::ranges::equal(first_rows, std::span(rows).first(std::size(first_rows)), equal));
static_assert(equal(rows.back(), {7254, 128, 0}));

} // namespace

constinit const std::span<const NvItemRow> NvItemList = rows;
