// AT commands with escapes, and the modem's answers.
#include "atcmd/atcmd.h"
#include "tests/fuzz/harness.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

void resolve(const std::string& text)
{
    std::string parsed = text;
    parse_atcmd_string(parsed);
    require(parsed.size() <= text.size(), "an escape is longer than what it means");
    if (text.find('\\') == std::string::npos)
        require(parsed == text, "a text without escapes stays");
    // A backslash stands for itself behind one.
    std::string escaped;
    for (const char c : text)
        escaped += c == '\\' ? std::string(2, c) : std::string(1, c);
    parse_atcmd_string(escaped);
    require(escaped == text, "every text can be given");
    // By its digits, and what is behind two of them is copied unseen.
    constexpr const char* digits = "0123456789aBcDeF";
    escaped.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        if (i % 2 == 0)
            escaped += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
        else
            escaped += text[i];
    }
    parse_atcmd_string(escaped);
    require(escaped == text, "every byte can be given");
}

void judge(const std::string& answer)
{
    std::string text = answer.substr(0, answer.find('\0'));
    const bool ok = text.find("OK") != std::string::npos;
    atcmd_parse_output(text.data());
    const std::string parsed = text.substr(0, text.find('\0'));
    require(parsed.size() <= text.size() && parsed.find('\r') == std::string::npos, "line ends become shorter");
    require(parsed.find("\n\n") == std::string::npos && !parsed.starts_with('\n'), "a run of line ends is one");
    text = parsed;
    atcmd_parse_output(text.data());
    require(text == parsed, "what is normal stays");

    const int32_t status = atcmd_assert_response(text.c_str());
    require(!ok || status == ATCMD_OK, "OK is good news");
    require(status == ATCMD_OK || status == ATCMD_MODEM_ERROR || status == ATCMD_NOT_UNDERSTOOD, "a text is judged");
    require(status != ATCMD_MODEM_ERROR || parsed.find("ERROR") != std::string::npos, "only ERROR is bad news");
}

// `answer` comes through a port, into `room` bytes.
void receive(const Bytes& answer, size_t room)
{
    constexpr size_t longest = 32768; // less than a pipe holds
    const auto sent = std::span(answer).first(std::min(answer.size(), longest));
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "a pipe can be made");
    const UniqueFd port(ends[0]);
    UniqueFd modem(ends[1]);
    require(write(modem.get(), sent.data(), sent.size()) == std::ssize(sent), "the pipe takes everything");
    modem.reset();

    std::vector<char> buffer(room);
    require(atcmd_read_response(port.get(), buffer, 0) == ATCMD_OK, "an answer is read");
    std::string expected(sent.begin(), sent.begin() + static_cast<ptrdiff_t>(std::min(sent.size(), room - 1)));
    std::erase(expected, '\0');
    require(std::string(buffer.data()) == expected, "an answer comes without its zeros");
}

} // namespace

void fuzz_one(Input& input)
{
    const size_t room = size_t{input.u16()} + 1;
    const Bytes bytes = input.rest();
    const std::string text(bytes.begin(), bytes.end());
    resolve(text);
    judge(text);
    receive(bytes, room);
}
