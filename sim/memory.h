// The memory that a crashed modem offers for saving. Its bytes are a function of the seed and the address, so that
// regions of any size cost nothing until they are read.
#pragma once

#include "os.h"

namespace sim {

struct Region {
    std::string name; // as the region table tells it, not checked here
    uint32_t base = 0;
    uint32_t size = 0;
};

class Memory {
public:
    Memory(std::vector<Region> regions, uint32_t seed) : regions_(std::move(regions)), seed_(seed) {}

    // The bytes of a range that lies within one region, else nothing.
    [[nodiscard]] std::optional<Bytes> read(uint32_t address, uint32_t length) const;
    // The entries of the region table, as they go over the wire.
    [[nodiscard]] Bytes table() const;
    // One file a region. A name that is no plain file name, or used before, is replaced by "region-N".
    void save(const fs::path& directory) const;

private:
    [[nodiscard]] Bytes generate(uint32_t address, uint32_t length) const;

    std::vector<Region> regions_;
    uint32_t seed_;
};

} // namespace sim
