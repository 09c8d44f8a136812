#include "crashdump/efs2.h"

#include "diag/exchange.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "tests/unit/pty_peer.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

Bytes le16(uint32_t value)
{
    return {static_cast<uint8_t>(value & 0xFF), static_cast<uint8_t>(value >> 8 & 0xFF)};
}

Bytes le32(uint32_t value)
{
    return le16(value & 0xFFFF) + le16(value >> 16);
}

Bytes text(std::string_view characters)
{
    return Bytes(characters.begin(), characters.end()) + Bytes{0};
}

Bytes packet(uint8_t command, const Bytes& fields)
{
    return Bytes{0x4B, 0x13, command, 0} + fields;
}

Bytes counting(size_t size)
{
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), uint8_t{1});
    return bytes;
}

Bytes piece(const Bytes& bytes, size_t offset, size_t size)
{
    const auto begin = bytes.begin() + static_cast<ptrdiff_t>(offset);
    return {begin, begin + static_cast<ptrdiff_t>(size)};
}

// A log line, without its "radio " and line feed.
std::string error(const std::string& line)
{
    return "E RIL_TESSEL: " + line;
}

// A request as it must be, and what the modem sends when it has come.
struct Turn {
    Bytes request;
    Bytes wire;
};

using Operation = std::function<int32_t()>;

class Efs2 : public testing::Test {
protected:
    void SetUp() override { OpenSerialPort(peer.path()); }
    void TearDown() override
    {
        efs2_set_verbose(0);
        pktio_shutdown();
    }

    // Runs `operation` against a modem that takes these turns. Its log is in `log` then, and is `line` or has it.
    void expect(const std::vector<Turn>& turns, const Operation& operation, int32_t result,
                const std::string& line = "")
    {
        std::vector<Bytes> expected;
        for (const Turn& turn : turns) {
            expected.push_back(framed(turn.request));
            if (expected.back().size() % 64 == 0)
                expected.back().push_back(0x7E);
        }
        std::vector<Bytes> received;
        std::thread modem([&] {
            for (size_t turn = 0; turn < turns.size(); ++turn) {
                received.push_back(peer.receive(expected[turn].size()));
                peer.send(turns[turn].wire);
            }
        });
        CaptureStderr();
        EXPECT_EQ(operation(), result);
        modem.join();
        log = GetCapturedStderr();
        EXPECT_EQ(received, expected);
        EXPECT_THAT(log, HasSubstr(line));
        EXPECT_EQ(log.empty(), line.empty()) << log;
    }

    PtyPeer peer;
    std::string log;
    Bytes bytes;
    std::span<uint8_t> got;
    uint16_t sequence = 0x1FF;
    uint32_t entry_number = 2;
    Efs2Stat status{};
    Efs2DirEntry entry{};
};

// Each operation: its request to the byte, a good reply, one that refuses, and one without any field.
TEST_F(Efs2, OperationsAskAndJudge)
{
    struct Case {
        const char* name;
        Operation run;
        Bytes request, reply;
        int32_t result;
        size_t error_at;
    };
    const Bytes put_data = {0x7E, 0, 0x7D};
    const Case cases[] = {
        {"open", [] { return efs2_open_file("/a", 0x241, 0666); }, packet(2, le32(0x241) + le32(0666) + text("/a")),
         packet(2, le32(0x80) + le32(0)), 0x80, 8},
        {"close", [] { return efs2_close_file(-2); }, packet(3, le32(0xFFFFFFFE)), packet(3, le32(0)), 0, 4},
        {"remove", [] { return efs2_remove("/b"); }, packet(8, text("/b")), packet(8, le32(0)), 0, 4},
        {"open dir", [] { return efs2_open_dir(""); }, packet(11, text("")), packet(11, le32(9) + le32(0)), 9, 8},
        {"close dir", [] { return efs2_close_dir(9); }, packet(13, le32(9)), packet(13, le32(0)), 0, 4},
        {"stat", [] { return efs2_stat("/c", nullptr); }, packet(15, text("/c")), packet(15, le32(0)), 0, 4},
        {"put", [&] { return efs2_put_file("/d", put_data, 0x80040, sequence); },
         packet(38, le32(3) + le32(0x80040) + le16(0x1FF) + put_data + text("/d")), packet(38, le16(0x1FF) + le32(0)),
         0, 6},
        {"read", [] { return efs2_read_file(3, {}, 0x100); }, packet(4, le32(3) + le32(0) + le32(0x100)),
         packet(4, le32(3) + le32(0x100) + le32(0) + le32(0)), 0, 16},
        {"write", [] { return efs2_write_file(3, {}, 7); }, packet(5, le32(3) + le32(7)),
         packet(5, le32(3) + le32(7) + le32(0) + le32(0)), 0, 16},
        {"read dir", [&] { return efs2_read_dir(9, entry, entry_number); }, packet(12, le32(9) + le32(2)),
         packet(12, le32(9) + le32(2) + le32(0)), 0, 12},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        expect({{row.request, framed(row.reply)}}, row.run, row.result);
        Bytes refusal = row.reply;
        refusal.at(row.error_at + 3) = 0x40;
        refusal.at(row.error_at) = 2;
        expect({{row.request, framed(refusal)}}, row.run, -1, error("EFS2 diag - invalid seq no"));
        const bool adopts = row.reply[2] == 38;
        expect({{row.request, framed(packet(row.reply[2], {}))}}, row.run, 0, adopts ? "in - 511, out - 0" : "");
        sequence = 0x1FF;
        entry_number = 2;
    }
}

