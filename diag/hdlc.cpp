#include "diag/hdlc.h"

#include "platform/android_log.h"

#include <array>

namespace {

constexpr uint8_t escape_char = 0x7D;
constexpr uint8_t escape_xor = 0x20;
constexpr uint16_t crc_seed = 0xFFFF;
constexpr uint16_t crc_final_xor = 0xFFFF;
// The register after payload and FCS of a good frame, complemented.
constexpr uint16_t good_fcs_complement = 0x0F47;

// CRC-16 with the bit-reversed polynomial, one entry a byte value.
constexpr std::array<uint16_t, 256> sCrcTable = [] {
    constexpr uint16_t reversed_polynomial = 0x8408; // of 0x1021
    std::array<uint16_t, 256> table{};
    for (uint32_t byte = 0; byte < table.size(); ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ reversed_polynomial : crc >> 1;
        table[byte] = static_cast<uint16_t>(crc);
    }
    return table;
}();
static_assert(sCrcTable[1] == 0x1189);

constexpr uint16_t crc_update(uint16_t crc, uint8_t byte)
{
    return static_cast<uint16_t>((crc >> 8) ^ sCrcTable[(crc ^ byte) & 0xFF]);
}

constexpr bool is_good(uint16_t crc)
{
    return static_cast<uint16_t>(crc ^ crc_final_xor) == good_fcs_complement;
}

// No frame shorter than its FCS can look good, so taking two bytes off is always possible.
static_assert([] {
    for (uint32_t byte = 0; byte < 256; ++byte) {
        if (is_good(crc_update(crc_seed, static_cast<uint8_t>(byte))))
            return false;
    }
    return !is_good(crc_seed);
}());

constexpr bool needs_escape(uint8_t byte)
{
    return byte == HDLC_END_OF_PACKET_CHAR || byte == escape_char;
}

// Writes into the caller's buffer until it is full.
struct Output {
    uint8_t* next;
    uint8_t* end;

    [[nodiscard]] bool put_stuffed(uint8_t byte)
    {
        if (!needs_escape(byte)) [[likely]]
            return put(byte);
        if (end - next < 2)
            return false;
        *next++ = escape_char;
        *next++ = byte ^ escape_xor;
        return true;
    }

    [[nodiscard]] bool put(uint8_t byte)
    {
        if (next == end)
            return false;
        *next++ = byte;
        return true;
    }
};

// The line numbers name the step that ran out: 82 payload, 90 and 91 FCS, 98 flag.
int out_of_space(int line, size_t bytes_left, uint32_t capacity)
{
    __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                        "%s:%d oos:length=%d,outLength=%d:hldc_encode ran out of buffer space\n", "hdlc.c", line,
                        static_cast<int>(bytes_left), static_cast<int>(capacity));
    return -1;
}

} // namespace

// NOLINTNEXTLINE(readability-non-const-parameter): `output` writes through it
int hdlc_encode(std::span<const uint8_t> packet, uint8_t* out, uint32_t& out_length)
{
    const uint32_t capacity = out_length;
    Output output = {out, out + capacity};

    uint16_t crc = crc_seed;
    for (size_t i = 0; i < packet.size(); ++i) {
        if (!output.put_stuffed(packet[i]))
            return out_of_space(82, packet.size() - i, capacity);
        crc = crc_update(crc, packet[i]);
    }

    const auto fcs = static_cast<uint16_t>(crc ^ crc_final_xor);
    if (!output.put_stuffed(static_cast<uint8_t>(fcs & 0xFF)))
        return out_of_space(90, 0, capacity);
    if (!output.put_stuffed(static_cast<uint8_t>(fcs >> 8)))
        return out_of_space(91, 0, capacity);
    if (!output.put(HDLC_END_OF_PACKET_CHAR))
        return out_of_space(98, 0, capacity);

    out_length = static_cast<uint32_t>(output.next - out);
    return 0;
}

int hdlc_init_decode_cookie(HdlcCookie* cookie)
{
    if (cookie == nullptr)
        return HDLC_NO_COOKIE;
    *cookie = {0, crc_seed};
    return HDLC_OK;
}

int hdlc_decode_with_cookie(const uint8_t* in, uint32_t& in_length, uint8_t* out, int32_t& out_length,
                            HdlcCookie* cookie)
{
    if (cookie == nullptr) {
        in_length = 0;
        out_length = 0;
        return HDLC_NO_COOKIE;
    }

    enum : int32_t { at_start, inside, escaped, discarding };
    const uint8_t* next = in;
    const uint8_t* const in_end = in + in_length;
    uint8_t* write = out;
    uint8_t* const out_end = out + out_length;
    int32_t state = cookie->state;
    uint16_t crc = cookie->crc;
    int status = HDLC_MORE;

    while (next != in_end && status == HDLC_MORE) {
        uint8_t byte = *next++;
        if (state == discarding) {
            if (byte == HDLC_END_OF_PACKET_CHAR)
                status = HDLC_TOO_LONG;
            continue;
        }
        if (state == escaped) {
            byte ^= escape_xor;
        } else if (needs_escape(byte)) [[unlikely]] {
            if (byte == escape_char) {
                state = escaped;
                continue;
            }
            status = state == at_start || is_good(crc) ? HDLC_OK : HDLC_BAD_FCS;
            continue;
        }
        if (write == out_end) {
            state = discarding;
            continue;
        }
        *write++ = byte;
        crc = crc_update(crc, byte);
        state = inside;
    }

    in_length = static_cast<uint32_t>(next - in);
    out_length = static_cast<int32_t>(write - out);
    if (status == HDLC_OK && state != at_start)
        out_length -= static_cast<int32_t>(hdlc_fcs_size);
    *cookie = status == HDLC_MORE ? HdlcCookie{state, crc} : HdlcCookie{inside, crc_seed};
    return status;
}

int hdlc_decode(uint8_t* buffer, uint32_t& length)
{
    uint16_t crc = crc_seed;
    uint32_t write = 0;
    for (uint32_t read = 0; read < length; ++read) {
        uint8_t byte = buffer[read];
        if (byte == HDLC_END_OF_PACKET_CHAR) {
            if (read != 0 && !is_good(crc))
                return HDLC_BAD_FCS;
            length = read == 0 ? 0 : write - hdlc_fcs_size;
            return HDLC_OK;
        }
        if (byte == escape_char) {
            if (++read == length)
                return HDLC_MORE;
            byte = buffer[read] ^ escape_xor;
        }
        buffer[write++] = byte;
        crc = crc_update(crc, byte);
    }
    return HDLC_MORE;
}
