#include "nv_store.h"

#include <algorithm>

namespace sim {

const std::string_view default_nv_items = R"(0: 07
5: 00 12
10: 04
18: 01 00
20/0: 00 40
20/1: 00 41
71: 56 69 72 74 75 61 6C
85: spc 30 30 30 30 30 30
178: 01 55 AA
303/*:
441: FF FF
447: write-status 7 01
453: 01
550: 08 0A 10 32 54 76 98 10 32
1206/0: 10 00
1206/2: 12 00
4398: status 7 01
)";

void NvStore::load(std::string_view text, const std::string& origin) const
{
    std::map<uint16_t, Item> items;
    size_t number = 0;
    for (const std::string_view line : split(text, '\n')) {
        ++number;
        if (!parse_line(trimmed(line), items))
            throw UsageError(origin + ":" + std::to_string(number) + ": not an NV item: " + std::string(line));
    }
    for (const auto& [item, contents] : items)
        save(item, contents);
}

bool NvStore::parse_line(std::string_view line, std::map<uint16_t, Item>& items)
{
    if (line.empty() || line.starts_with('#'))
        return true;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return false;

    const auto key = split(line.substr(0, colon), '/');
    const auto number = parse_number(key[0], UINT16_MAX);
    const bool indexed = key.size() == 2, declared_only = indexed && key[1] == "*";
    const auto index = indexed && !declared_only ? parse_number(key[1], UINT8_MAX) : 0;
    if (!number || !index || key.size() > 2)
        return false;

    Value value;
    std::string_view rest = trimmed(line.substr(colon + 1));
    constexpr std::string_view protection = "spc";
    const std::string_view first = rest.substr(0, rest.find(' '));
    value.is_protected = first == protection;
    if (value.is_protected)
        rest = trimmed(rest.substr(protection.size()));
    for (const std::string_view word : {"status ", "write-status "}) {
        if (!rest.starts_with(word))
            continue;
        rest = trimmed(rest.substr(word.size()));
        const auto status = parse_number(rest.substr(0, rest.find(' ')), UINT16_MAX);
        if (!status)
            return false;
        value.write_status = static_cast<uint16_t>(*status);
        if (word == "status ")
            value.read_status = value.write_status;
        rest.remove_prefix(std::min(rest.find(' '), rest.size()));
        break;
    }
    const auto bytes = parse_hex(rest);
    if (!bytes || bytes->size() > value_size - (indexed ? 1 : 0) ||
        (declared_only && (!bytes->empty() || value.is_protected)))
        return false;
    value.bytes = *bytes;

    Item& item = items[static_cast<uint16_t>(*number)];
    if (!item.values.empty() && item.indexed != indexed)
        return false;
    item.indexed = indexed;
    if (!declared_only)
        item.values[static_cast<uint8_t>(*index)] = value;
    return true;
}

uint16_t NvStore::read(uint16_t number, Bytes& value) const
{
    const auto item = find(number);
    if (!item)
        return nv_not_active;
    const auto found = item->values.find(item->indexed ? value.front() : 0);
    if (found == item->values.end())
        return nv_not_active;
    if (found->second.read_status == nv_done)
        std::copy(found->second.bytes.begin(), found->second.bytes.end(), value.begin() + (item->indexed ? 1 : 0));
    return found->second.read_status;
}

uint16_t NvStore::write(uint16_t number, View value) const
{
    Item item = find(number).value_or(Item{});
    Value& slot = item.values[item.indexed ? value.front() : 0];
    if (slot.write_status != nv_done)
        return slot.write_status;
    const View bytes = value.subspan(item.indexed ? 1 : 0);
    slot.bytes.assign(bytes.begin(), bytes.end());
    save(number, item);
    return nv_done;
}

void NvStore::wipe() const
{
    for (const auto& entry : fs::directory_iterator(directory_)) {
        const auto number = parse_number(entry.path().filename().string(), UINT16_MAX);
        auto item = number ? find(static_cast<uint16_t>(*number)) : std::nullopt;
        if (!item)
            continue;
        for (auto& [index, value] : item->values)
            if (value.write_status == nv_done)
                std::ranges::fill(value.bytes, uint8_t{0});
        save(static_cast<uint16_t>(*number), *item);
    }
}

bool NvStore::is_protected(uint16_t number) const
{
    const auto item = find(number);
    return item && std::ranges::any_of(item->values, [](const auto& row) { return row.second.is_protected; });
}

fs::path NvStore::path_of(uint16_t item) const
{
    const std::string digits = std::to_string(item);
    return directory_ / (std::string(5 - digits.size(), '0') + digits);
}

std::optional<NvStore::Item> NvStore::find(uint16_t number) const
{
    const auto text = read_file(path_of(number));
    if (!text)
        return std::nullopt;
    std::map<uint16_t, Item> items;
    for (const std::string_view line : split(*text, '\n'))
        // A line that a person spoilt by hand is left out, the rest of the item still counts.
        (void)parse_line(trimmed(line), items);
    const auto found = items.find(number);
    return found == items.end() ? std::nullopt : std::optional(found->second);
}

void NvStore::save(uint16_t number, const Item& item) const
{
    std::string text;
    const std::string name = std::to_string(number);
    if (item.indexed && item.values.empty())
        text = name + "/*:\n";
    for (const auto& [index, value] : item.values) {
        const auto last =
            std::find_if(value.bytes.rbegin(), value.bytes.rend(), [](uint8_t byte) { return byte != 0; });
        const auto used = static_cast<size_t>(value.bytes.rend() - last);
        text += name;
        if (item.indexed)
            text.append("/").append(std::to_string(index));
        text += value.is_protected ? ": spc " : ": ";
        if (value.write_status != nv_done)
            text.append(value.read_status != nv_done ? "status " : "write-status ")
                .append(std::to_string(value.write_status) + " ");
        text += hex(View(value.bytes).first(std::max(used, std::min<size_t>(1, value.bytes.size())))) + "\n";
    }
    write_file(path_of(number), bytes_of(text));
}

} // namespace sim