// Noise, another command's reply, an empty frame, the start of a header, and a refusal of the transport's own.
TEST_F(Efs2, SkipsWhatIsNoReply)
{
    const Bytes noise = framed({0x7E, 1, 2, 3}) + framed(packet(4, le32(0))) + framed({}) + framed({0x4B, 0x13}) +
                        framed({0x4B, 0x13, 3}) + framed({0x13, 0x4B, 0x13, 3, 0}) + framed({0x4B, 0x13, 3, 1});
    expect(
        {{packet(3, le32(5)), noise + framed(packet(3, le32(0)))}}, [] { return efs2_close_file(5); }, 0);
}

TEST_F(Efs2, HandshakeShowsWhatTheModemTells)
{
    // The two bytes are the start of a hello, whose command is zero.
    const Turn hello = {packet(0, Bytes(40)), framed({0x4B, 0x13}) + framed(packet(0, counting(40)))};
    const Turn query = {packet(1, {}), framed(packet(1, le32(255) + le32(0xFFFFFFFF) + Bytes{8}))};
    expect({hello, query}, efs2_init, 1);
    EXPECT_EQ(s_efs2_initialzed, 1);
    efs2_set_verbose(1);
    expect({hello, query}, efs2_init, 1, "I RIL_TESSEL: EFS2 Hello packet: \n");
    for (const char* line :
         {"\ttarg_pkt_window : 0x04030201\n", "\tversion         : 0x1c1b1a19\n", "\tfeature_bits    : 0x28272625\n",
          "\tmax_name       : 255\n", "\tmax_path       : -1\n", "\tmax_link_depth : 8\n", "\tmax_mounts     : 0\n"})
        EXPECT_THAT(log, HasSubstr(line));
    // What the last query told is not told again for one that tells nothing.
    expect({hello, {query.request, framed(query.request)}}, efs2_init, 1, "\tmax_name       : 0\n");
}

Turn read_turn(uint32_t count, uint32_t offset, uint32_t announced, const Bytes& data, uint32_t error = 0)
{
    return {packet(4, le32(3) + le32(count) + le32(offset)),
            framed(packet(4, le32(3) + le32(0) + le32(announced) + le32(error) + data))};
}

// In pieces, up to the file's end or a refusal; and of a modem that announces more than it sends, or sends more than it
// was asked for, no more than there is.
TEST_F(Efs2, ReadsWhatThereIs)
{
    const Bytes file = counting(5000), none(4, 0xEE);
    const Turn first = read_turn(2028, 0x100, 2028, piece(file, 0, 2028)),
               second = read_turn(2028, 0x100 + 2028, 2028, piece(file, 2028, 2028)),
               third = read_turn(944, 0x100 + 4056, 944, piece(file, 4056, 944));
    const std::string announces = "W RIL_TESSEL: Response announces ";
    const struct {
        std::vector<Turn> turns;
        size_t size;
        int32_t result;
        Bytes read; // what the destination begins with afterwards
        std::string line;
    } rows[] = {
        {{first, second, third}, 5000, 5000, file, ""},
        {{first, read_turn(2028, 0x100 + 2028, 1, {5})}, 5000, 2029, piece(file, 0, 2028) + Bytes{5, 0xEE}, ""},
        {{first, read_turn(2028, 0x100 + 2028, 1, {5}, 9)}, 5000, -1, {}, error("Bad file descriptor")},
        {{read_turn(4, 0x100, 0xFFFFFFFF, {1, 2})}, 4, 2, {1, 2, 0xEE, 0xEE}, announces},
        {{read_turn(4, 0x100, 6, {1, 2, 3, 4, 5, 6})}, 4, 4, {1, 2, 3, 4}, announces},
        {{read_turn(4, 0x100, 4, {})}, 4, 0, none, announces},
        {{{read_turn(4, 0x100, 0, {}).request, framed(packet(4, le32(3) + le32(0) + le32(4)))}}, 4, 0, none, announces},
    };
    for (const auto& row : rows) {
        bytes.assign(row.size, 0xEE);
        expect(
            row.turns, [&] { return efs2_read_file(3, bytes, 0x100); }, row.result, row.line);
        EXPECT_EQ(piece(bytes, 0, row.read.size()), row.read);
    }
}

