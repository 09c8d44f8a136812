#include "at_port.h"

#include "text.h"

#include <algorithm>
#include <iterator>

namespace sim {

namespace {

constexpr uint8_t carriage_return = '\r', line_feed = '\n', end_of_text = 0x1A;
constexpr size_t longest_line = 2048;

std::string line(const std::string& text)
{
    return "\r\n" + text + "\r\n";
}

std::string done()
{
    return line("OK");
}

std::string upper_case(std::string text)
{
    for (char& letter : text)
        if (letter >= 'a' && letter <= 'z')
            letter = static_cast<char>(letter - 'a' + 'A');
    return text;
}

} // namespace

Delivery AtPort::take(View input)
{
    Delivery all;
    for (const uint8_t byte : input) {
        if (echo_)
            all.chunks.push_back({.bytes = {byte}});
        const bool ends = byte == carriage_return || (text_expected_ && byte == end_of_text);
        if (!ends) {
            if (byte != line_feed && line_.size() <= longest_line)
                line_ += static_cast<char>(byte);
            continue;
        }
        Delivery answer = end_of_line();
        all.unplug = all.unplug || answer.unplug;
        std::ranges::move(answer.chunks, std::back_inserter(all.chunks));
    }
    return all;
}

Delivery AtPort::end_of_line()
{
    const std::string text = std::exchange(line_, {});
    if (std::exchange(text_expected_, false))
        return {{{.bytes = bytes_of(line("+CMGS: 1") + done())}}};
    if (text.empty())
        return {};

    journal_.request(port_, bytes_of(text));
    faults_.count_command();
    const std::string command = upper_case(text);
    if (faults_.fails(command == "ATE0"))
        return faults_.deliver_at(line("ERROR"));
    return faults_.deliver_at(obey(command));
}

std::string AtPort::obey(const std::string& command)
{
    if (command.size() > longest_line || !command.starts_with("AT")) {
        journal_.complain("no AT command on " + port_);
        return line("ERROR");
    }
    if (command == "ATE0" || command == "ATE1") {
        echo_ = command == "ATE1";
        return done();
    }
    if (command == "AT" || command.starts_with("AT+CMEE="))
        return done();
    if (command == "ATI")
        return line("Manufacturer: Virtual\r\nModel: Virtual modem\r\nRevision: " + revision_ +
                    "\r\nSerial: 0000000001\r\n+GCAP: +CGSM") +
               done();
    if (command == "AT+CGMR")
        return line(revision_) + done();
    if (command == "AT+CPIN?")
        return line("+CME ERROR: 10");
    if (command.starts_with("AT+CMGS=")) {
        text_expected_ = true;
        return "\r\n> ";
    }
    return line("ERROR");
}

} // namespace sim
