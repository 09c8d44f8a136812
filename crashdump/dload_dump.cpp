#include "crashdump/dload_dump.h"

#include "app/applet_log.h"
#include "diag/exchange.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "platform/os.h"
#include "platform/progress.h"

#include <algorithm>
#include <string_view>

uint8_t s_dload_version = 0;
uint32_t s_dload_memory_size = framed_chunk_size;

namespace {

constexpr uint8_t no_operation_code = 0x06, acknowledge_code = 0x02;

// Answer: 08, version, more that is not looked at.
namespace parameters {
constexpr uint8_t request_code = 0x07, reply_code = 0x08;
constexpr size_t version_at = 1;
} // namespace parameters

// Answer: 11, length of the table (2), the table: save preference, base (4), length (4), description and file name,
// both ended by a zero, an entry.
namespace region_table {
constexpr uint8_t request_code = 0x10, reply_code = 0x11;
constexpr size_t length_at = 1, table_at = 3;
constexpr size_t base_at = 1, region_length_at = 5, texts_at = 9; // within an entry
} // namespace region_table

// 12, address (4), length (2). Answer: 13, address (4), length (2), data.
namespace memory_read {
constexpr uint8_t request_code = 0x12, reply_code = 0x13;
constexpr size_t address_at = 1, length_at = 5, data_at = 7, request_size = 7;
} // namespace memory_read

// 14, padding (3), address (4), length (4). The answer's layout is unframed_reply.
namespace unframed_read {
constexpr uint8_t request_code = 0x14;
constexpr size_t address_at = 4, length_at = 8, request_size = 12;
} // namespace unframed_read

// Sends `request` behind a lone flag, which ends whatever the line may have left in the modem's decoder. The reply is
// last_response(). False when it has another code.
[[nodiscard]] bool exchange_dload(std::span<const uint8_t> request, uint8_t reply_code)
{
    (void)pktio_send_end_of_packet_char(); // the request's own write tells of a dead port
    (void)send_pkt_with_rsp(request, reply_code);
    return get_u8(last_response(), 0) == reply_code;
}

void trace(const char* text)
{
    if (s_verbose == 0)
        return;
    hide_progress();
    (void)puts(text);
}

void trace_read(uint32_t address, uint32_t length)
{
    if (s_verbose == 0)
        return;
    hide_progress();
    (void)printf(">>>>>>>>>>>> Read memory: %08X, %04X\n", address, length);
}

// The text at `offset`, without its zero; ends where the packet ends.
std::string_view text_at(std::span<const uint8_t> packet, size_t offset)
{
    const auto rest = packet.subspan(std::min(offset, packet.size()));
    const auto end = std::ranges::find(rest, uint8_t{0});
    return {reinterpret_cast<const char*>(rest.data()), static_cast<size_t>(end - rest.begin())};
}

void copy_cut(std::string_view text, std::span<char> record)
{
    std::ranges::fill(record, '\0');
    std::ranges::copy(text.substr(0, record.size() - 1), record.begin());
}

// One entry of the table at `offset`. Returns its size there.
size_t parse_region(std::span<const uint8_t> reply, size_t offset, MemoryRegion& region)
{
    using namespace region_table;
    region.save_pref = get_u8(reply, offset);
    region.base = get_be32(reply, offset + base_at);
    region.length = get_be32(reply, offset + region_length_at);
    const auto description = text_at(reply, offset + texts_at);
    const auto file_name = text_at(reply, offset + texts_at + description.size() + 1);
    copy_cut(description, region.description);
    copy_cut(file_name, region.file_name);
    return texts_at + description.size() + 1 + file_name.size() + 1;
}

// Appends the data of a memory reply, at most the `asked` bytes, to `file` and forgets the reply.
[[nodiscard]] int32_t store_reply(FILE* file, uint32_t address, uint32_t replied_address, uint32_t replied_length,
                                  size_t data_at, uint32_t asked)
{
    if (s_crashdump_debug != 0)
        log_debug("addr=0x%08X len=0x%04X", replied_address, replied_length);
    if (replied_address != address)
        log_warning("Reply is for address 0x%08X, not 0x%08X", replied_address, address);

    const auto reply = last_response();
    const auto data = reply.subspan(std::min(data_at, reply.size()));
    const size_t count = std::min({data.size(), size_t{replied_length}, size_t{asked}});
    const size_t written = fwrite(data.data(), 1, count, file);
    clear_last_response();
    return written == count ? static_cast<int32_t>(written) : -1;
}

} // namespace

