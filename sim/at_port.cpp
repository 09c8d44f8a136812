#include "at_port.h"

#include <iterator>

namespace sim {

namespace {

constexpr uint8_t carriage_return = '\r', line_feed = '\n', end_of_text = 0x1A;
constexpr size_t longest_line = 2048;
constexpr const char* done = "\r\nOK\r\n";
constexpr const char* error = "\r\nERROR\r\n";

char upper(char letter)
{
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

} // namespace

Delivery AtPort::take(View input)
{
    Delivery all;
    for (const uint8_t byte : input) {
        if (echo_)
            all.chunks.push_back({.bytes = {byte}});
        if (byte == carriage_return || (text_expected_ && byte == end_of_text)) {
            Delivery answer = end_of_line();
            all.unplug = all.unplug || answer.unplug;
            std::ranges::move(answer.chunks, std::back_inserter(all.chunks));
        } else if (byte != line_feed && line_.size() <= longest_line) {
            line_ += static_cast<char>(byte);
        }
    }
    return all;
}

Delivery AtPort::end_of_line()
{
    std::string command = std::exchange(line_, {});
    if (command.empty())
        return {}; // a second carriage return does not end the text that it comes before
    if (std::exchange(text_expected_, false))
        return {{{.bytes = bytes_of(std::string("\r\n+CMGS: 1\r\n") + done)}}};
    journal_.request(port_, bytes_of(command));
    std::ranges::transform(command, command.begin(), upper);
    const bool refused = faults_.refuse_command(command == "ATE0");
    return faults_.deliver_at(refused ? error : obey(command));
}

std::string AtPort::obey(const std::string& command)
{
    if (command.size() > longest_line || !command.starts_with("AT")) {
        journal_.complain("no AT command on " + port_);
        return error;
    }
    if (command == "ATE0" || command == "ATE1")
        echo_ = command == "ATE1";
    text_expected_ = command.starts_with("AT+CMGS=");
    if (text_expected_)
        return "\r\n> ";
    if (command == "AT" || command == "ATE0" || command == "ATE1" || command.starts_with("AT+CMEE="))
        return done;
    if (command == "ATI")
        return "\r\nManufacturer: Virtual\r\nModel: Virtual modem\r\nRevision: " + revision_ +
               "\r\nSerial: 0000000001\r\n+GCAP: +CGSM\r\n" + done;
    if (command == "AT+CGMR")
        return "\r\n" + revision_ + "\r\n" + done;
    if (command == "AT+CPIN?")
        return "\r\n+CME ERROR: 10\r\n";
    return error;
}

} // namespace sim
