#include "crashdump/efs2.h"

#include "diag/exchange.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "tests/unit/pty_peer.h"

#include <algorithm>
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

std::string error_line(const std::string& line)
{
    return "radio E RIL_TESSEL: " + line + "\n";
}

// A request as it must be, and what the modem sends when it has come.
struct Turn {
    Bytes request;
    Bytes wire;
};

class Efs2 : public testing::Test {
protected:
    void SetUp() override { OpenSerialPort(peer.path()); }
    void TearDown() override
    {
        efs2_set_verbose(0);
        pktio_shutdown();
    }

    // Runs `operation` against a modem that takes these turns; its log is in `log` then.
    int32_t against(const std::vector<Turn>& turns, const std::function<int32_t()>& operation)
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
        const int32_t result = operation();
        modem.join();
        log = GetCapturedStderr();
        EXPECT_EQ(received, expected);
        return result;
    }

    int32_t read(const std::vector<Turn>& turns, size_t size)
    {
        bytes.assign(size, 0xEE);
        return against(turns, [&] { return efs2_read_file(3, bytes, 0x100); });
    }
    int32_t get(const Bytes& reply)
    {
        bytes.assign(16, 0xEE);
        got = std::span(bytes).first(8);
        return against({{get_request, framed(reply)}}, [&] { return efs2_get_file("/nv", got, sequence); });
    }
    [[nodiscard]] Bytes received() const { return {got.begin(), got.end()}; }

    PtyPeer peer;
    std::string log;
    Bytes bytes;
    std::span<uint8_t> got;
    uint16_t sequence = 0x1FF;
    uint32_t entry_number = 2;
    Efs2Stat status{};
    Efs2DirEntry entry{};
    const Bytes get_request = packet(39, le32(8) + le32(0) + le16(0x1FF) + text("/nv"));
};

// Each operation: its request to the byte, a good reply, one that refuses, and one without any field.
TEST_F(Efs2, OperationsAskAndJudge)
{
    struct Case {
        const char* name;
        std::function<int32_t()> run;
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
        EXPECT_EQ(against({{row.request, framed(row.reply)}}, row.run), row.result);
        EXPECT_EQ(log, "");

        Bytes refusal = row.reply;
        refusal.at(row.error_at + 3) = 0x40;
        refusal.at(row.error_at) = 2;
        EXPECT_EQ(against({{row.request, framed(refusal)}}, row.run), -1);
        EXPECT_EQ(log, error_line("EFS2 diag - invalid seq no"));

        EXPECT_EQ(against({{row.request, framed(packet(row.reply[2], {}))}}, row.run), 0);
        sequence = 0x1FF;
        entry_number = 2;
    }
}

// Noise, another command's reply, an empty frame, the start of a header, and a refusal of the transport's own.
TEST_F(Efs2, SkipsWhatIsNoReply)
{
    const Bytes noise = framed({0x7E, 1, 2, 3}) + framed(packet(4, le32(0))) + framed({}) + framed({0x4B, 0x13}) +
                        framed({0x4B, 0x13, 3}) + framed({0x13, 0x4B, 0x13, 3, 0}) + framed({0x4B, 0x13, 3, 1});
    EXPECT_EQ(against({{packet(3, le32(5)), noise + framed(packet(3, le32(0)))}}, [] { return efs2_close_file(5); }),
              0);
    EXPECT_EQ(log, "");
}

