#include "faults.h"

#include "dload_port.h"
#include "text.h"
#include "usage_error.h"

#include <algorithm>
#include <array>

namespace sim {

namespace {

enum class Argument { none, optional, number, text };

struct FaultRow {
    FaultWord word;
    const char* name;
    Argument argument;
    uint32_t standard; // of an optional argument
    const char* shows; // how the help names the argument
    const char* help;
};

constexpr FaultRow rows[] = {
    {FaultWord::drop, "drop", Argument::none, 0, "", "the reply is not sent"},
    {FaultWord::silence, "silence", Argument::none, 0, "", "no reply from this one on; the port stays"},
    {FaultWord::delay, "delay", Argument::number, 0, ":MS", "the reply comes MS milliseconds late"},
    {FaultWord::badfcs, "badfcs", Argument::none, 0, "", "the frame's check sequence is wrong"},
    {FaultWord::nak, "nak", Argument::optional, 6, "[:REASON]", "03 00 REASON instead (6)"},
    {FaultWord::refuse, "refuse", Argument::number, 0, ":CODE",
     "a refusal instead: modem service error CODE, NV status CODE, DIAG error answer CODE, or NAK CODE"},
    {FaultWord::error, "error", Argument::optional, 0x13, "[:CODE]", "CODE and the request instead (0x13)"},
    {FaultWord::shorten, "short", Argument::number, 0, ":BYTES", "the reply is cut to BYTES bytes, with a good FCS"},
    {FaultWord::oversize, "oversize", Argument::none, 0, "", "the length that the reply announces is all ones"},
    {FaultWord::empty, "empty", Argument::none, 0, "", "two flags come first"},
    {FaultWord::noise, "noise", Argument::none, 0, "", "one packet of every code that a host ignores comes first"},
    {FaultWord::stray, "stray", Argument::none, 0, "", "a packet that no host knows comes first"},
    {FaultWord::pair, "pair", Argument::none, 0, "", "a packet to ignore and the reply come in one write"},
    {FaultWord::twice, "twice", Argument::none, 0, "", "the reply comes twice"},
    {FaultWord::dribble, "dribble", Argument::optional, 200, "[:US]", "byte by byte, US microseconds apart (200)"},
    {FaultWord::unplug, "unplug", Argument::optional, 0, "[:BYTES]",
     "BYTES bytes of the reply (0), then the modem is gone for good"},
    {FaultWord::at_silence, "at-silence", Argument::none, 0, "", "the command is not answered"},
    {FaultWord::at_error, "at-error", Argument::none, 0, "", "ERROR, and the command is not obeyed"},
    {FaultWord::at_text, "at-text", Argument::text, 0, ":TEXT", "TEXT and nothing else is the answer"},
    {FaultWord::at_echo, "at-echo", Argument::none, 0, "", "ATE0 gives ERROR and the echo stays on"},
    {FaultWord::at_long, "at-long", Argument::number, 0, ":BYTES", "an answer of BYTES bytes, then OK"},
    {FaultWord::at_delay, "at-delay", Argument::number, 0, ":MS", "the answer comes MS milliseconds late"},
    {FaultWord::at_dribble, "at-dribble", Argument::optional, 200, "[:US]",
     "byte by byte, US microseconds apart (200)"},
    {FaultWord::at_unplug, "at-unplug", Argument::optional, 0, "[:BYTES]",
     "BYTES bytes of the answer (0), then the modem is gone for good"},
};

// What a running modem sends unasked, by first byte.
constexpr uint8_t ignorable_codes[] = {0x1F, 0x60, 0x79, 0x7E, 0x92, 0x10};

Bytes unasked_packet(uint8_t code)
{
    return frame(Bytes{code, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06});
}

Bytes cut(const Bytes& bytes, uint32_t length)
{
    return {bytes.begin(), bytes.begin() + std::min<ptrdiff_t>(length, std::ssize(bytes))};
}

std::chrono::microseconds milliseconds(uint32_t number)
{
    return std::chrono::milliseconds(number);
}

} // namespace

Fault Fault::parse(std::string_view given)
{
    const auto wrong = [&](const std::string& why) {
        return UsageError("--fault " + std::string(given) + ": " + why + "\nfaults are\n" + help());
    };
    const size_t at = given.find('@');
    const auto row = std::ranges::find(rows, given.substr(0, at), &FaultRow::name);
    if (row == std::end(rows))
        throw wrong("no such word");
    if (at == std::string_view::npos)
        throw wrong("@N is missing");

    std::string_view count = given.substr(at + 1);
    const size_t colon = count.find(':');
    const auto argument = colon == std::string_view::npos ? std::nullopt : std::optional(count.substr(colon + 1));
    count = count.substr(0, colon);
    const bool onwards = count.ends_with('+');
    if (onwards)
        count.remove_suffix(1);
    const auto first = parse_number(count);
    if (!first || *first == 0)
        throw wrong("N is a number from 1");

    Fault fault{row->word, *first, onwards || row->word == FaultWord::silence, row->standard, {}, std::string(given)};
    if (argument.has_value() ? row->argument == Argument::none
                             : row->argument == Argument::number || row->argument == Argument::text)
        throw wrong(argument ? "takes no argument" : "the argument is missing");
    if (argument && row->argument == Argument::text)
        fault.text = *argument;
    else if (argument) {
        const auto number = parse_number(*argument);
        if (!number)
            throw wrong("the argument is not a number");
        fault.number = *number;
    }
    return fault;
}

std::string Fault::help()
{
    constexpr size_t width = 24;
    std::string text;
    for (const FaultRow& row : rows) {
        std::string form = std::string("  ") + row.name + "@N" + row.shows;
        form.resize(std::max(width, form.size() + 1), ' ');
        text += form + row.help + "\n";
    }
    return text;
}

const Fault* Faults::due(FaultWord word, unsigned count) const
{
    const auto fault = std::ranges::find_if(faults_, [&](const Fault& candidate) {
        return candidate.word == word && (candidate.onwards ? count >= candidate.first : count == candidate.first);
    });
    if (fault == faults_.end())
        return nullptr;
    journal_.note("fault " + fault->given);
    return &*fault;
}

Reply Faults::spoilt(Reply reply, View request, const Protocol& protocol) const
{
    Bytes& packet = reply.packet;
    if (due(FaultWord::oversize, replies_) != nullptr && reply.length_at + reply.length_size <= packet.size())
        std::fill_n(packet.begin() + static_cast<ptrdiff_t>(reply.length_at), reply.length_size, uint8_t{0xFF});

    // A refusal travels in a frame, also where the data would not.
    const auto replace = [&](Bytes other) { reply = {.packet = std::move(other), .then = reply.then}; };
    if (const Fault* fault = due(FaultWord::nak, replies_))
        replace(nak_packet(byte_of(fault->number, 0)));
    if (const Fault* fault = due(FaultWord::refuse, replies_))
        replace(protocol.refusal(request, byte_of(fault->number, 0)));
    if (const Fault* fault = due(FaultWord::error, replies_))
        replace(with_code(byte_of(fault->number, 0), request));
    if (const Fault* fault = due(FaultWord::shorten, replies_))
        packet = cut(packet, fault->number);
    return reply;
}

Delivery Faults::deliver(const Reply& reply, View request, const Protocol& protocol)
{
    ++replies_;
    if (due(FaultWord::silence, replies_) != nullptr || due(FaultWord::drop, replies_) != nullptr)
        return {};

    const Reply sent = spoilt(reply, request, protocol);
    const bool spoil_fcs = due(FaultWord::badfcs, replies_) != nullptr;
    Bytes wire = sent.framed ? frame(sent.packet, spoil_fcs) : sent.packet;

    Delivery delivery;
    const auto put = [&](Bytes bytes) { delivery.chunks.push_back({.bytes = std::move(bytes)}); };
    if (due(FaultWord::empty, replies_) != nullptr)
        put({flag_byte, flag_byte});
    if (due(FaultWord::noise, replies_) != nullptr)
        std::ranges::for_each(ignorable_codes, [&](uint8_t code) { put(unasked_packet(code)); });
    if (due(FaultWord::stray, replies_) != nullptr)
        put(unasked_packet(0xA5));
    if (due(FaultWord::pair, replies_) != nullptr) {
        const Bytes noise = unasked_packet(ignorable_codes[0]);
        wire.insert(wire.begin(), noise.begin(), noise.end());
    }
    const bool twice = due(FaultWord::twice, replies_) != nullptr;
    if (const Fault* fault = due(FaultWord::unplug, replies_)) {
        wire = cut(wire, fault->number);
        delivery.unplug = true;
    }
    put(wire);
    if (twice)
        put(wire);

    if (const Fault* fault = due(FaultWord::delay, replies_))
        delivery.chunks.front().delay = milliseconds(fault->number);
    if (const Fault* fault = due(FaultWord::dribble, replies_))
        for (Chunk& chunk : delivery.chunks)
            chunk.pace = std::chrono::microseconds(fault->number);
    return delivery;
}

bool Faults::fails(bool turns_echo_off) const
{
    return due(FaultWord::at_error, commands_) != nullptr ||
           (turns_echo_off && due(FaultWord::at_echo, commands_) != nullptr);
}

Delivery Faults::deliver_at(const std::string& answer) const
{
    std::string text = answer;
    if (due(FaultWord::at_silence, commands_) != nullptr)
        return {};
    if (const Fault* fault = due(FaultWord::at_text, commands_))
        text = "\r\n" + fault->text + "\r\n";
    if (const Fault* fault = due(FaultWord::at_long, commands_))
        text = "\r\n" + std::string(fault->number, 'x') + "\r\nOK\r\n";

    Delivery delivery;
    if (const Fault* fault = due(FaultWord::at_unplug, commands_)) {
        text.resize(std::min<size_t>(fault->number, text.size()));
        delivery.unplug = true;
    }
    Chunk chunk{.bytes = bytes_of(text)};
    if (const Fault* fault = due(FaultWord::at_delay, commands_))
        chunk.delay = milliseconds(fault->number);
    if (const Fault* fault = due(FaultWord::at_dribble, commands_))
        chunk.pace = std::chrono::microseconds(fault->number);
    delivery.chunks.push_back(std::move(chunk));
    return delivery;
}

} // namespace sim
