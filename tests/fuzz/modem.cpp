#include "tests/fuzz/modem.h"

#include "diag/exchange.h"
#include "diag/packet_fields.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <pthread.h>
#include <set>
#include <string>
#include <string_view>
#include <utility>

using Clock = std::chrono::steady_clock;

// The linker leads the exchange's wait here: it is over at once, and the clock says so once.
int wait_instead(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                 const timespec* until) asm("__wrap_pthread_cond_clockwait");
int sleep_instead(const timespec* time, timespec* left) asm("__wrap_nanosleep");
Clock::time_point now_instead() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
Clock::time_point now_really() asm("__real__ZNSt6chrono3_V212steady_clock3nowEv");

namespace {

PacketHandler s_handler = nullptr;
Modem s_modem;
std::set<std::string> s_regular_files;
std::optional<Clock::time_point> s_too_late;

// Nothing that is empty can be an answer, so that a length tells of one.
bool is_answered()
{
    return (s_handler == rcv_handle_packet ? s_response_len : sResponseLen) != 0;
}

// Offset of the text that ends `request`, its zero included, is known by the command alone; 0 where there is none.
size_t path_offset(uint16_t command)
{
    switch (command) {
    case 2:
        return 12;
    case 8:
    case 11:
    case 15:
        return 4;
    case 39:
        return 14;
    default:
        return 0;
    }
}

// An answer of the modem's file system, whose files have as many bytes as their names.
Bytes efs2_answer(std::span<const uint8_t> request)
{
    constexpr uint32_t largest_data = 2028;
    const uint16_t command = get_le16(request, 2);
    const size_t path_at = path_offset(command);
    const auto path = path_at == 0 ? std::span<const uint8_t>{} : request.subspan(std::min(path_at, request.size()));
    require(path_at == 0 || (!path.empty() && path.back() == 0), "a path ends with its zero");
    const auto size = static_cast<uint32_t>(path.size());

    Bytes answer(44);
    std::ranges::copy(request.first(4), answer.begin());
    switch (command) {
    case 4: { // read: descriptor, offset, bytes, error, data
        const uint32_t count = get_le32(request, 8);
        require(count <= largest_data, "a read asks for what an answer can carry");
        answer.resize(20 + count);
        put_le32(answer, 4, get_le32(request, 4));
        put_le32(answer, 8, get_le32(request, 12));
        put_le32(answer, 12, count);
        put_le32(answer, 16, 0);
        break;
    }
    case 5: // write
        put_le32(answer, 12, static_cast<uint32_t>(request.size() - 12));
        break;
    case 15: { // stat
        constexpr std::string_view items = "/nv/item_files/";
        const std::string name(path.begin(), path.end() - 1);
        const bool is_item = name.starts_with(items) && !s_regular_files.contains(name);
        put_le32(answer, 8, is_item ? 0xE000 : 0x8000);
        put_le32(answer, 12, size);
        break;
    }
    case 38: // put
        require(request.size() >= 14 && get_le32(request, 4) <= request.size() - 14, "a put carries what it announces");
        put_le16(answer, 4, get_le16(request, 12));
        break;
    case 39: { // get
        const uint32_t count = std::min(get_le32(request, 4), size);
        answer.resize(14 + count);
        put_le32(answer, 4, count);
        put_le32(answer, 8, 0);
        put_le16(answer, 12, get_le16(request, 12));
        break;
    }
    default:
        break;
    }
    return answer;
}

} // namespace

void connect(PacketHandler handler, Modem modem)
{
    s_handler = handler;
    s_modem = std::move(modem);
    SetRspCallback(nullptr);
    s_response_len = 0;
    sResponseLen = 0;
    s_exit_on_timeout = 1;
    ExitOnTimeout = 1;
}

void add_regular_file(std::string path)
{
    s_regular_files.insert(std::move(path));
}

Modem modem_of(Input& input)
{
    return [&input](std::span<const uint8_t>) { return input.empty() ? std::nullopt : std::optional(input.piece()); };
}

Bytes proper_answer(std::span<const uint8_t> request)
{
    constexpr uint8_t nv_read = 0x26, nv_write = 0x27, subsystems = 0x4B, file_system = 0x13;
    constexpr uint8_t write_24 = 0x01, write_32 = 0x0F, go = 0x05, acknowledge = 0x02;
    Bytes answer(request.begin(), request.end());
    const uint8_t code = get_u8(request, 0);
    if (code == nv_read || code == nv_write)
        require(request.size() == 133, "an NV request is whole");
    if (code == nv_read)
        std::fill(answer.begin() + 4, answer.begin() + 131, uint8_t{0x5A});
    if (code == subsystems && get_u8(request, 1) == file_system)
        return efs2_answer(request);
    if (code == write_24 || code == write_32 || code == go)
        return {acknowledge};
    return answer;
}

Modem faulty_modem(Input& input)
{
    return [&input](std::span<const uint8_t> request) -> std::optional<Bytes> {
        if (input.u8() % 2 == 0)
            return proper_answer(request);
        Bytes piece = input.piece();
        return piece.empty() ? std::nullopt : std::optional(std::move(piece));
    };
}

int wait_instead(pthread_cond_t* /*cond*/, pthread_mutex_t* /*mutex*/, clockid_t /*clock*/, const timespec* until)
{
    s_too_late = Clock::time_point(std::chrono::duration_cast<Clock::duration>(
        std::chrono::seconds(until->tv_sec + 1) + std::chrono::nanoseconds(until->tv_nsec)));
    return ETIMEDOUT;
}

int sleep_instead(const timespec* /*time*/, timespec* /*left*/)
{
    return 0;
}

Clock::time_point now_instead()
{
    if (const auto late = std::exchange(s_too_late, std::nullopt))
        return *late;
    return now_really();
}

// ---- the packet engine ----

int pktio_init(const char* /*device_path*/, PacketHandler handler, uintptr_t /*user_data*/)
{
    s_handler = handler;
    return 0;
}

void pktio_shutdown() {}

int pktio_send_packet(std::span<const uint8_t> packet)
{
    const Bytes request(packet.begin(), packet.end()); // the product may take its place for the answer
    constexpr int most = 64;                           // what is no answer will not become one
    for (int packets = 0; packets < most && !is_answered(); ++packets) {
        const auto said = s_modem(request);
        if (!said)
            break;
        s_handler(*said, 0);
    }
    return 0;
}

int pktio_send_raw_packet(std::span<const uint8_t> /*bytes*/)
{
    return 0;
}

int pktio_send_end_of_packet_char()
{
    return 1;
}

void pktio_set_unframed_read(uint32_t /*on*/) {}

void pktio_set_shutdown_callback(ShutdownHandler /*handler*/, uintptr_t /*user_data*/) {}
