// Speed of the transport beside its limit, over a pseudo-terminal whose other end is the same peer for both: what an
// exchange, a memory dump, an NV backup and the writing of an image take, and what a bare loop takes that writes the
// same requests and waits for the same replies, in one thread, with blocking calls and a look at nothing. A second row
// has the product beside a bare loop of two threads, as the engine has them: one sends and waits, the other waits for
// the port, reads, and wakes the first when the reply is whole.
//
// Product and bare loops take turns, round by round, over one script. Prints two rows a measurement, cells separated by
// tabs: what, product, bare, ratio, the quartiles of the ratio, aim. Each is the median of the rounds, the ratio too:
// on a machine whose speed changes under way, only the parts of a round compare.
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
#include "wan_dloader/nv_backup.h"
#include "wan_dloader/nv_tables.h"
#include "wan_dloader/run_settings.h"
#include "wan_dloader/streaming_download.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <mutex>
#include <random>
#include <span>
#include <stdexcept>
#include <sys/select.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

constexpr int rounds = 101;
constexpr uint32_t exchanges = 200;         // a round
constexpr uint32_t dump_size = 400'000;     // bytes a round
constexpr uint32_t backup_size = 208'089;   // bytes
constexpr uint32_t image_size = 400 * 1024; // bytes a round
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

// Requests and answers of the modem's file system begin alike: 4B 13, operation (2).
Bytes efs2_packet(uint8_t operation, std::initializer_list<uint32_t> fields, std::string_view text = {})
{
    Bytes packet{0x4B, 0x13, operation, 0};
    for (const uint32_t field : fields) {
        packet.resize(packet.size() + sizeof field);
        put_le32(packet, packet.size() - sizeof field, field);
    }
    packet.insert(packet.end(), text.begin(), text.end());
    return packet;
}

