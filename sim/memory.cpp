#include "memory.h"

#include <set>

namespace sim {

namespace {

bool is_file_name(const std::string& name)
{
    constexpr size_t longest = 255;
    return !name.empty() && name != "." && name != ".." && name.size() <= longest &&
           name.find('/') == std::string::npos;
}

// A finaliser with full avalanche: neighbouring words share nothing, every byte value turns up.
uint64_t scramble(uint64_t word)
{
    word += 0x9E3779B97F4A7C15;
    word = (word ^ word >> 30) * 0xBF58476D1CE4E5B9;
    word = (word ^ word >> 27) * 0x94D049BB133111EB;
    return word ^ word >> 31;
}

} // namespace

std::optional<Bytes> Memory::read(uint32_t address, uint32_t length) const
{
    const auto holds = [&](const Region& region) {
        return address >= region.base && uint64_t{address} + length <= uint64_t{region.base} + region.size;
    };
    if (length == 0 || std::ranges::none_of(regions_, holds))
        return std::nullopt;
    return generate(address, length);
}

Bytes Memory::table() const
{
    constexpr uint8_t save_preference = 1;
    Bytes entries;
    for (const Region& region : regions_) {
        entries.push_back(save_preference);
        add_be32(entries, region.base);
        add_be32(entries, region.size);
        add(entries, bytes_of(region.name.substr(0, region.name.find('.')) + " region"));
        entries.push_back(0);
        add(entries, bytes_of(region.name));
        entries.push_back(0);
    }
    return entries;
}

void Memory::save(const fs::path& directory) const
{
    std::set<std::string> used;
    for (size_t i = 0; i < regions_.size(); ++i) {
        std::string name = regions_[i].name;
        if (!is_file_name(name) || used.contains(name))
            name = "region-" + std::to_string(i);
        used.insert(name);
        write_file(directory / name, generate(regions_[i].base, regions_[i].size));
    }
}

Bytes Memory::generate(uint32_t address, uint32_t length) const
{
    constexpr unsigned word_size = 8;
    Bytes bytes(length);
    for (uint64_t i = 0; i < length;) {
        const uint64_t at = address + i;
        uint64_t word = scramble(uint64_t{seed_} << 32 ^ at / word_size) >> at % word_size * 8;
        for (uint64_t k = at % word_size; k < word_size && i < length; ++k, word >>= 8)
            bytes[i++] = byte_of(word, 0);
    }
    return bytes;
}

} // namespace sim
