// The packet engine with a pipe for a port: what its reader hands over, against the stream decoded at once.
#include "diag/hdlc.h"
#include "diag/packet_fields.h"
#include "diag/pktio.h"
#include "tests/fuzz/harness.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr size_t longest = 16384; // less than a pipe holds

std::vector<Bytes> s_packets; // the reader's until it has ended

void take(std::span<const uint8_t> packet, uintptr_t /*user_data*/)
{
    s_packets.emplace_back(packet.begin(), packet.end());
}

std::vector<Bytes> packets_of(std::span<const uint8_t> wire)
{
    std::vector<Bytes> packets;
    while (!wire.empty()) {
        HdlcCookie cookie{};
        (void)hdlc_init_decode_cookie(&cookie);
        Bytes out(pktio_buffer_size);
        auto taken = static_cast<uint32_t>(wire.size());
        auto produced = static_cast<int32_t>(out.size());
        if (hdlc_decode_with_cookie(wire.data(), taken, out.data(), produced, &cookie) == HDLC_OK)
            packets.emplace_back(out.begin(), out.begin() + produced);
        wire = wire.subspan(taken);
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

    if (!unframed)
        require(s_packets == packets_of(wire), "a stream is cut as it would be at once");
    for (const Bytes& packet : s_packets) {
        require(packet.size() <= pktio_buffer_size, "a packet fits its buffer");
        using namespace unframed_reply;
        const bool may_be_framed = packets_of(wire).size() >= s_packets.size();
        if (unframed && get_u8(packet, 0) == code && !may_be_framed)
            require(packet.size() == data_at + get_be32(packet, length_at), "an unframed reply is as long as it says");
    }
}