// A whole backup, from the first item to the last file, of a modem that has everything.
std::vector<Turn> backup_script()
{
    std::vector<Turn> script;
    const auto turn = [&script](const Bytes& request, const Bytes& reply) {
        script.push_back({frame(request), frame(reply)});
        Bytes& wire = script.back().request;
        if (wire.size() % 64 == 0) // then the engine sends a second flag, for the sake of the USB link
            wire.push_back(HDLC_END_OF_PACKET_CHAR);
    };
    const auto stat = [&turn](const NvFileRow& row, uint32_t mode) {
        turn(efs2_packet(15, {}, std::string(row.path) + '\0'), efs2_packet(15, {0, mode, row.size, 1, 0, 0}));
    };
    const auto query = [&turn] { turn(efs2_packet(1, {}), efs2_packet(1, {0, 0, 0, 0, 0, 0})); };
    const auto hello = [&turn, &query] {
        turn(efs2_packet(0, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), efs2_packet(0, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        query();
    };

    for (const NvItemRow& row : NvItemList) {
        NvPacket request = nv_request(row.item);
        put_u8(request, nv_packet::data_at, static_cast<uint8_t>(row.index));
        Bytes reply(request.begin(), request.end());
        std::fill_n(reply.begin() + nv_packet::data_at + 1, nv_packet::data_size - 1, static_cast<uint8_t>(row.item));
        turn(Bytes(request.begin(), request.end()), reply);
    }
    hello();
    uint16_t sequence = 0;
    for (const NvFileRow& row : NvItemFileList) {
        stat(row, 0xE1FF);
        std::string number(2, '\0');
        number[0] = static_cast<char>(sequence++);
        turn(efs2_packet(39, {row.size, 0}, number + row.path + '\0'),
             efs2_packet(39, {row.size, 0}, number + std::string(row.size, 'x')));
    }
    query(); // each pass ends with one
    hello();
    for (const NvFileRow& row : EFSFileList) {
        stat(row, 0x81B6);
        turn(efs2_packet(2, {0, 0x100}, std::string(row.path) + '\0'), efs2_packet(2, {0, 0}));
        for (uint32_t offset = 0; offset < row.size; offset += 512) {
            const uint32_t piece = std::min(row.size - offset, 512U);
            turn(efs2_packet(4, {0, piece, offset}), efs2_packet(4, {0, offset, piece, 0}, std::string(piece, 'x')));
        }
        turn(efs2_packet(3, {0}), efs2_packet(3, {0}));
    }
    query();
    return script;
}

// The bytes of an image, in the file that the product reads and in the frames that the bare loop sends.
Bytes image_bytes()
{
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): every run measures the same bytes
    return random_packet(random, {}, image_size);
}

// Stream writes: 07, offset (4), 1024 bytes; answered by 08 and the offset.
std::vector<Turn> image_script()
{
    constexpr size_t block = 1024;
    const Bytes image = image_bytes();
    std::vector<Turn> script;
    for (size_t offset = 0; offset < image.size(); offset += block) {
        Bytes header(5);
        put_u8(header, 0, 0x07);
        put_le32(header, 1, static_cast<uint32_t>(offset));
        Bytes packet(header.size() + block);
        std::ranges::copy(header, packet.begin());
        std::ranges::copy(std::span(image).subspan(offset, block), packet.begin() + 5);
        Bytes request = frame(packet);
        if (request.size() % 64 == 0) // then the engine sends a second flag, for the sake of the USB link
            request.push_back(HDLC_END_OF_PACKET_CHAR);
        request.insert(request.begin(), HDLC_END_OF_PACKET_CHAR);
        put_u8(header, 0, 0x08);
        script.push_back({request, frame(header)});
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

// Sends what is printed and logged to where it costs nothing, while it lives.
class Quiet {
public:
    Quiet()
    {
        (void)fflush(stdout);
        const UniqueFile nowhere = open_file("/dev/null", "w");
        if (nowhere == nullptr || dup2(fileno(nowhere.get()), STDOUT_FILENO) < 0 ||
            dup2(fileno(nowhere.get()), STDERR_FILENO) < 0)
            throw std::runtime_error("cannot write to /dev/null");
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
    Quiet(Quiet&&) = delete;
    Quiet& operator=(Quiet&&) = delete;
    ~Quiet()
    {
        (void)fflush(stdout);
        (void)dup2(out_.get(), STDOUT_FILENO);
        (void)dup2(err_.get(), STDERR_FILENO);
    }

private:
    UniqueFd out_ = UniqueFd(dup(STDOUT_FILENO)), err_ = UniqueFd(dup(STDERR_FILENO));
};

// To the disk, as a backup is.
void backup_all()
{
    const std::string name = std::filesystem::temp_directory_path() / ("link_bench-" + std::to_string(getpid()));
    const Quiet quiet;
    const bool done = NvItemBackup(name) == 0 && NvItemFileBackup(name) == 0 && EfsFileBackup(name) == 0;
    const auto size = std::filesystem::file_size(name);
    std::filesystem::remove(name);
    if (!done || size != backup_size)
        throw std::runtime_error("a backup is not whole");
}

// The file with the image, while it lives.
class ImageFile {
public:
    ImageFile()
    {
        ImagePath = std::filesystem::temp_directory_path().string() + "/";
        const Bytes image = image_bytes();
        const UniqueFile file = open_file(ImagePath + name(), "w");
        if (file == nullptr || fwrite(image.data(), 1, image.size(), file.get()) != image.size())
            throw std::runtime_error("cannot write an image");
    }
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;
    ImageFile(ImageFile&&) = delete;
    ImageFile& operator=(ImageFile&&) = delete;
    ~ImageFile() { (void)unlink((ImagePath + name()).c_str()); }

    static std::string name() { return "link_bench-" + std::to_string(getpid()); }
};

void write_image()
{
    const Quiet quiet;
    if (SendBootLoader(ImageFile::name()) != 0)
        throw std::runtime_error("an image is not whole");
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
    int32_t (*open)(const char* device); // ends the process where it fails
    void (*product)();
    void (*bare)(int fd, const Turn& turn);
};

double microseconds_an_exchange(double seconds)
{
    return seconds / exchanges * 1e6;
}

double milliseconds(double seconds)
{
    return seconds * 1e3;
}

double image_megabytes_a_second(double seconds)
{
    return image_size / seconds * 1e-6;
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
    (void)measurement.open(device.c_str());
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

// Reads the replies of `script`, waiting in select as the engine does, and tells of each.
class BareReader {
public:
    BareReader(int fd, const std::vector<Turn>& script)
        : thread_(&BareReader::read_replies, this, fd, std::cref(script))
    {
    }

    // Returns when `count` replies in all are there.
    void wait_for(size_t count)
    {
        std::unique_lock lock(mutex_);
        if (!reply_is_whole_.wait_for(lock, std::chrono::seconds(5), [&] { return replies_ == count; }))
            throw std::runtime_error("a reply is not whole");
    }

private:
    void read_replies(int fd, const std::vector<Turn>& script)
    try {
        for (const Turn& turn : script) {
            for (size_t count = 0; count < turn.reply.size();) {
                fd_set readable;
                FD_ZERO(&readable);
                FD_SET(fd, &readable);
                (void)select(fd + 1, &readable, nullptr, nullptr, nullptr);
                count += read_some(fd, std::span(reply_buffer).subspan(count));
            }
            std::unique_lock lock(mutex_);
            ++replies_;
            lock.unlock();
            reply_is_whole_.notify_one();
        }
    } catch (const std::system_error&) {
        return; // whoever waits tells
    }

    std::mutex mutex_;
    std::condition_variable reply_is_whole_;
    size_t replies_ = 0;
    std::jthread thread_;
};

double bare_threaded_round(const Measurement& measurement, const std::string& device)
{
    const UniqueFd fd = open_raw(device);
    BareReader reader(fd.get(), measurement.script);
    return seconds_of([&] {
        size_t count = 0;
        for (const Turn& turn : measurement.script) {
            write_all(fd.get(), turn.request);
            reader.wait_for(++count);
        }
    });
}

// The value that the share `part` of `values` lies below.
double quantile(std::vector<double> values, double part)
{
    std::ranges::sort(values);
    return values[static_cast<size_t>(static_cast<double>(values.size() - 1) * part)];
}

// The figures of the product's rounds and of those that ran beside them.
void print_row(const Measurement& measurement, const char* what, const std::vector<double>& product,
               const std::vector<double>& bare)
{
    std::vector<double> ratios;
    std::ranges::transform(product, bare, std::back_inserter(ratios), std::divides());
    (void)printf("%s\t%.1f %s\t%.1f %s\t%.2f\t%.2f-%.2f\t%s\n", what, quantile(product, 0.5), measurement.unit,
                 quantile(bare, 0.5), measurement.unit, quantile(ratios, 0.5), quantile(ratios, 0.25),
                 quantile(ratios, 0.75), measurement.aim);
}

void measure(const Measurement& measurement)
{
    const ModemPeer peer(measurement.script);
    std::vector<double> product;
    std::vector<double> bare;
    std::vector<double> threaded;
    for (int round = 0; round < rounds; ++round) {
        product.push_back(measurement.figure(product_round(measurement, peer.device())));
        bare.push_back(measurement.figure(bare_round(measurement, peer.device())));
        threaded.push_back(measurement.figure(bare_threaded_round(measurement, peer.device())));
    }
    print_row(measurement, measurement.what, product, bare);
    print_row(measurement, "  beside a bare reader thread", product, threaded);
}

} // namespace

int main()
{
    try {
        measure({"exchange, 133-byte NV read", "us", microseconds_an_exchange, "at most 1.30", nv_script(),
                 open_serial_port, exchange_all, ask_and_read_by_length});
        measure({"dump, framed, 2000-byte reads", "MB/s", megabytes_a_second, "near 1", dump_script(framed_dump),
                 open_serial_port, dump_all<framed_dump>, ask_and_read_to_flag});
        measure({"dump, unframed, 4000-byte reads", "MB/s", megabytes_a_second, "near 1", dump_script(unframed_dump),
                 open_serial_port, dump_all<unframed_dump>, ask_and_read_by_length});
        measure({"NV backup, 1905 exchanges", "ms", milliseconds, "as the exchange", backup_script(), OpenSerialPort,
                 backup_all, ask_and_read_by_length});
        const ImageFile image;
        measure({"image, 1024-byte writes", "MB/s", image_megabytes_a_second, "at least 0.83", image_script(),
                 OpenSerialPort, write_image, ask_and_read_by_length});
        return 0;
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "link_bench: %s\n", error.what());
        return 1;
    }
}