TEST_F(Efs2, HandshakeShowsWhatTheModemTells)
{
    efs2_set_verbose(1);
    // The two bytes are the start of a hello, whose command is zero.
    const Turn hello = {packet(0, Bytes(40)), framed({0x4B, 0x13}) + framed(packet(0, counting(40)))};
    const Turn query = {packet(1, {}), framed(packet(1, le32(255) + le32(0xFFFFFFFF) + Bytes{8}))};
    EXPECT_EQ(against({hello, query}, efs2_init), 1);
    EXPECT_EQ(s_efs2_initialzed, 1);
    EXPECT_THAT(log, HasSubstr("I RIL_TESSEL: EFS2 Hello packet: \n"));
    EXPECT_THAT(log, HasSubstr("\ttarg_pkt_window : 0x04030201\n"));
    EXPECT_THAT(log, HasSubstr("\tversion         : 0x1c1b1a19\n"));
    EXPECT_THAT(log, HasSubstr("\tfeature_bits    : 0x28272625\n"));
    EXPECT_THAT(log, HasSubstr("\tmax_name       : 255\n"));
    EXPECT_THAT(log, HasSubstr("\tmax_path       : -1\n"));
    EXPECT_THAT(log, HasSubstr("\tmax_link_depth : 8\n"));
    EXPECT_THAT(log, HasSubstr("\tmax_mounts     : 0\n"));

    // What the last query told is not told again for one that tells nothing.
    EXPECT_EQ(against({hello, {query.request, framed(query.request)}}, efs2_init), 1);
    EXPECT_THAT(log, HasSubstr("\tmax_name       : 0\n"));

    efs2_set_verbose(0);
    EXPECT_EQ(against({hello, query}, efs2_init), 1);
    EXPECT_EQ(log, "");
}

Bytes read_request(uint32_t count, uint32_t offset)
{
    return packet(4, le32(3) + le32(count) + le32(offset));
}

Bytes read_reply(uint32_t count, const Bytes& data, uint32_t error = 0)
{
    return framed(packet(4, le32(3) + le32(0) + le32(count) + le32(error) + data));
}

TEST_F(Efs2, ReadsInPieces)
{
    const Bytes file = counting(5000);
    const Turn first = {read_request(2028, 0x100), read_reply(2028, piece(file, 0, 2028))};
    const Turn second = {read_request(2028, 0x100 + 2028), read_reply(2028, piece(file, 2028, 2028))};
    const Turn third = {read_request(944, 0x100 + 4056), read_reply(944, piece(file, 4056, 944))};
    EXPECT_EQ(read({first, second, third}, 5000), 5000);
    EXPECT_EQ(bytes, file);

    EXPECT_EQ(read({first, {second.request, read_reply(5, {1, 2, 3, 4, 5})}}, 5000), 2033) << "the file's end";
    EXPECT_EQ(bytes[2032], 5);
    EXPECT_EQ(bytes[2033], 0xEE);

    EXPECT_EQ(read({first, {second.request, read_reply(5, {1, 2, 3, 4, 5}, 9)}}, 5000), -1);
    EXPECT_EQ(log, error_line("Bad file descriptor"));
}