Turn write_turn(uint32_t offset, const Bytes& data, uint32_t written)
{
    return {packet(5, le32(3) + le32(offset) + data),
            framed(packet(5, le32(3) + le32(offset) + le32(written) + le32(0)))};
}

TEST_F(Efs2, WritesInPiecesAndGoesOnWhereTheModemStopped)
{
    const Bytes file = counting(5000);
    const auto write = [&] { return efs2_write_file(3, file, 8); };
    const Turn first = write_turn(8, piece(file, 0, 2036), 2036);
    expect(
        {first, write_turn(2044, piece(file, 2036, 2036), 2000), write_turn(4044, piece(file, 4036, 964), 0xFFFFFFFF)},
        write, 5000);
    expect({first, write_turn(2044, piece(file, 2036, 2036), 0)}, write, -1,
           error("Modem takes none of 2036 bytes to write"));
}

// Of a file that is not there, or a reply that ends before the size, nothing is told.
TEST_F(Efs2, TellsOfFilesAsFarAsTheReplyGoes)
{
    const auto stat = [&](const Bytes& fields, int32_t result, const std::string& line) {
        expect(
            {{packet(15, text("/c")), framed(packet(15, fields))}}, [&] { return efs2_stat("/c", &status); }, result,
            line);
        return le32(status.mode) + le32(status.size) + le32(status.link_count) + le32(status.atime) +
               le32(status.mtime);
    };
    EXPECT_EQ(stat(le32(0) + counting(20), 0, ""), counting(20));
    EXPECT_EQ(stat(le32(2) + Bytes(20, 9), -1, error("No such file or directory")), counting(20)) << "as it was";
    EXPECT_EQ(stat(le32(0) + counting(7), -1, error("EFS2 STAT response is cut: 15 bytes")), counting(20));
    EXPECT_EQ(stat(le32(0) + counting(9), 0, ""), counting(9) + Bytes(11));

    const auto name_in = [&](const Bytes& fields) {
        expect(
            {{packet(12, le32(9) + le32(2)), framed(packet(12, fields))}},
            [&] { return efs2_read_dir(9, entry, entry_number); }, 0);
        return entry.name;
    };
    const Bytes start = le32(9) + le32(2) + le32(0) + counting(24);
    EXPECT_EQ(name_in(start + text("name") + text("x")), "name");
    EXPECT_EQ(le32(entry.type) + le32(entry.mode) + le32(entry.size) + le32(entry.atime) + le32(entry.mtime) +
                  le32(entry.ctime),
              counting(24));
    EXPECT_EQ(name_in(start + Bytes{'a', 'b'}), "ab");
    EXPECT_EQ(name_in(start + Bytes(3000, 'z')), std::string(2048 - 40, 'z'));
    EXPECT_EQ(name_in(le32(9) + le32(3)), "");
    EXPECT_EQ(entry.type, 0U);
    EXPECT_EQ(entry_number, 3U);
}

