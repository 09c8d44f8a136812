// Operations on the modem's file system, one after the other, whatever it replies.
#include "crashdump/efs2.h"

#include "crashdump/efs2_exchange.h"
#include "diag/exchange.h"
#include "tests/fuzz/modem.h"

#include <algorithm>

namespace {

void read_file(size_t size, uint32_t offset)
{
    Bytes data(size);
    const int32_t count = efs2_read_file(1, data, offset);
    require(count <= static_cast<int32_t>(size), "a read gives as much as there is room for");
}

void write_file(const Bytes& data, uint32_t offset)
{
    const int32_t count = efs2_write_file(1, data, offset);
    require(count < 0 || count == static_cast<int32_t>(data.size()), "all is written, or the write fails");
}

void get_file(const std::string& path, size_t size, uint16_t sequence)
{
    Bytes data(size);
    auto received = std::span(data);
    const int32_t count = efs2_get_file(path, received, sequence);
    require(received.empty() || (received.data() == data.data() && received.size() <= size), "data are in their room");
    require(received.empty() || count == static_cast<int32_t>(received.size()), "their number is told");
}

void read_dir(uint32_t sequence)
{
    Efs2DirEntry entry{};
    if (efs2_read_dir(1, entry, sequence) != 0)
        return;
    require(entry.name.size() < pktio_buffer_size && entry.name.find('\0') == std::string::npos, "a name is a text");
    require(efs2_get_dir_entry_type(entry) != nullptr, "every kind of file has a name");
}

void stat_file(const std::string& path, bool to_see)
{
    constexpr uint32_t untouched = 0xA5A5A5A5;
    Efs2Stat status = {untouched, untouched, untouched, untouched, untouched};
    if (efs2_stat(path, to_see ? &status : nullptr) == 0)
        return;
    require(status.size == untouched && status.mode == untouched, "a failure leaves its output alone");
    (void)efs2_not_found();
}

void operate(Input& input)
{
    switch (input.u8() % 15) {
    case 0:
        return (void)efs2_init();
    case 1:
        return (void)efs2_open_file(input.text(), input.u32(), input.u32());
    case 2:
        return (void)efs2_close_file(1);
    case 3:
        return read_file(input.u16(), input.u32());
    case 4:
        return write_file(input.piece(), input.u32());
    case 5:
        return stat_file(input.text(), true);
    case 6:
        return (void)efs2_remove(input.text());
    case 7:
        return (void)efs2_open_dir(input.text());
    case 8:
        return read_dir(input.u32());
    case 9:
        return get_file(input.text(), input.u16(), input.u16());
    case 10: {
        uint16_t sequence = input.u16();
        const std::string path = input.text();
        return (void)efs2_put_file(path, input.piece(), input.u32(), sequence);
    }
    case 11:
        return stat_file(input.text(), false);
    case 12:
        return (void)efs2_close_dir(1);
    case 13:
        return (void)efs2_await_strays();
    default:
        return efs2_forget_firmware();
    }
}

} // namespace

void fuzz_one(Input& input)
{
    const uint8_t settings = input.u8();
    connect(prv_handle_packet, faulty_modem(input));
    ExitOnTimeout = settings & 1;
    efs2_set_verbose(settings >> 1 & 1);
    efs2_forget_firmware();
    for (int operations = 0; operations < 16 && !input.empty(); ++operations)
        operate(input);
}