int32_t check_dload_mode()
{
    trace(">>>>>>>>>>>> NO-OP");
    const std::array<uint8_t, 1> request = {no_operation_code};
    const bool acknowledged = exchange_dload(request, acknowledge_code);
    clear_last_response();
    return acknowledged ? 1 : 0;
}

int32_t get_dload_version(uint8_t& version)
{
    trace(">>>>>>>>>>>> Request parameters");
    const std::array<uint8_t, 1> request = {parameters::request_code};
    if (!exchange_dload(request, parameters::reply_code))
        return 0;
    version = get_u8(last_response(), parameters::version_at);
    clear_last_response();
    return 1;
}

int32_t get_memory_regions_info(std::span<MemoryRegion, max_memory_regions> regions, uint32_t& count)
{
    using namespace region_table;
    trace(">>>>>>>>>>>> Retrieve memory regions");
    const std::array<uint8_t, 1> request = {request_code};
    if (!exchange_dload(request, reply_code))
        return 0;

    const auto reply = last_response();
    uint16_t remaining = get_be16(reply, length_at);
    size_t offset = table_at;
    uint32_t parsed = 0;
    // Lengths that disagree wrap the counter, and the limit of entries ends the loop.
    while (remaining != 0) {
        const size_t size = parse_region(reply, offset, regions[parsed]);
        offset += size;
        remaining = static_cast<uint16_t>(remaining - size);
        if (++parsed == max_memory_regions) {
            log_error("Too memory regions: %d (more than 20)", static_cast<int>(parsed));
            return 0;
        }
    }
    count = parsed;
    show_memory_regions(regions.first(parsed));
    clear_last_response();
    return 1;
}

void show_memory_regions(std::span<const MemoryRegion> regions)
{
    if (s_crashdump_debug == 0)
        return;
    log_debug("Memory regions: %d", static_cast<int>(regions.size()));
    for (size_t i = 0; i < regions.size(); ++i) {
        const MemoryRegion& region = regions[i];
        log_debug("%d:\tSave pref (base, len): 0x%02X (0x%08X, 0x%08X)", static_cast<int>(i), region.save_pref,
                  region.base, region.length);
        log_debug("\t%s: %s", region.description.data(), region.file_name.data());
    }
}

int32_t read_memory(FILE* file, uint32_t address, uint32_t length)
{
    using namespace memory_read;
    std::array<uint8_t, request_size> request{request_code};
    put_be32(request, address_at, address);
    put_be16(request, length_at, static_cast<uint16_t>(length));
    trace_read(address, length);
    if (!exchange_dload(request, reply_code))
        return 0;
    const auto reply = last_response();
    return store_reply(file, address, get_be32(reply, address_at), get_be16(reply, length_at), data_at, length);
}

int32_t read_memory_unframed(FILE* file, uint32_t address, uint32_t length)
{
    pktio_set_unframed_read(1);
    std::array<uint8_t, unframed_read::request_size> request{unframed_read::request_code};
    put_be32(request, unframed_read::address_at, address);
    put_be32(request, unframed_read::length_at, length);
    trace_read(address, length);
    const bool replied = exchange_dload(request, unframed_reply::code);
    pktio_set_unframed_read(0);
    if (!replied)
        return 0;
    const auto reply = last_response();
    return store_reply(file, address, get_be32(reply, unframed_reply::address_at),
                       get_be32(reply, unframed_reply::length_at), unframed_reply::data_at, length);
}

int32_t dload_read_memory(FILE* file, uint32_t address, uint32_t length)
{
    return s_dload_version > last_framed_dload_version ? read_memory_unframed(file, address, length)
                                                       : read_memory(file, address, length);
}

int32_t fetch_memory_region(FILE* file, uint32_t base, uint32_t length)
{
    const uint32_t chunk = s_dload_memory_size;
    uint32_t address = base;
    int32_t written = 0;
    Progress progress(formatted("memory at 0x%08X", base), length, ProgressUnit::bytes);
    // A refused read leaves the address as it is and still counts.
    for (uint32_t i = 0; i < length / chunk; ++i) {
        written = dload_read_memory(file, address, chunk);
        if (written < 0) {
            perror("read_memory\n");
            break;
        }
        address += static_cast<uint32_t>(written);
        progress.advance_to(address - base);
    }
    if (length % chunk != 0)
        written = dload_read_memory(file, address, length % chunk);
    hide_progress();
    (void)putchar('\n');
    return written;
}
