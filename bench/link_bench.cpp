// Speed of the transport beside its limit, over a pseudo-terminal whose other end is the same peer for both: what an
// exchange and a memory dump take, and what a bare loop takes that writes the same requests and waits for the same
// replies, in one thread, with blocking calls and a look at nothing.
//
// Product and bare loop take turns, round by round, over one script. Prints one row a measurement, cells separated by
// tabs: what, product, bare, ratio, the quartiles of the ratio, aim. Each is the median of the rounds, the ratio too:
// on a machine whose speed changes under way, only the two halves of a round compare.
//
// Exit status: 0 done, 1 a measurement failed.
#include "crashdump/dload_dump.h"
#include "crashdump/nv_item.h"
#include "diag/exchange.h"
#include "diag/hdlc.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "modem_peer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <random>
#include <span>
#include <stdexcept>

namespace {

constexpr int rounds = 101;
constexpr uint32_t exchanges = 200;         // a round
constexpr uint32_t dump_size = 400'000;     // bytes a round
constexpr uint32_t dump_base = 0x4000'0000; // where the memory begins

// ---- scripts ----

Bytes frame(const Bytes& packet)
{
    Bytes wire(2 * (packet.size() + hdlc_fcs_size) + 1); // everything escaped, and the flag
    auto length = static_cast<uint32_t>(wire.size());
    (void)hdlc_encode(packet, wire.data(), length); // there is room
    wire.resize(length);
    return wire;
}

// A header, then random bytes up to `size`.
Bytes random_packet(std::mt19937& random, Bytes header, size_t size)
{
    while (header.size() < size)
        header.push_back(static_cast<uint8_t>(random()));
    return header;
}

// Item `item`: read request, all data zero.
NvPacket nv_request(uint32_t item)
{
    NvPacket request{nv_packet::read_code};
    put_le16(request, nv_packet::item_at, static_cast<uint16_t>(item));
    return request;
}

std::vector<Turn> nv_script()
{
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): every run measures the same bytes
    std::vector<Turn> script;
    for (uint32_t item = 0; item < exchanges; ++item) {
        const NvPacket request = nv_request(item);
        const Bytes header(request.begin(), request.begin() + nv_packet::data_at);
        script.push_back(
            {frame(Bytes(request.begin(), request.end())), frame(random_packet(random, header, nv_packet::size))});
    }
    return script;
}

// One way to read memory. Requests and replies begin alike: code, address, length; a reply's code is one more.
struct DumpKind {
    uint8_t request_code;
    size_t header_size; // ends with the length, of which two bytes suffice
    size_t address_at;
    uint32_t chunk; // bytes a read
    bool framed;    // replies; requests always are
    int32_t (*read)(FILE* file, uint32_t address, uint32_t length);
};

constexpr DumpKind framed_dump = {0x12, 7, 1, framed_chunk_size, true, read_memory};
constexpr DumpKind unframed_dump = {0x14, 12, 4, unframed_chunk_size, false, read_memory_unframed};
static_assert(dump_size % framed_chunk_size == 0 && dump_size % unframed_chunk_size == 0);

std::vector<Turn> dump_script(const DumpKind& kind)
{
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): every run measures the same bytes
    std::vector<Turn> script;
    for (uint32_t offset = 0; offset < dump_size; offset += kind.chunk) {
        Bytes header(kind.header_size);
        put_u8(header, 0, kind.request_code);
        put_be32(header, kind.address_at, dump_base + offset);
        put_be16(header, kind.header_size - 2, static_cast<uint16_t>(kind.chunk));
        Bytes request = frame(header);
        request.insert(request.begin(), HDLC_END_OF_PACKET_CHAR);

        put_u8(header, 0, kind.request_code + 1);
        const Bytes reply = random_packet(random, header, kind.header_size + kind.chunk);
        script.push_back({request, kind.framed ? frame(reply) : reply});
    }
    return script;
}

// ---- product: one round on the open port ----

