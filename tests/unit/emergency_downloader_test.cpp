// Intel HEX: what a record does to the addresses, and every way a record can be wrong.
#include "wan_dloader/emergency_downloader.h"

#include "platform/os.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct Parsed {
    int32_t type;
    int32_t eof;
    std::vector<uint8_t> data;
    HexState state;
};

Parsed parse(std::string_view line, HexState state = {})
{
    Parsed parsed{0, -1, {0xEE}, state};
    parsed.type = ParseIntelHex(line, parsed.state, parsed.data, parsed.eof);
    return parsed;
}

constexpr uint32_t none = 0xFFFFFFFF;

TEST(IntelHex, ADataRecordGivesItsBytesAtTheAddressOfTheUpperHalfInForce)
{
    const Parsed parsed = parse(":02FFFE00aBcD00\r\n", {0, 0x2A00, none, none}); // its check sum is wrong
    EXPECT_EQ(parsed.type, 0);
    EXPECT_EQ(parsed.eof, 0);
    EXPECT_THAT(parsed.data, ElementsAre(0xAB, 0xCD));
    EXPECT_EQ(parsed.state.dlRAMAddress, 0x2A00FFFE);
}

TEST(IntelHex, TheFirstUpperHalfStaysTheSegmentToStartAt)
{
    HexState state = parse(":02000004002ADO").state;
    state = parse(":020000040BC000", state).state;
    EXPECT_EQ(state.dlRAMAddrMSW, 0x0BC0);
    EXPECT_EQ(state.dlRAMAddrStart, 0x002A);
    EXPECT_EQ(parse(":040000052A00000100", state).state.dlRAMAddrStart32, 0x2A000001);
}

TEST(IntelHex, OnlyTheEndRecordEndsTheFile)
{
    EXPECT_EQ(parse(":00000001FF").eof, 1);
    for (const char* line : {":020000021000EC", ":0400000300003800C1", ":020000040000FA", "", ";"})
        EXPECT_EQ(parse(line).eof, 0) << line;
}

TEST(IntelHex, ALineThatIsNoRecordIsSkipped)
{
    for (const char* line : {"", "\n", "\r\n", " :0000000000", "00000001FF"})
        EXPECT_EQ(parse(line).type, hex_no_record) << line;
}

// A record of `count` data bytes, then as many digits.
std::string data_record(const char* head, size_t digits)
{
    return head + std::string(digits, '5');
}

TEST(IntelHex, ARecordThatIsDamagedGivesNothing)
{
    const std::string damaged[] = {
        ":",
        ":0",
        ":1000000",
        ":0200000G0000",
        data_record(":20000000", 63),
        data_record(":21000000", 66),
        data_record(":FF000000", 510),
        ":02000000-1-1FF",
        ":02000000 5 5FF",
        std::string(":020000005\0000", 12),
        ":0200000400",
        ":0200000400G0FA",
        ":040000052A0000",
    };
    for (const std::string& line : damaged) {
        const Parsed parsed = parse(line);
        EXPECT_EQ(parsed.type, hex_damaged) << line;
        EXPECT_THAT(parsed.data, IsEmpty()) << line;
        EXPECT_EQ(parsed.state.dlRAMAddrStart & parsed.state.dlRAMAddrStart32, none) << line;
    }
    EXPECT_EQ(parse(data_record(":20000000", 64)).data.size(), hex_record_bytes) << "the longest there is";
}

TEST(IntelHexDeathTest, AnUnknownTypeEndsTheProcess)
{
    for (const char* line : {":0000000600", ":000000FF00"})
        EXPECT_EXIT((void)parse(line), testing::ExitedWithCode(69), "bad packet from the file") << line;
    EXPECT_EXIT((void)ParseUint("000000000", 9), testing::ExitedWithCode(1), "invalid length 9");
}

TEST(IntelHex, NumbersEndWhereTheirDigitsDo)
{
    EXPECT_EQ(ParseUint("FFFFFFFFF", 8), none);
    EXPECT_EQ(ParseUint("1g", 2), 1U);
    EXPECT_EQ(ParseUint("ab", 0), 0U);
    EXPECT_EQ(ParseUint("", 4), 0U);
}

} // namespace
