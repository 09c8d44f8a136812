// The modem's flash: one file a partition below modem/flash/, to look at, to edit and to compare. An erased partition
// has no file. What a modem is able to start is told by the partitions that it has.
#pragma once

#include "os.h"

#include <optional>

namespace sim {

// What a modem lacks that lacks the partition.
enum class Need : uint8_t { nothing, start, linux_system };

struct Partition {
    std::string_view name;
    uint8_t image_type; // by which a flash programmer knows it; 0: it does not
    Need need;
};

struct Chip {
    std::string_view word;
    std::span<const Partition> partitions;
    std::string_view firmware; // the partition that tells the firmware's revision
    bool wide_addresses;       // of DLOAD writes: 32 bits, else 24
    bool keeps_port;           // its USB device stays when a flash programmer starts
};

constexpr Partition mdm9615_partitions[] = {
    {"mibib", 0, Need::start},      {"sbl1", 0x14, Need::start},         {"sbl2", 0x15, Need::start},
    {"rpm", 0x16, Need::start},     {"dsp1", 0x0D, Need::start},         {"dsp2", 0x12, Need::start},
    {"aboot", 0x0A, Need::start},   {"boot", 0, Need::linux_system},     {"system", 0, Need::linux_system},
    {"userdata", 0, Need::nothing}, {"oem_partition", 0, Need::nothing},
};
constexpr Partition mdm9600_partitions[] = {
    {"mibib", 0, Need::start},      {"dbl", 0x0F, Need::start},      {"fsbl", 0x11, Need::start},
    {"osbl", 0x10, Need::start},    {"dsp1", 0x0D, Need::start},     {"dsp2", 0x12, Need::start},
    {"amss", 0x05, Need::start},    {"boot", 0, Need::linux_system}, {"system", 0, Need::linux_system},
    {"userdata", 0, Need::nothing},
};
constexpr Partition qsc6270_partitions[] = {
    {"mibib", 0, Need::start},         {"dbl", 0x0F, Need::start},     {"fsbl", 0x11, Need::start},
    {"osbl", 0x10, Need::start},       {"amss", 0x05, Need::start},    {"boot", 0, Need::linux_system},
    {"system", 0, Need::linux_system}, {"userdata", 0, Need::nothing},
};

constexpr Chip chips[] = {
    {"mdm9615", mdm9615_partitions, "dsp1", true, true},
    {"mdm9600", mdm9600_partitions, "amss", false, false},
    {"qsc6270", qsc6270_partitions, "amss", false, false},
};

// The partition that holds the partition table, and the one that holds the modem's applications.
constexpr std::string_view table_partition = "mibib", apps_partition = "system";

class FlashStore {
public:
    FlashStore(fs::path directory, const Chip& chip) : directory_(std::move(directory)), chip_(chip) {}

    [[nodiscard]] const Chip& chip() const { return chip_; }

    // Puts copies of the files of `from` in the place of what is there, or small factory images. Throws UsageError.
    void load(const std::optional<fs::path>& from) const;

    [[nodiscard]] const Partition* find(std::string_view name) const;
    [[nodiscard]] const Partition* find(uint8_t image_type) const;
    // Without any of the partitions whose lack means this.
    [[nodiscard]] bool lacks(Need need) const;
    // What the image says of itself in a first line `version TEXT`.
    [[nodiscard]] std::optional<std::string> version_of(std::string_view name) const;
    [[nodiscard]] std::optional<std::string> read(std::string_view name) const;

    // A partition changes as a whole.
    void write(std::string_view name, View image) const;
    // Everything that can be read from `file`; how many bytes that was.
    [[nodiscard]] size_t copy(std::string_view name, const Fd& file) const;
    void erase(std::string_view name) const;

private:
    fs::path directory_;
    const Chip& chip_;
};

} // namespace sim
