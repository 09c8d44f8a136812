#include "flash_store.h"

#include <array>
#include <fcntl.h>

namespace sim {

namespace {

constexpr size_t largest_piece = 65536;

// Two magic words and a version, the number of the partitions, then each with its name and the blocks that it takes.
Bytes factory_table(const Chip& chip)
{
    constexpr uint32_t magic[] = {0x55EE73AA, 0xE35EBDDB}, version = 3, blocks = 64, attributes = 0x00FF0101;
    constexpr size_t name_size = 16;
    Bytes table;
    for (const uint32_t word : {magic[0], magic[1], version, static_cast<uint32_t>(chip.partitions.size())})
        add_le32(table, word);
    uint32_t first = 0;
    for (const Partition& partition : chip.partitions) {
        Bytes name = bytes_of("0:" + std::string(partition.name));
        name.resize(name_size);
        add(table, name);
        for (const uint32_t word : {std::exchange(first, first + blocks), blocks, attributes})
            add_le32(table, word);
    }
    return table;
}

} // namespace

void FlashStore::load(const std::optional<fs::path>& from) const
{
    if (from && !fs::is_directory(*from))
        throw UsageError("no such directory: " + from->string());
    // Beside the old one first: `from` may be that one.
    const fs::path fresh = directory_.string() + ".new";
    fs::remove_all(fresh);
    fs::create_directories(fresh);
    if (!from) {
        for (const Partition& partition : chip_.partitions)
            write_file(fresh / partition.name,
                       partition.name == table_partition
                           ? factory_table(chip_)
                           : bytes_of("factory image of " + std::string(partition.name) + "\n"));
    } else {
        for (const auto& entry : fs::directory_iterator(*from)) {
            const std::string name = entry.path().filename();
            if (find(name) == nullptr || !entry.is_regular_file())
                throw UsageError("no partition of a modem with chip " + std::string(chip_.word) + ": " +
                                 entry.path().string());
            fs::copy_file(entry.path(), fresh / name);
        }
    }
    fs::remove_all(directory_);
    fs::rename(fresh, directory_);
}

const Partition* FlashStore::find(std::string_view name) const
{
    const auto found = std::ranges::find(chip_.partitions, name, &Partition::name);
    return found == chip_.partitions.end() ? nullptr : &*found;
}

const Partition* FlashStore::find(uint8_t image_type) const
{
    const auto found = std::ranges::find(chip_.partitions, image_type, &Partition::image_type);
    return image_type == 0 || found == chip_.partitions.end() ? nullptr : &*found;
}

bool FlashStore::lacks(Need need) const
{
    return std::ranges::any_of(chip_.partitions, [&](const Partition& partition) {
        return partition.need == need && !fs::exists(directory_ / partition.name);
    });
}

std::optional<std::string> FlashStore::version_of(std::string_view name) const
{
    constexpr std::string_view word = "version ";
    constexpr size_t longest = 80;
    const Fd file(open((directory_ / name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, longest> head{};
    const ssize_t count = ::read(file.get(), head.data(), head.size());
    const std::string_view text(head.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (!text.starts_with(word) || text.find('\n') == std::string_view::npos)
        return std::nullopt;
    return printable(text.substr(word.size(), text.find('\n') - word.size()));
}

std::optional<std::string> FlashStore::read(std::string_view name) const
{
    return read_file(directory_ / name);
}

void FlashStore::write(std::string_view name, View image) const
{
    const fs::path fresh = directory_ / (std::string(name) + ".new");
    write_file(fresh, image);
    fs::rename(fresh, directory_ / name);
}

size_t FlashStore::copy(std::string_view name, const Fd& file) const
{
    const fs::path fresh = directory_ / (std::string(name) + ".new");
    size_t total = 0;
    {
        const Fd out(must(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), fresh));
        std::array<uint8_t, largest_piece> piece{};
        ssize_t count = 0;
        while ((count = ::read(file.get(), piece.data(), piece.size())) > 0) {
            must(::write(out.get(), piece.data(), static_cast<size_t>(count)) == count ? 0 : -1, fresh);
            total += static_cast<size_t>(count);
        }
        must(static_cast<int>(count), "an image to flash");
    }
    fs::rename(fresh, directory_ / name);
    return total;
}

void FlashStore::erase(std::string_view name) const
{
    fs::remove(directory_ / name);
}

} // namespace sim
