// Speed of the frame codec beside its limit: the checksum needs one table look-up a byte, each waiting for the one
// before, so a bare loop of look-ups over the same payloads is what a codec can at best reach.
//
// The argument is the payload's size in bytes, and so is what counts as processed: what a frame adds is overhead of the
// codec. Payloads take turns, so that no branch predictor learns where the escapes are.
#include "diag/hdlc.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t payload_count = 64;
constexpr uint16_t crc_seed = 0xFFFF;

constexpr std::array<uint16_t, 256> crc_table = [] {
    std::array<uint16_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0x8408 : crc >> 1;
        table[byte] = static_cast<uint16_t>(crc);
    }
    return table;
}();

constexpr size_t frame_capacity(size_t payload_size)
{
    return 2 * (payload_size + hdlc_fcs_size) + 1; // everything escaped, and the flag
}

std::vector<Bytes> random_payloads(size_t size)
{
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp): every run measures the same bytes
    std::vector<Bytes> payloads(payload_count, Bytes(size));
    for (Bytes& payload : payloads)
        std::ranges::generate(payload, [&random] { return static_cast<uint8_t>(random()); });
    return payloads;
}

std::vector<Bytes> frames_of(const std::vector<Bytes>& payloads)
{
    std::vector<Bytes> frames;
    for (const Bytes& payload : payloads) {
        Bytes frame(frame_capacity(payload.size()));
        auto length = static_cast<uint32_t>(frame.size());
        (void)hdlc_encode(payload, frame.data(), length); // there is room
        frame.resize(length);
        frames.push_back(frame);
    }
    return frames;
}

void count_bytes(benchmark::State& state)
{
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void bare(benchmark::State& state)
{
    const auto payloads = random_payloads(static_cast<size_t>(state.range(0)));
    size_t turn = 0;
    while (state.KeepRunning()) {
        uint32_t crc = crc_seed;
        for (const uint8_t byte : payloads[turn++ % payload_count])
            crc = crc >> 8 ^ crc_table[(crc ^ byte) & 0xFF];
        benchmark::DoNotOptimize(crc);
    }
    count_bytes(state);
}

void encode(benchmark::State& state)
{
    const auto payloads = random_payloads(static_cast<size_t>(state.range(0)));
    Bytes frame(frame_capacity(payloads.front().size()));
    size_t turn = 0;
    while (state.KeepRunning()) {
        auto length = static_cast<uint32_t>(frame.size());
        int status = hdlc_encode(payloads[turn++ % payload_count], frame.data(), length);
        benchmark::DoNotOptimize(status);
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

void decode(benchmark::State& state)
{
    const auto payloads = random_payloads(static_cast<size_t>(state.range(0)));
    const auto frames = frames_of(payloads);
    Bytes packet(payloads.front().size() + hdlc_fcs_size);
    size_t turn = 0;
    while (state.KeepRunning()) {
        const Bytes& frame = frames[turn++ % payload_count];
        HdlcCookie cookie = {0, crc_seed};
        auto taken = static_cast<uint32_t>(frame.size());
        auto produced = static_cast<int32_t>(packet.size());
        if (hdlc_decode_with_cookie(frame.data(), taken, packet.data(), produced, &cookie) != HDLC_OK) {
            state.SkipWithError("a good frame was refused");
            break;
        }
        benchmark::ClobberMemory();
    }
    count_bytes(state);
}

BENCHMARK(bare)->Arg(4000)->Arg(133);
BENCHMARK(encode)->Arg(4000)->Arg(133);
BENCHMARK(decode)->Arg(4000)->Arg(133);

} // namespace

BENCHMARK_MAIN();
