// The AT command applet on a real tty: what the modem gets, what a script sees.
#include "tests/e2e/tablet_fixture.h"

#include <ios>
#include <sstream>

using namespace std::string_literals;

namespace {

struct Exchange {
    const char* name;
    Texts faults;          // of the modem; commands count from 1, and ATE0 is one
    std::string arguments; // as a shell in /data reads them
    int status;
    std::string out;
    Texts errors;
    std::string sent; // the commands that the modem got, joined with "|"
};

Texts nine_times(const Texts& texts)
{
    Texts all;
    for (int i = 0; i < 9; ++i)
        all.insert(all.end(), texts.begin(), texts.end());
    return all;
}

const Texts silence = {"Timed out while waiting for response from modem. Connection timed out",
                       "Timed out, failed to receiving response, 0x68"};
const Texts no_sense = {"Unknown err_code: 0x69"};
const Texts overlong = {"Command piece of 256 characters refused, the most is 255", "Unknown err_code: 0x62"};
const std::string no_open = "Unable to open device /data. Is a directory";
const std::string no_space = " to the modem. No space left on device";

void PrintTo(const Exchange& row, std::ostream* out)
{
    *out << "tessel atcmd " << row.arguments;
}

// clang-format off
const Exchange exchanges[] = {
    // What the answer says.
    {"Answer", {}, "-v -c AT+CGMR", 0, "VM1.0.0\nOK\n\n", {}, "ATE0|AT+CGMR"},
    {"AnswerOfAPortInAnyMode", {}, "-v -c AT+CGMR -p $(stty sane -F /dev/ttyUSB2; echo /dev/ttyUSB2)", 0,
     "VM1.0.0\nOK\n\n", {}, ""},
    {"Error", {}, "-v -c ATX", 103, "ERROR\n\n", {}, "ATE0|ATX"},
    {"ErrorOnTheConsole", {}, "-o -v -c AT+CPIN?", 103,
     "DEBUG:#stdout is on#\nDEBUG:#Response contains ERR, AT cmd failed#\n+CME ERROR: 10\n\n", {}, "ATE0|AT+CPIN?"},
    {"OkInsideAWordWins", {"at-text@2:ERROR BROKEN"}, "-c AT", 0, "", {}, "ATE0|AT"},
    {"NeitherOkNorError", {"at-text@2:busy"}, "-v -c AT", 105, "", no_sense, "ATE0|AT"},
    {"BinaryAnswer", {"at-text@2:\x01\xFF\x80\x1B[2J%s%n"}, "-c AT", 105, "", no_sense, "ATE0|AT"},
    {"ZeroBytesDoNotHideTheOk", {}, R"(-e -v -c AT -p $(printf 'AT\r\0\0\n\rO\0K\0' > port; echo port))", 0,
     "AT\nOK\n", {}, ""},
    {"PortThatIsNoTty", {}, "-e -v -c AT+OK -p $(mkfifo fifo; echo fifo)", 0, "AT+OK\n\n", {}, ""},
    {"EndlessAnswer", {}, "-e -c AT -p /dev/zero", 105, "", nine_times(no_sense), ""},
    {"LongestAnswer", {"at-long@2:32761"}, "-v -c AT | tail -c 6", 0, "xx\nOK\n", {}, "ATE0|AT"},
    {"CutAnswer", {"at-long@2:32762"}, "-c AT", 105, "", no_sense, "ATE0|AT"},
    {"DribbledAnswer", {"at-dribble@2:60000"}, "-v -c AT+CGMR", 0, "VM1.0.0\nOK\n\n", {}, "ATE0|AT+CGMR"},

    // How long it is awaited.
    {"Silence", {"at-silence@2"}, "-o -c AT", 104,
     "DEBUG:#stdout is on#\nERROR:#" + silence[0] + "#\nERROR:#" + silence[1] + "#\n", silence, "ATE0|AT"},
    {"TooLateForNoNumber", {"at-delay@2:4000"}, "-t soon -c AT", 104, "", silence, "ATE0|AT"},
    {"InTimeForTheLeast", {"at-delay@2:2000"}, "-t -1 -c AT", 0, "", {}, "ATE0|AT"},
    {"InTimeForMore", {"at-delay@2:4000"}, "-t 6 -c AT", 0, "", {}, "ATE0|AT"},
    {"InTimeForever", {}, "-t 99999999999999999999 -c AT", 0, "", {}, "ATE0|AT"},

    // Echo and tries.
    {"EchoStays", {"at-error@1", "at-text@2:"}, "-e -v -c AT", 0, "AT\nERROR\n\nAT\nOK\n\n", no_sense, "AT|AT|AT"},
    {"EchoOffAtTheNinthTryLeavesNone",
     {"at-echo@1", "at-echo@2", "at-echo@3", "at-echo@4", "at-echo@5", "at-echo@6", "at-echo@7", "at-echo@8"},
     "-c AT", 0, "", {}, "ATE0|ATE0|ATE0|ATE0|ATE0|ATE0|ATE0|ATE0|ATE0"},

    // Pieces and escapes.
    {"NextPieceAfterAPrompt", {"at-text@2:> "}, R"_(-v -c "$(printf 'AT+A\rAT+CGMR\rAT+B')")_", 0,
     "VM1.0.0\nOK\n\n", {}, "ATE0|AT+A|AT+CGMR"},
    {"NoPieceAfterAnAnswer", {}, R"_(-o -c "$(printf 'AT\rAT+B')")_", 0,
     "DEBUG:#stdout is on#\nWARNING:#4 characters behind a carriage return were not sent#\n", {}, "ATE0|AT"},
    {"NoPieceAfterWhatIsNotJudged", {"at-text@2:> "}, R"(-o -C 'AT+CMGS=1\rhello\r')", 0,
     "DEBUG:#stdout is on#\nWARNING:#6 characters behind a carriage return were not sent#\n", {}, "ATE0|AT+CMGS=1"},
    {"NoPieceAfterAnError", {"at-error@2"}, R"_(-o -c "$(printf 'AT\rAT+B')")_", 103,
     "DEBUG:#stdout is on#\nDEBUG:#Response contains ERR, AT cmd failed#\n", {}, "ATE0|AT"},
    {"LineFeedIsNoPiece", {}, R"(-o -C 'AT\r\n')", 0, "DEBUG:#stdout is on#\n", {}, "ATE0|AT"},
    {"PromptWithNothingToSay", {}, "-v -c AT+CMGS=1", 0, "> \n", {}, "ATE0|AT+CMGS=1"},
    {"TextAfterAPrompt", {}, R"_(-v -c "$(printf 'AT+CMGS=1\rhello')")_", 0, "+CMGS: 1\nOK\n\n", {}, "ATE0|AT+CMGS=1"},
    {"LongestPiece", {}, "-c AT$(printf %0253d 0)", 103, "", {}, "ATE0|AT" + std::string(30, '0')},
    {"OverlongPiece", {}, "-c AT$(printf %0254d 0)", 98, "", overlong, "ATE0"},
    {"OverlongSecondPiece", {"at-text@2:>"}, R"_(-c "$(printf 'AT\r%0256d' 0)")_", 98, "", overlong, "ATE0|AT"},
    {"EscapesOnTheWire", {}, R"(-e -v -C 'AT\n\t\x00A\\\x3D=z\r')", 0,
     "AT\n\t\0A\\==z\r\r\nERROR\r\n"s, {}, "AT\t\0A\\==z"s},
    {"ExtendedAnswerIsNotJudged", {"at-text@1:busy", "at-text@2:no\r\n\r\ncarrier"}, R"(-v -C 'ati\r')", 0,
     "\r\nno\r\n\r\ncarrier\r\n", {}, "ATE0|ati"},
    {"ExtendedAnswerIsShownAsItArrives", {"at-unplug@2:3"}, R"(-v -C 'AT\r' 2>&1)", 100,
     "\r\nOradio E RIL_TESSEL: Error while reading response from the modem. Input/output error\n"
     "radio E RIL_TESSEL: Unknown err_code: 0x64\n", {}, "ATE0|AT"},

    // Ports that fail.
    {"NoPort", {}, "-c AT -p /dev/ttyUSB9", 96, "", {"USB device /dev/ttyUSB9 doesn't exist"}, ""},
    {"PortThatDoesNotOpen", {}, "-e -c AT -p /data", 96, "",
     nine_times({no_open, no_open, "Unknown err_code: 0x60"}), ""},
    {"PortThatTakesNothing", {}, "-e -c AT -p /dev/full", 98, "",
     nine_times({"Unable to send command AT" + no_space, "Unknown err_code: 0x62"}), ""},
    {"UnpluggedInTheAnswer", {"at-unplug@2:3"}, "-c AT", 100, "",
     {"Error while reading response from the modem. Input/output error", "Unknown err_code: 0x64"}, "ATE0|AT"},
};
// clang-format on

class Atcmd : public OnTablet, public ::testing::WithParamInterface<Exchange> {
protected:
    [[nodiscard]] std::string sent() const
    {
        std::string commands;
        for (const std::string& line : journal()) {
            if (!line.starts_with("request ttyUSB1 "))
                continue;
            commands += commands.empty() ? "" : "|";
            std::istringstream hex(line.substr(line.find(": ") + 1));
            for (unsigned byte = 0; hex >> std::hex >> byte;)
                commands += static_cast<char>(byte);
        }
        return commands;
    }
};

TEST_P(Atcmd, Exchanges)
{
    const Exchange& row = GetParam();
    Texts faults;
    for (const std::string& fault : row.faults)
        faults.insert(faults.end(), {"--fault", fault});
    modem("normal", faults);
    const auto r = run("tessel atcmd " + row.arguments);
    EXPECT_EQ(r.status, row.status);
    EXPECT_EQ(r.out, row.out);
    EXPECT_EQ(r.errors(), row.errors);
    EXPECT_EQ(sent(), row.sent);
}

INSTANTIATE_TEST_SUITE_P(, Atcmd, ::testing::ValuesIn(exchanges), [](const auto& row) { return row.param.name; });

TEST_F(OnTablet, AtcmdGivesUpOnAnEchoThatStays)
{
    modem("normal");
    const auto r = run("tessel atcmd -c AT -p /dev/full");
    EXPECT_EQ(r.status, 101);
    Texts errors(9, "Unable to send command ATE0" + no_space);
    errors.emplace_back("Timed out, failed to turn off echo 0x65");
    EXPECT_EQ(r.errors(), errors);
}

} // namespace
