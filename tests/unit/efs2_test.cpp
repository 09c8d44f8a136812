#include "crashdump/efs2.h"
#include "crashdump/efs2_exchange.h"

#include "diag/exchange.h"
#include "diag/pktio.h"
#include "diag/serial_port.h"
#include "tests/unit/pty_peer.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>

using testing::HasSubstr;

namespace {

using Operation = std::function<int32_t()>;

// A request as it must be, and what the modem sends when it has come.
struct Turn {
    Bytes request, wire;
};

class Efs2 : public testing::Test {
protected:
    void SetUp() override
    {
        OpenSerialPort(peer.path());
        efs2_forget_firmware();
    }
    void TearDown() override { pktio_shutdown(); }

    // Runs `operation` against a modem that takes these turns. Its log is in `log` then, with `line` in it, or empty.
    void expect(const std::vector<Turn>& turns, int32_t result, const std::string& line, const Operation& operation)
    {
        testing::internal::CaptureStderr();
        std::thread modem([&] {
            for (const Turn& turn : turns) {
                const Bytes frame = framed(turn.request);
                const Bytes request = frame.size() % 64 != 0 ? frame : frame + Bytes{0x7E};
                EXPECT_EQ(peer.receive(request.size()), request);
                peer.send(turn.wire);
            }
        });
        EXPECT_EQ(operation(), result);
        modem.join();
        log = testing::internal::GetCapturedStderr();
        EXPECT_THAT(log, HasSubstr(line));
        EXPECT_EQ(log.empty(), line.empty()) << log;
    }

    static Bytes le16(uint32_t n) { return {static_cast<uint8_t>(n & 0xFF), static_cast<uint8_t>(n >> 8 & 0xFF)}; }
    static Bytes le32(uint32_t number) { return le16(number & 0xFFFF) + le16(number >> 16); }
    static Bytes text(const std::string& path) { return Bytes(path.begin(), path.end()) + Bytes{0}; }
    static Bytes packet(uint8_t command, const Bytes& fields) { return Bytes{0x4B, 0x13, command, 0} + fields; }
    static std::string error(const std::string& text) { return "radio E RIL_TESSEL: " + text + "\n"; }
    static Bytes piece(const Bytes& of, size_t at, size_t size) { return {of.data() + at, of.data() + at + size}; }
    static Bytes counting(size_t size)
    {
        Bytes numbers(size);
        std::iota(numbers.begin(), numbers.end(), uint8_t{1});
        return numbers;
    }
    // By the fields of request and reply.
    static Turn turn(uint8_t command, const Bytes& request, const Bytes& reply)
    {
        return {packet(command, request), framed(packet(command, reply))};
    }
    static Turn read_turn(uint32_t count, uint32_t offset, uint32_t announced, const Bytes& data, uint32_t error = 0)
    {
        return turn(4, le32(3) + le32(count) + le32(offset),
                    le32(3) + le32(offset) + le32(announced) + le32(error) + data);
    }
    static Turn write_turn(uint32_t offset, const Bytes& data, uint32_t written)
    {
        return turn(5, le32(3) + le32(offset) + data, le32(3) + le32(offset) + le32(written) + le32(0));
    }

