// What a crashed modem replies: its version, its table of regions, its memory.
#include "crashdump/dload_dump.h"

#include "diag/exchange.h"
#include "diag/serial_port.h"
#include "tests/fuzz/modem.h"

#include <algorithm>

namespace {

void list_regions()
{
    std::array<MemoryRegion, max_memory_regions> regions{};
    for (MemoryRegion& region : regions) {
        region.description.fill('x');
        region.file_name.fill('x');
    }
    uint32_t count = 0;
    if (get_memory_regions_info(regions, count) == 0)
        return;
    require(count < max_memory_regions, "a table is shorter than the room for it");
    const auto ends = [](const auto& text) { return text.back() == '\0'; };
    for (const MemoryRegion& region : std::span(regions).first(count))
        require(ends(region.description) && ends(region.file_name), "texts end");
}

// One region is read, in chunks of `chunk` bytes; the file has what was asked for at the most.
void read_region(uint32_t base, uint32_t length, uint32_t chunk)
{
    const NamelessFile memory;
    const UniqueFile file = open_file(memory.path(), "w");
    require(file != nullptr, "a file can be opened");
    s_dload_memory_size = chunk;
    const int32_t last = fetch_memory_region(file.get(), base, length);
    require(last >= 0 && static_cast<uint32_t>(last) <= chunk, "a read gives as much as it asks for at the most");
    require(ftello(file.get()) <= static_cast<off_t>(length), "a region's file is not longer than the region");
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t what = input.u8();
    connect(rcv_handle_packet, modem_of(input));
    s_verbose = what & 1;
    s_crashdump_debug = what >> 1 & 1;
    s_exit_on_timeout = what >> 2 & 1;
    if (what >> 3 & 1) {
        require(check_dload_mode() <= 1, "a mode is known or not");
        (void)get_dload_version(s_dload_version);
        list_regions();
    } else {
        s_dload_version = input.u8();
    }
    const uint32_t base = input.u32();
    const uint32_t length = input.u16() % 20000U;
    read_region(base, length, s_dload_version > last_framed_dload_version ? unframed_chunk_size : framed_chunk_size);
}
