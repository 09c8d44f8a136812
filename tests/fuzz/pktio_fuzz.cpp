// The packet engine with a pipe for a port: what its reader hands over, against the stream decoded at once.
#include "diag/hdlc.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "tests/fuzz/harness.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <optional>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t longest = 16384; // less than a pipe holds

std::vector<Bytes> s_packets; // the reader's until it has ended

void take(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    s_packets.emplace_back(packet.begin(), packet.end());
}

// Takes the next packet, framed, off `wire`; none where that is damaged or not whole.
std::optional<Bytes> take_framed(std::span<const uint8_t>& wire)
{
    HdlcCookie cookie{};
    (void)hdlc_init_decode_cookie(&cookie);
    Bytes out(pktio_buffer_size);
    auto taken = static_cast<uint32_t>(wire.size());
    auto produced = static_cast<int32_t>(out.size());
    const int status = hdlc_decode_with_cookie(wire.data(), taken, out.data(), produced, &cookie);
    wire = wire.subspan(taken);
    if (status != HDLC_OK)
        return std::nullopt;
    out.resize(static_cast<size_t>(produced));
    return out;
}

// The same for an unframed reply; behind one that is larger than the buffer, or not whole, nothing is left.
std::optional<Bytes> take_unframed(std::span<const uint8_t>& wire)
{
    const size_t size = unframed_reply::data_at + size_t{get_be32(wire, unframed_reply::length_at)};
    const auto packet = std::exchange(wire, {});
    if (size > pktio_buffer_size || size > packet.size())
        return std::nullopt;
    wire = packet.subspan(size);
    return Bytes(packet.begin(), packet.begin() + static_cast<ptrdiff_t>(size));
}

std::vector<Bytes> packets_of(std::span<const uint8_t> wire, bool unframed)
{
    std::vector<Bytes> packets;
    while (!wire.empty()) {
        auto packet = unframed && wire.front() == unframed_reply::code ? take_unframed(wire) : take_framed(wire);
        if (packet)
            packets.push_back(std::move(*packet));
    }
    return packets;
}

// Writes `bytes` and waits until the reader has taken them.
void write_all(int fd, std::span<const uint8_t> bytes)
{
    require(write(fd, bytes.data(), bytes.size()) == std::ssize(bytes), "the pipe takes everything");
    for (int waiting = 1; waiting != 0; (void)sched_yield())
        require(ioctl(fd, FIONREAD, &waiting) == 0, "the pipe tells what it holds");
}

} // namespace

void fuzz_one(Input& input)
{
    const bool unframed = input.u8() % 2 != 0;
    const size_t first = input.u16();
    const Bytes wire = input.bytes(longest);

    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "a pipe can be made");
    const UniqueFd port(ends[0]);
    const UniqueFd modem(ends[1]);
    s_packets.clear();
    require(pktio_init(("/proc/self/fd/" + std::to_string(port.get())).c_str(), take, 0) == 0, "the engine starts");
    if (unframed)
        pktio_set_unframed_read(1);
    const auto head = std::span(wire).first(std::min(first, wire.size()));
    write_all(modem.get(), head);
    write_all(modem.get(), std::span(wire).subspan(head.size()));
    pktio_shutdown();

    require(s_packets == packets_of(wire, unframed), "a stream is cut as it would be at once");
}