    PtyPeer peer;
    std::string log;
    Bytes bytes = Bytes(16, 0xEE);
    uint16_t sequence = 0x1FF;
    uint32_t entry_number = 2;
    Efs2Stat status{};
    Efs2DirEntry entry{};
};

// Each operation: its request to the byte, a good reply behind what is none, one that refuses, and one that is cut.
TEST_F(Efs2, OperationsAskAndJudge)
{
    const Bytes put_data = {0x7E, 0, 0x7D};
    const struct {
        uint8_t command;
        Bytes request, reply; // their fields; a reply's last one is the error number
        int32_t result;
        Operation run;
    } rows[] = {
        {2, le32(0x241) + le32(0666) + text("/a"), le32(0x80) + le32(0), 0x80,
         [] { return efs2_open_file("/a", 0x241, 0666); }},
        {3, le32(0xFFFFFFFE), le32(0), 0, [] { return efs2_close_file(-2); }},
        {8, text("/b"), le32(0), 0, [] { return efs2_remove("/b"); }},
        {11, text(""), le32(9) + le32(0), 9, [] { return efs2_open_dir(""); }},
        {13, le32(9), le32(0), 0, [] { return efs2_close_dir(9); }},
        {15, text("/c"), le32(0), 0, [] { return efs2_stat("/c", nullptr); }},
        {38, le32(3) + le32(0x80040) + le16(0x1FF) + put_data + text("/d"), le16(0x1FF) + le32(0), 0,
         [&] { return efs2_put_file("/d", put_data, 0x80040, sequence); }},
        {4, le32(3) + le32(0) + le32(8), le32(3) + le32(8) + le32(0) + le32(0), 0,
         [] { return efs2_read_file(3, {}, 8); }},
        {5, le32(3) + le32(7), le32(3) + le32(7) + le32(0) + le32(0), 0, [] { return efs2_write_file(3, {}, 7); }},
        {12, le32(9) + le32(2), le32(9) + le32(2) + le32(0), 0, [&] { return efs2_read_dir(9, entry, entry_number); }},
    };
    for (const auto& [command, fields, reply, result, run] : rows) {
        SCOPED_TRACE(int{command});
        const Bytes noise = framed({0x7E, 1, 2, 3}) + framed(packet(9, le32(0))) + framed({}) + framed({0x4B, 0x13}) +
                            framed({0x4B, 0x13, command}) + framed({0x13, 0x4B, 0x13, command, 0}) +
                            framed({0x4B, 0x13, command, 1});
        expect({{packet(command, fields), noise + framed(packet(command, reply))}}, result, "", run);
        Bytes refusal = reply;
        *(refusal.end() - 1) = 0x40;
        *(refusal.end() - 4) = 2;
        expect({turn(command, fields, refusal)}, -1, error("EFS2 diag - invalid seq no"), run);
        expect({turn(command, fields, {reply.begin(), reply.end() - 1})}, -1,
               error("EFS2 response is cut: " + std::to_string(4 + reply.size() - 1) + " bytes"), run);
        entry_number = 2;
    }
}

TEST_F(Efs2, HandshakeShowsWhatTheModemTells)
{
    // The two bytes are the start of a hello, whose command is zero.
    const Turn hello = {packet(0, Bytes(40)), framed({0x4B, 0x13}) + framed(packet(0, counting(40)))};
    const Turn query = turn(1, {}, le32(255) + le32(0xFFFFFFFF) + Bytes{8});
    expect({hello, query}, 1, "", efs2_init);
    EXPECT_EQ(s_efs2_initialzed, 1);
    efs2_set_verbose(1);
    expect({hello, query}, 1, "I RIL_TESSEL: EFS2 Hello packet: \n", efs2_init);
    for (const char* line : {"\ttarg_pkt_window : 0x04030201\n", "\tfeature_bits    : 0x28272625\n",
                             "\tmax_name       : 255\n", "\tmax_path       : -1\n", "\tmax_link_depth : 8\n"})
        EXPECT_THAT(log, HasSubstr(line));
    // What the last query told is not told again for one that tells nothing.
    expect({hello, turn(1, {}, {})}, 1, "\tmax_name       : 0\n", efs2_init);
    efs2_set_verbose(0);
}

// In pieces, up to the file's end or a refusal; of a modem that announces more than it sends, or sends more than it was
// asked for, no more than there is; and from where it stopped.
TEST_F(Efs2, ReadsAndWritesInPieces)
{
    const Bytes file = counting(5000), none(4, 0xEE);
    const auto read = [&](const std::vector<Turn>& turns, size_t size, int32_t result, const std::string& line) {
        bytes.assign(size, 0xEE);
        expect(turns, result, line, [&] { return efs2_read_file(3, bytes, 0x100); });
        return bytes;
    };
    const Turn first = read_turn(2028, 0x100, 2028, piece(file, 0, 2028)),
               second = read_turn(2028, 0x8EC, 2028, piece(file, 2028, 2028)),
               third = read_turn(944, 0x10D8, 944, piece(file, 4056, 944)),
               cut = turn(4, le32(3) + le32(4) + le32(0x100), le32(3) + le32(0x100) + le32(4) + le32(0));
    EXPECT_EQ(read({first, second, third}, 5000, 5000, ""), file);
    EXPECT_EQ(read({first, read_turn(2028, 0x8EC, 1, {5})}, 5000, 2029, ""),
              piece(file, 0, 2028) + Bytes{5} + Bytes(2971, 0xEE));
    (void)read({first, read_turn(2028, 0x8EC, 1, {5}, 7)}, 5000, -1, error("Unknown error code"));
    const std::string announces = "W RIL_TESSEL: Response announces ";
    EXPECT_EQ(read({read_turn(4, 0x100, 0xFFFFFFFF, {1, 2})}, 4, 2, announces), (Bytes{1, 2, 0xEE, 0xEE}));
    EXPECT_EQ(read({read_turn(4, 0x100, 6, {1, 2, 3, 4, 5, 6})}, 4, 4, announces), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(read({cut}, 4, 0, announces), none);

    const auto write = [&] { return efs2_write_file(3, file, 8); };
    const Turn full = write_turn(8, piece(file, 0, 2036), 2036), last = write_turn(4044, piece(file, 4036, 964), ~0U);
    expect({full, write_turn(2044, piece(file, 2036, 2036), 2000), last}, 5000, "", write);
    const std::string takes_none = error("Modem takes none of 2036 bytes to write");
    expect({full, write_turn(2044, piece(file, 2036, 2036), 0)}, -1, takes_none, write);
}

// Of a file that is not there, or a reply that ends before the size, nothing is told.
TEST_F(Efs2, TellsOfFilesAsFarAsTheReplyGoes)
{
    const auto stat = [&](const Bytes& fields, int32_t result, const std::string& line) {
        expect({turn(15, text("/c"), fields)}, result, line, [&] { return efs2_stat("/c", &status); });
        const auto& [mode, size, link_count, atime, mtime] = status;
        return le32(mode) + le32(size) + le32(link_count) + le32(atime) + le32(mtime);
    };
    EXPECT_EQ(stat(le32(0) + counting(20), 0, ""), counting(20));
    EXPECT_EQ(stat(le32(0xFFFFFFFF) + Bytes(20, 9), -1, error("Unknown error code")), counting(20)) << "as it was";
    EXPECT_EQ(stat(le32(0) + counting(7), -1, error("EFS2 STAT response is cut: 15 bytes")), counting(20));
    EXPECT_EQ(stat(le32(0) + counting(8), 0, ""), counting(8) + Bytes(12));

    const auto name_in = [&](const Bytes& fields) {
        expect({turn(12, le32(9) + le32(2), fields)}, 0, "", [&] { return efs2_read_dir(9, entry, entry_number); });
        return entry.name;
    };
    const Bytes start = le32(9) + le32(2) + le32(0) + counting(24);
    EXPECT_EQ(name_in(start + text("name") + text("x")), "name");
    const auto& [type, mode, size, atime, mtime, ctime, name] = entry;
    EXPECT_EQ(le32(type) + le32(mode) + le32(size) + le32(atime) + le32(mtime) + le32(ctime), counting(24));
    EXPECT_EQ(name_in(start + Bytes{'a', 'b'}), "ab");
    EXPECT_EQ(name_in(start + Bytes(3000, 'z')), std::string(2048 - 40, 'z'));
    EXPECT_EQ(name_in(le32(9) + le32(3) + le32(0)), "");
    EXPECT_EQ(entry_number, 3U);
    std::string names; // by type, then by mode
    for (const auto& [of, bits] : {std::pair(0U, 0xE1FFU), {3U, 0U}, {4U, 0xE000U}, {0xFFFFFFFFU, 0x81FFU}})
        names += std::string(efs2_get_dir_entry_type({of, bits, 0, 0, 0, 0, {}})) + ",";
    EXPECT_EQ(names, "Regular file,Immovable file,Item file,Unknown file type,");
}

// What the reply carries, as far as there is room, and its number unless the modem refuses; and of silence nothing,
// although the reply to an earlier request is still in the buffer.
TEST_F(Efs2, GetsAndPutsWholeFiles)
{
    const auto get = [&](const Bytes& reply, int32_t result, const std::string& line) {
        auto got = std::span(bytes).first(8);
        const Bytes request = packet(39, le32(8) + le32(0) + le16(sequence) + text("/nv"));
        expect({{request, framed(reply)}}, result, line, [&] { return efs2_get_file("/nv", got, sequence); });
        return Bytes(got.begin(), got.end());
    };
    expect({{packet(0, Bytes(40)), framed(packet(0, {}))}, turn(1, {}, {})}, 1, "", efs2_init);
    const Bytes good = le32(0) + le16(0x1FF);
    EXPECT_EQ(get(packet(39, le32(3) + good + Bytes{7, 8, 9, 10}), 3, ""), (Bytes{7, 8, 9}));
    EXPECT_EQ(get(packet(39, le32(0xFFFFFFFF) + good + Bytes{7}), 1, "announces 4294967295 bytes, 1 taken"), Bytes{7});
    EXPECT_EQ(get(packet(39, le32(16) + good + counting(16)), 8, "Response announces 16 bytes, 8 taken"), counting(8));
    EXPECT_EQ(bytes[8], 0xEE) << "behind the room";
    EXPECT_EQ(get(packet(39, le32(8) + le32(303) + le16(7) + counting(8)), -1, error("Not an EFS2 item file.")),
              Bytes{});
    EXPECT_EQ(get(packet(40, counting(8)), exchange_timed_out, "Timeout!"), Bytes{});
    EXPECT_EQ(sequence, 0x1FF);
    // What it was late with is not the reply to the next request.
    sequence = 0x200;
    auto got = std::span(bytes).first(8);
    expect({{packet(39, le32(8) + le32(0) + le16(0x200) + text("/nv")),
             framed(packet(39, le32(1) + good + Bytes{9})) +
                 framed(packet(39, le32(1) + le32(0) + le16(0x200) + Bytes{1}))}},
           1, "", [&] { return efs2_get_file("/nv", got, sequence); });
    EXPECT_EQ(got[0], 1);
    EXPECT_EQ(get(packet(39, le32(1) + le32(0) + le16(7) + Bytes{1}), 1, "not matched: in - 512, out - 7\n"), Bytes{1});

    const auto put = [&] { return efs2_put_file("/d", {}, 1, sequence); };
    const Bytes request = le32(0) + le32(1) + le16(7) + text("/d");
    expect({turn(38, request, le16(9) + le32(13))}, -1, error("Permission denied."), put);
    EXPECT_EQ(sequence, 7);
    const uint32_t strays = efs2_stray_replies();
    expect({turn(38, request, le16(0xFFFF) + le32(0))}, 0, "in - 7, out - 65535", put);
    EXPECT_EQ(sequence, 0xFFFF);
    EXPECT_EQ(efs2_stray_replies(), strays + 1);
    // Behind a lost reply, one with another number may be of a modem that counts for itself; then it is asked.
    const auto number = [](uint32_t n) { return le32(0) + le32(1) + le16(n) + text("/d"); };
    sequence = 9;
    expect({turn(38, number(9), le16(9) + le32(0))}, 0, "", put);
    expect({{packet(38, number(9)), {}}}, -exchange_timed_out, "Timeout!", put);
    expect({turn(38, number(9), le16(8) + le32(0))}, -exchange_timed_out, "Timeout!", put);
    expect({turn(1, {}, {}), turn(38, number(9), le16(8) + le32(0))}, 0, "in - 9, out - 8\n", put);
    expect({{packet(2, le32(0) + le32(0x100) + text("/a")), {}}}, -exchange_timed_out, "OPEN DIAG command failure: 71",
           [] { return efs2_open_file("/a", 0, 0x100); });
}

// A request that just fits goes out; one more byte, and nothing does.
TEST_F(Efs2, RefusesRequestsBeyondTheBuffer)
{
    const std::string path(2048 - 4, '~');
    const Bytes most(2048 - 14 - 3, 0x7D), put = le32(2031) + le32(1) + le16(0x1FF) + most + text("/d");
    auto got = std::span(bytes);
    expect({turn(38, put, le16(0x1FF) + le32(0))}, 0, "", [&] { return efs2_put_file("/d", most, 1, sequence); });
    for (const Operation& run : std::initializer_list<Operation>{
             [&] { return efs2_remove(path); }, [&] { return efs2_open_dir(path); },
             [&] { return efs2_stat(path, nullptr); }, [&] { return efs2_open_file(path, 0, 0); },
             [&] { return efs2_get_file(path, got, sequence); },
             [&] { return efs2_put_file("/de", most, 1, sequence); },
             [&] { return efs2_put_file("/d", Bytes(65535), 1, sequence); }})
        expect({}, -1, "E RIL_TESSEL: EFS2 request is too long: ", run);
}

// A late reply says nothing of the file that it came from: what is still to come is let pass before the next request of
// its kind. Without that, only a file is closed.
TEST_F(Efs2, TakesNoLateReplyForAnother)
{
    const Bytes hello = packet(0, Bytes(40)), query = packet(1, {}), greeting = framed(packet(0, {}));
    const Turn absent = turn(15, text("/a"), le32(2)), present = turn(15, text("/b"), le32(0)),
               closed = turn(3, le32(7), le32(0));
    const std::string not_there = error("No such file or directory");
    const auto stat = [](const char* path) { return [path] { return efs2_stat(path, nullptr); }; };
    const auto close = [] { return efs2_close_file(7); };
    expect({{hello, {}}}, 0, "Timeout!", efs2_init);
    expect({{absent.request, {}}}, -exchange_timed_out, "Timeout!", stat("/a"));
    // These are replies to hellos before, and the modem may still be busy with the stat in between. When it is silent
    // behind one, another was lost.
    expect({{hello, greeting}, {query, {}}}, 0, "Timeout!", efs2_init);
    uint32_t strays = efs2_stray_replies();
    // But it was not: the one before was of a hello before.
    expect({{hello, greeting}, {hello, absent.wire + greeting}, {present.request, greeting + present.wire}}, 0,
           "Timeout!", stat("/b"));
    EXPECT_EQ(efs2_stray_replies(), strays + 1);
    expect({{absent.request, {}}}, -exchange_timed_out, "Timeout!", stat("/a"));
    expect({{hello, {}}}, -exchange_timed_out, "Timeout!", stat("/b")); // it answers no queries
    expect({closed}, 0, "", close);                                     // a reply of its own: the others are lost
    expect({absent}, -1, not_there, stat("/a"));
    expect({{hello, greeting}, {query, framed(query)}}, 1, "", efs2_init);

    expect({{absent.request, {}}}, -exchange_timed_out, "Timeout!", stat("/a"));
    expect({}, 1, "", efs2_await_strays); // not of a modem that is silent
    strays = efs2_stray_replies();
    peer.send(absent.wire + absent.wire); // nobody is waiting when it comes, and again
    EXPECT_TRUE(peer.until([&] { return efs2_stray_replies() == strays + 1; }));
    expect({present}, 0, "", stat("/b"));
    EXPECT_EQ(efs2_stray_replies(), strays + 1);
    efs2_forget_firmware(); // of another one nothing was given up
    expect({{present.request, greeting + present.wire}}, 0, "", stat("/b"));
    EXPECT_EQ(efs2_stray_replies(), strays + 1);
}

// One is taken for that to the next request of its kind, and its own is too much then, whenever it comes.
TEST_F(Efs2, CountsRepliesThatNobodyAskedFor)
{
    const Turn absent = turn(15, text("/a"), le32(2)), present = turn(15, text("/b"), le32(0)), query = turn(1, {}, {});
    const auto stat = [](const char* path) { return [path] { return efs2_stat(path, nullptr); }; };
    const uint32_t strays = efs2_stray_replies();
    const auto await_strays = [&] {
        EXPECT_TRUE(efs2_await_strays());
        return static_cast<int32_t>(efs2_stray_replies() - strays);
    };
    const std::string not_there = error("No such file or directory");
    expect({{absent.request, absent.wire + absent.wire}}, -1, not_there, stat("/a"));
    EXPECT_TRUE(peer.until([&] { return efs2_stray_replies() == strays + 1; }));
    const Bytes greeting = framed(packet(0, {})); // tells of no file
    expect({{query.request, present.wire + query.wire + query.wire + greeting}}, 2, "", await_strays);
    expect({{present.request, framed(packet(64, {})) + absent.wire + present.wire}}, -1, not_there, stat("/b"));
    expect({query}, 3, "", await_strays);

    // What tells that it is about another place counts, too; in a put only of a modem that repeats numbers.
    const Turn read = read_turn(4, 0x100, 4, {1, 2, 3, 4}), write = write_turn(8, {5}, 1);
    bytes.assign(4, 0);
    expect({{read.request, read_turn(4, 0x104, 4, {1, 2, 3, 4}).wire}}, 4, "is for offset 260 of file 3, not for 256",
           [&] { return efs2_read_file(3, bytes, 0x100); });
    expect({{write.request, turn(5, {}, le32(4) + le32(8) + le32(1) + le32(0)).wire}}, 1,
           "Response is for offset 8 of file 4, not for 8 of 3\n", [] { return efs2_write_file(3, Bytes{5}, 8); });
    const auto put = [&](uint32_t asked, uint32_t told) {
        sequence = static_cast<uint16_t>(asked);
        expect({turn(38, le32(0) + le32(1) + le16(asked) + text("/d"), le16(told) + le32(0))}, 0,
               asked == told ? "" : "not matched", [&] { return efs2_put_file("/d", {}, 1, sequence); });
    };
    for (const auto& [asked, told] : {std::pair(0U, 0U), {9U, 8U}, {9U, 9U}})
        put(asked, told);
    expect({query}, 5, "", await_strays);
    put(9, 8);
    efs2_forget_firmware();
    put(9, 8);
    expect({query}, 6, "", await_strays);

    // Silence tells nothing of one that has greeted nobody.
    efs2_forget_firmware();
    expect({{absent.request, absent.wire}}, -1, not_there, stat("/a"));
    expect({{query.request, {}}, {packet(0, Bytes(40)), {}}}, 6, "Timeout!", await_strays);
    expect({{absent.request, absent.wire}}, -1, not_there, stat("/a"));
    expect({{packet(0, Bytes(40)), greeting}}, 6, "", await_strays); // it seems to ignore queries
    efs2_forget_firmware();
    expect({query}, 6, "", await_strays);
}

} // namespace