// What the reply carries, as far as there is room, and its number unless the modem refuses; and of silence nothing,
// although the reply to an earlier request is still in the buffer.
TEST_F(Efs2, GetsAndPutsWholeFiles)
{
    const auto get = [&](const Bytes& reply, int32_t result, const std::string& line) {
        bytes.assign(16, 0xEE);
        got = std::span(bytes).first(8);
        const Bytes request = packet(39, le32(8) + le32(0) + le16(sequence) + text("/nv"));
        expect(
            {{request, framed(reply)}}, [&] { return efs2_get_file("/nv", got, sequence); }, result, line);
        return Bytes(got.begin(), got.end());
    };
    const auto reply = [](uint32_t count, uint32_t error, uint16_t number, const Bytes& data) {
        return packet(39, le32(count) + le32(error) + le16(number) + data);
    };
    EXPECT_EQ(get(reply(3, 0, 0x1FF, {7, 8, 9, 10}), 3, ""), (Bytes{7, 8, 9}));
    EXPECT_EQ(get(reply(0xFFFFFFFF, 0, 0x1FF, {7}), 1, "announces 4294967295 bytes, 1 taken"), Bytes{7});
    EXPECT_EQ(get(reply(16, 0, 0x1FF, counting(16)), 8, "Response announces 16 bytes, 8 taken"), counting(8));
    EXPECT_EQ(bytes[8], 0xEE) << "behind the room";
    EXPECT_EQ(get(reply(8, 0x12F, 7, counting(8)), -1, error("Not an EFS2 item file.")), Bytes{});
    EXPECT_EQ(get(packet(40, counting(8)), exchange_timed_out, "Timeout!"), Bytes{});
    EXPECT_THAT(bytes, testing::Each(0xEE));
    EXPECT_EQ(sequence, 0x1FF);
    EXPECT_EQ(get(reply(1, 0, 7, {1}), 1, "W RIL_TESSEL: Seq number is not matched: in - 511, out - 7\n"), Bytes{1});

    const auto put = [&] { return efs2_put_file("/d", {}, 1, sequence); };
    const Bytes request = packet(38, le32(0) + le32(1) + le16(7) + text("/d"));
    expect({{request, framed(packet(38, le16(9) + le32(13)))}}, put, -1, error("Permission denied."));
    EXPECT_EQ(sequence, 7);
    expect({{request, framed(packet(38, le16(0xFFFF) + le32(0)))}}, put, 0, "in - 7, out - 65535");
    EXPECT_EQ(sequence, 0xFFFF);
    expect(
        {{packet(2, le32(0) + le32(0x100) + text("/a")), {}}}, [] { return efs2_open_file("/a", 0, 0x100); },
        -exchange_timed_out, "W RIL_TESSEL: EFS2 OPEN DIAG command failure: 71\n");
}

// A request that just fits goes out; one more byte, and nothing does.
TEST_F(Efs2, RefusesRequestsBeyondTheBuffer)
{
    const std::string longest(2048 - 4 - 1, '~'), path = longest + '~';
    const Bytes most(2048 - 14 - 3, 0x7D);
    expect(
        {{packet(8, text(longest)), framed(packet(8, le32(0)))}}, [&] { return efs2_remove(longest); }, 0);
    expect(
        {{packet(38, le32(2031) + le32(1) + le16(0x1FF) + most + text("/d")),
          framed(packet(38, le16(0x1FF) + le32(0)))}},
        [&] { return efs2_put_file("/d", most, 1, sequence); }, 0);

    got = std::span(bytes);
    const Operation refused[] = {
        [&] { return efs2_remove(path); },
        [&] { return efs2_open_dir(path); },
        [&] { return efs2_stat(path, nullptr); },
        [&] { return efs2_open_file(path, 0, 0); },
        [&] { return efs2_get_file(path, got, sequence); },
        [&] { return efs2_put_file("/de", most, 1, sequence); },
        [&] { return efs2_put_file("/d", Bytes(65535), 1, sequence); },
    };
    for (const Operation& run : refused)
        expect({}, run, -1, error("EFS2 request is too long: "));
}

TEST(Efs2Texts, NumbersAndTypesAreNamed)
{
    const std::pair<uint32_t, const char*> errors[] = {
        {0, "Operation success"},
        {304, "Rollback failed while backing orig file"},
        {0x8000, "End of file. Internal error code"},
        {0x4000000C, "EFS2 diag - unavailable info"},
        {7, "Unknown error code"},
        {0x4000000D, "Unknown error code"},
        {0xFFFFFFFF, "Unknown error code"},
    };
    for (const auto& [number, name] : errors) {
        CaptureStderr();
        display_err_msg(number);
        EXPECT_EQ(GetCapturedStderr(), "radio " + error(name) + "\n");
    }
    // By type, then by mode.
    const std::pair<Efs2DirEntry, std::string_view> types[] = {
        {{0, 0xE1FF, 0, 0, 0, 0, {}}, "Regular file"},
        {{3, 0, 0, 0, 0, 0, {}}, "Immovable file"},
        {{4, 0xE000, 0, 0, 0, 0, {}}, "Item file"},
        {{7, 0xE1FF, 0, 0, 0, 0, {}}, "Item file"},
        {{0xFFFFFFFF, 0x81FF, 0, 0, 0, 0, {}}, "Unknown file type"},
    };
    for (const auto& [type, name] : types)
        EXPECT_EQ(efs2_get_dir_entry_type(type), name);
}

} // namespace