void exchange_all()
{
    for (uint32_t item = 0; item < exchanges; ++item) {
        (void)send_pkt_with_rsp(nv_request(item), nv_packet::read_code);
        if (last_response().size() != nv_packet::size)
            throw std::runtime_error("an NV response is not whole");
    }
}

// Into a file that costs nothing, unbuffered as a dump's file is.
template <const DumpKind& kind>
void dump_all()
{
    const UniqueFile file = open_file("/dev/null", "w");
    if (file == nullptr || setvbuf(file.get(), nullptr, _IONBF, 0) != 0)
        throw std::runtime_error("cannot write to /dev/null");
    for (uint32_t offset = 0; offset < dump_size; offset += kind.chunk) {
        if (kind.read(file.get(), dump_base + offset, kind.chunk) != static_cast<int32_t>(kind.chunk))
            throw std::runtime_error("a chunk of memory is not whole");
    }
}

// ---- bare loops: one turn ----

std::array<uint8_t, size_t{2} * pktio_buffer_size> reply_buffer; // room for any reply

void ask_and_read_by_length(int fd, const Turn& turn)
{
    write_all(fd, turn.request);
    read_all(fd, std::span(reply_buffer).first(turn.reply.size()));
}

// Reads until a flag is the last byte that came. Nothing is decoded, no checksum looked at.
void ask_and_read_to_flag(int fd, const Turn& turn)
{
    write_all(fd, turn.request);
    size_t count = 0;
    do
        count += read_some(fd, std::span(reply_buffer).subspan(count));
    while (reply_buffer[count - 1] != HDLC_END_OF_PACKET_CHAR);
}

// ---- measuring ----

struct Measurement {
    const char* what;
    const char* unit;
    double (*figure)(double seconds); // of a round
    const char* aim;
    std::vector<Turn> script;
    void (*product)();
    void (*bare)(int fd, const Turn& turn);
};

double microseconds_an_exchange(double seconds)
{
    return seconds / exchanges * 1e6;
}

double megabytes_a_second(double seconds)
{
    return dump_size / seconds * 1e-6;
}

template <typename Work>
double seconds_of(const Work& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double product_round(const Measurement& measurement, const std::string& device)
{
    (void)open_serial_port(device.c_str()); // ends the process where it fails
    const double seconds = seconds_of(measurement.product);
    close_serial_port();
    return seconds;
}

double bare_round(const Measurement& measurement, const std::string& device)
{
    const UniqueFd fd = open_raw(device);
    return seconds_of([&] {
        for (const Turn& turn : measurement.script)
            measurement.bare(fd.get(), turn);
    });
}

// The value that the share `part` of `values` lies below.
double quantile(std::vector<double> values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<size_t>(static_cast<double>(values.size() - 1) * part)];
}

void measure(const Measurement& measurement)
{
    const ModemPeer peer(measurement.script);
    std::vector<double> product;
    std::vector<double> bare;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        product.push_back(measurement.figure(product_round(measurement, peer.device())));
        bare.push_back(measurement.figure(bare_round(measurement, peer.device())));
        ratios.push_back(product.back() / bare.back());
    }
    (void)printf("%s\t%.1f %s\t%.1f %s\t%.2f\t%.2f-%.2f\t%s\n", measurement.what, quantile(product, 0.5),
                 measurement.unit, quantile(bare, 0.5), measurement.unit, quantile(ratios, 0.5), quantile(ratios, 0.25),
                 quantile(ratios, 0.75), measurement.aim);
}

} // namespace

int main()
{
    try {
        measure({"exchange, 133-byte NV read", "us", microseconds_an_exchange, "at most 1.30", nv_script(),
                 exchange_all, ask_and_read_by_length});
        measure({"dump, framed, 2000-byte reads", "MB/s", megabytes_a_second, "near 1", dump_script(framed_dump),
                 dump_all<framed_dump>, ask_and_read_to_flag});
        measure({"dump, unframed, 4000-byte reads", "MB/s", megabytes_a_second, "near 1", dump_script(unframed_dump),
                 dump_all<unframed_dump>, ask_and_read_by_length});
        return 0;
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "link_bench: %s\n", error.what());
        return 1;
    }
}