// A modem that announces more than it sends, sends more than was asked for, or counts its bytes and sends none.
TEST_F(Efs2, ReadsNoMoreThanThereIs)
{
    const struct {
        Bytes reply;
        int32_t result;
        Bytes read;
    } cases[] = {
        {read_reply(0xFFFFFFFF, {1, 2}), 2, {1, 2, 0xEE, 0xEE}},
        {read_reply(6, {1, 2, 3, 4, 5, 6}), 4, {1, 2, 3, 4}},
        {read_reply(4, {}), 0, {0xEE, 0xEE, 0xEE, 0xEE}},
        {framed(packet(4, le32(3) + le32(0) + le32(4))), 0, {0xEE, 0xEE, 0xEE, 0xEE}},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(read({{read_request(4, 0x100), row.reply}}, 4), row.result);
        EXPECT_EQ(bytes, row.read);
        EXPECT_THAT(log, HasSubstr("W RIL_TESSEL: Response announces "));
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
    EXPECT_EQ(against({first, write_turn(2044, piece(file, 2036, 2036), 2000),
                       write_turn(4044, piece(file, 4036, 964), 0xFFFFFFFF)},
                      write),
              5000);
    EXPECT_EQ(log, "");

    EXPECT_EQ(against({first, write_turn(2044, piece(file, 2036, 2036), 0)}, write), -1);
    EXPECT_EQ(log, error_line("Modem takes none of 2036 bytes to write"));
}

TEST_F(Efs2, StatTellsOnlyOfFilesThatAreThere)
{
    const auto stat = [&] { return efs2_stat("/c", &status); };
    const Bytes request = packet(15, text("/c"));
    const Bytes fields = counting(20);
    EXPECT_EQ(against({{request, framed(packet(15, le32(0) + fields))}}, stat), 0);
    EXPECT_EQ(le32(status.mode) + le32(status.size) + le32(status.link_count) + le32(status.atime) + le32(status.mtime),
              fields);
    EXPECT_EQ(against({{request, framed(packet(15, le32(2) + Bytes(20, 9)))}}, stat), -1);
    EXPECT_EQ(log, error_line("No such file or directory"));
    EXPECT_EQ(status.mtime, 0x14131211U) << "as it was";
    EXPECT_EQ(against({{request, framed(packet(15, le32(0) + Bytes{7, 1}))}}, stat), 0);
    EXPECT_EQ(status.mode, 0x107U);
    EXPECT_EQ(status.mtime, 0U);
}

TEST_F(Efs2, EntryNamesEndWhereTheReplyEnds)
{
    const auto read_dir = [&] { return efs2_read_dir(9, entry, entry_number); };
    const Bytes start = le32(9) + le32(2) + le32(0) + counting(24);
    const Bytes request = packet(12, le32(9) + le32(2));
    EXPECT_EQ(against({{request, framed(packet(12, start + text("name") + text("x")))}}, read_dir), 0);
    EXPECT_EQ(entry.name, "name");
    EXPECT_EQ(le32(entry.type) + le32(entry.mode) + le32(entry.size) + le32(entry.atime) + le32(entry.mtime) +
                  le32(entry.ctime),
              counting(24));
    EXPECT_EQ(against({{request, framed(packet(12, start + Bytes{'a', 'b'}))}}, read_dir), 0);
    EXPECT_EQ(entry.name, "ab");
    EXPECT_EQ(against({{request, framed(packet(12, start + Bytes(3000, 'z')))}}, read_dir), 0);
    EXPECT_EQ(entry.name, std::string(2048 - 40, 'z'));
    EXPECT_EQ(against({{request, framed(packet(12, le32(9) + le32(3)))}}, read_dir), 0);
    EXPECT_EQ(entry.name, "");
    EXPECT_EQ(entry.type, 0U);
    EXPECT_EQ(entry_number, 3U);
}

Bytes get_reply(uint32_t count, uint32_t error, uint16_t sequence, const Bytes& data)
{
    return packet(39, le32(count) + le32(error) + le16(sequence) + data);
}

TEST_F(Efs2, GetHandsOutWhatTheReplyCarries)
{
    EXPECT_EQ(get(get_reply(3, 0, 0x1FF, {7, 8, 9, 10})), 3);
    EXPECT_EQ(received(), (Bytes{7, 8, 9}));
    EXPECT_EQ(log, "");
    EXPECT_EQ(get(get_reply(0xFFFFFFFF, 0, 0x1FF, {7})), 1);
    EXPECT_EQ(received(), Bytes{7});
    EXPECT_EQ(get(get_reply(16, 0, 0x1FF, counting(16))), 8);
    EXPECT_EQ(received(), counting(8));
    EXPECT_EQ(bytes[8], 0xEE) << "behind the room";
    EXPECT_THAT(log, HasSubstr("Response announces 16 bytes, 8 taken"));
    EXPECT_EQ(get(get_reply(8, 0x12F, 0x1FF, counting(8))), -1);
    EXPECT_EQ(log, error_line("Not an EFS2 item file."));
    EXPECT_TRUE(got.empty());
}

TEST_F(Efs2, AnotherSequenceNumberIsAdoptedUnlessTheModemRefuses)
{
    EXPECT_EQ(get(get_reply(1, 0x40000002, 7, {1})), -1);
    EXPECT_EQ(log, error_line("EFS2 diag - invalid seq no"));
    EXPECT_EQ(sequence, 0x1FF);
    EXPECT_EQ(get(get_reply(1, 0, 7, {1})), 1);
    EXPECT_EQ(log, "radio W RIL_TESSEL: Seq number is not matched: in - 511, out - 7\n");
    EXPECT_EQ(sequence, 7);

    const auto put = [&] { return efs2_put_file("/d", {}, 1, sequence); };
    const Bytes request = packet(38, le32(0) + le32(1) + le16(7) + text("/d"));
    EXPECT_EQ(against({{request, framed(packet(38, le16(9) + le32(13)))}}, put), -1);
    EXPECT_EQ(sequence, 7);
    EXPECT_EQ(against({{request, framed(packet(38, le16(0xFFFF) + le32(0)))}}, put), 0);
    EXPECT_EQ(sequence, 0xFFFF);
    EXPECT_THAT(log, HasSubstr("in - 7, out - 65535"));
}

// A request that just fits goes out; one more byte, and nothing does.
TEST_F(Efs2, RefusesRequestsBeyondTheBuffer)
{
    const std::string longest(2048 - 4 - 1, '~');
    EXPECT_EQ(against({{packet(8, text(longest)), framed(packet(8, le32(0)))}}, [&] { return efs2_remove(longest); }),
              0);
    const Bytes most(2048 - 14 - 3, 0x7D);
    EXPECT_EQ(against({{packet(38, le32(2031) + le32(1) + le16(0x1FF) + most + text("/d")),
                        framed(packet(38, le16(0x1FF) + le32(0)))}},
                      [&] { return efs2_put_file("/d", most, 1, sequence); }),
              0);

    got = std::span(bytes);
    const std::string path = longest + '~';
    const std::function<int32_t()> refused[] = {
        [&] { return efs2_remove(path); },
        [&] { return efs2_open_dir(path); },
        [&] { return efs2_stat(path, nullptr); },
        [&] { return efs2_open_file(path, 0, 0); },
        [&] { return efs2_get_file(path, got, sequence); },
        [&] { return efs2_put_file("/de", most, 1, sequence); },
        [&] { return efs2_put_file("/d", Bytes(65535), 1, sequence); },
    };
    for (const auto& run : refused) {
        EXPECT_EQ(against({}, run), -1);
        EXPECT_THAT(log, HasSubstr("E RIL_TESSEL: EFS2 request is too long: "));
    }
}

// The reply to an earlier request does not come back as the answer to one that got none.
TEST_F(Efs2, SilenceHandsOutNothing)
{
    EXPECT_EQ(get(get_reply(8, 0, 0x1FF, counting(8))), 8);
    EXPECT_EQ(get(packet(40, counting(8))), exchange_timed_out);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(sequence, 0x1FF);
    EXPECT_THAT(bytes, testing::Each(0xEE));
    EXPECT_EQ(
        against({{packet(2, le32(0) + le32(0x100) + text("/a")), {}}}, [] { return efs2_open_file("/a", 0, 0x100); }),
        -exchange_timed_out);
    EXPECT_THAT(log, HasSubstr("W RIL_TESSEL: EFS2 OPEN DIAG command failure: 71\n"));
}

TEST(Efs2Texts, ErrorNumbersAreFoundByHalves)
{
    CaptureStderr();
    for (const uint32_t number : {0U, 304U, 0x8000U, 0x4000000CU, 7U, 0x4000000DU, 0xFFFFFFFFU})
        display_err_msg(number);
    const std::string unknown = error_line("Unknown error code");
    EXPECT_EQ(GetCapturedStderr(), error_line("Operation success") +
                                       error_line("Rollback failed while backing orig file") +
                                       error_line("End of file. Internal error code") +
                                       error_line("EFS2 diag - unavailable info") + unknown + unknown + unknown);
}

TEST(Efs2Texts, EntriesAreNamedByTypeThenByMode)
{
    const auto named = [](uint32_t type, uint32_t mode) {
        return std::string_view(efs2_get_dir_entry_type({type, mode, 0, 0, 0, 0, {}}));
    };
    EXPECT_EQ(named(0, 0xE1FF), "Regular file");
    EXPECT_EQ(named(3, 0), "Immovable file");
    EXPECT_EQ(named(4, 0xE000), "Item file");
    EXPECT_EQ(named(7, 0xE1FF), "Item file");
    EXPECT_EQ(named(0xFFFFFFFF, 0x81FF), "Unknown file type");
}

} // namespace
