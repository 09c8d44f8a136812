#include "faults.h"

namespace sim {

namespace {

enum class Argument { none, optional, optional_text, number, text };

struct FaultRow {
    std::string_view word; // "at-": of AT commands, else of replies on the packet port
    Argument argument;
    uint32_t standard; // of an optional argument
    const char* form;  // of the argument, in the help
    const char* help;
};

constexpr FaultRow fault_rows[] = {
    {"drop", Argument::none, 0, "", "the reply is not sent"},
    {"silence", Argument::none, 0, "", "no reply from this one on; the port stays"},
    {"delay", Argument::number, 0, ":MS", "the reply comes MS milliseconds late"},
    {"badfcs", Argument::none, 0, "", "the frame's check sequence is wrong"},
    {"nak", Argument::optional, 6, "[:REASON]", "03 00 REASON instead (6)"},
    {"refuse", Argument::number, 0, ":CODE",
     "a refusal instead: modem service error, EFS2 error number, NV status, DIAG error answer, NAK, status of a "
     "partition table, or flash error of number CODE"},
    {"error", Argument::optional, 0x13, "[:CODE]",
     "CODE and the request instead (0x13); of a flash programmer, error CODE"},
    {"short", Argument::number, 0, ":BYTES", "the reply is cut to BYTES bytes, with a good FCS"},
    {"oversize", Argument::none, 0, "", "the length that the reply announces is all ones"},
    {"sequence", Argument::none, 0, "", "the sequence number of the reply to a get or put is one too high"},
    {"log", Argument::optional_text, 0, "[:TEXT]", "a packet 0E and TEXT comes first"},
    {"empty", Argument::none, 0, "", "two flags come first"},
    {"noise", Argument::none, 0, "", "one packet of every code that a host ignores comes first"},
    {"stray", Argument::none, 0, "", "a packet that no host knows comes first"},
    {"pair", Argument::none, 0, "", "a packet to ignore and the reply come in one write"},
    {"twice", Argument::none, 0, "", "the reply comes twice"},
    {"dribble", Argument::optional, 200, "[:US]", "byte by byte, US microseconds apart (200)"},
    {"unplug", Argument::optional, 0, "[:BYTES]", "BYTES bytes of the reply (0), then the modem is gone for good"},
    {"at-silence", Argument::none, 0, "", "the command is not answered"},
    {"at-error", Argument::none, 0, "", "ERROR, and the command is not obeyed"},
    {"at-text", Argument::text, 0, ":TEXT", "TEXT and nothing else is the answer"},
    {"at-echo", Argument::none, 0, "", "ATE0 gives ERROR and the echo stays on"},
    {"at-long", Argument::number, 0, ":BYTES", "an answer of BYTES bytes, then OK"},
    {"at-delay", Argument::number, 0, ":MS", "the answer comes MS milliseconds late"},
    {"at-dribble", Argument::optional, 200, "[:US]", "byte by byte, US microseconds apart (200)"},
    {"at-unplug", Argument::optional, 0, "[:BYTES]", "BYTES bytes of the answer (0), then the modem is gone for good"},
};

// What a running modem sends unasked, by first byte, and one that no host knows.
constexpr uint8_t ignorable_codes[] = {0x1F, 0x60, 0x79, 0x7E, 0x92, 0x10}, stray_code = 0xA5;
constexpr uint8_t log_code = 0x0E; // a text that a flash programmer has for the host

Bytes unasked(uint8_t code)
{
    return frame(Bytes{code, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06});
}

template <typename Sequence>
void cut(Sequence& sequence, size_t length)
{
    sequence.resize(std::min(length, sequence.size()));
}

} // namespace

Fault Fault::parse(std::string_view given)
{
    const auto wrong = [&](const std::string& why) {
        return UsageError("--fault " + std::string(given) + ": " + why + "\nfaults are\n" + help());
    };
    std::string_view mode;
    std::string_view rest = given;
    for (const std::string_view row : fault_modes)
        if (given.starts_with(row) && given.substr(row.size()).starts_with('/')) {
            mode = row;
            rest = given.substr(row.size() + 1);
        }
    const size_t at = rest.find('@'), colon = rest.find(':');
    const auto row = std::ranges::find(fault_rows, rest.substr(0, at), &FaultRow::word);
    if (row == std::end(fault_rows) || at == std::string_view::npos)
        throw wrong("not WORD@N");
    std::string_view count = rest.substr(at + 1, colon - at - 1);
    const bool plus = count.ends_with('+');
    const auto first = parse_number(count.substr(0, count.size() - (plus ? 1 : 0)));
    if (!first || *first == 0)
        throw wrong("N is a number from 1");

    const bool has_argument = colon != std::string_view::npos;
    const std::string_view argument = has_argument ? rest.substr(colon + 1) : std::string_view();
    if (has_argument ? row->argument == Argument::none : row->argument >= Argument::number)
        throw wrong(has_argument ? "takes no argument" : "the argument is missing");
    std::optional<uint32_t> number = row->standard;
    if (has_argument && row->argument != Argument::text && row->argument != Argument::optional_text)
        number = parse_number(argument);
    if (!number)
        throw wrong("the argument is not a number");
    return {std::string(mode),     std::string(row->word), *first, plus || row->word == "silence", *number,
            std::string(argument), std::string(given)};
}

std::string Fault::help()
{
    constexpr size_t width = 24;
    std::string text;
    for (const FaultRow& row : fault_rows) {
        std::string form = "  " + std::string(row.word) + "@N" + row.form;
        form.resize(width, ' ');
        text += form + row.help + "\n";
    }
    return text;
}

const Fault* Faults::find(std::string_view word, unsigned ahead) const
{
    const auto strikes = [&](const Fault& fault) {
        const Counts& counts = fault.mode == any_mode ? in_all_ : since_start_;
        const unsigned count = (word.starts_with("at-") ? counts.commands : counts.replies) + ahead;
        return fault.word == word && (fault.mode.empty() || fault.mode == any_mode || fault.mode == mode_) &&
               count >= fault.first && (count == fault.first || fault.onwards);
    };
    const auto found = std::ranges::find_if(faults_, strikes);
    return found == faults_.end() ? nullptr : &*found;
}

const Fault* Faults::due(std::string_view word) const
{
    const Fault* fault = find(word);
    if (fault != nullptr)
        journal_.note("fault " + fault->given);
    return fault;
}

bool Faults::will_refuse() const
{
    return find("refuse", 1) != nullptr || find("error", 1) != nullptr;
}

void Faults::spoil(Reply& reply, View request, const Protocol& protocol) const
{
    if (due("oversize") != nullptr && reply.length_at + reply.length_size <= reply.packet.size())
        std::fill_n(reply.packet.begin() + static_cast<ptrdiff_t>(reply.length_at), reply.length_size, uint8_t{0xFF});

    if (due("sequence") != nullptr && reply.sequence_at != 0)
        put_le16(reply.packet, reply.sequence_at, get_le16(reply.packet, reply.sequence_at) + 1U);

    // A refusal travels in a frame, also where the data would not.
    const auto replace = [&](Bytes packet) { reply = {.packet = std::move(packet)}; };
    if (const Fault* fault = due("nak"))
        replace(nak_packet(byte_of(fault->number, 0)));
    if (const Fault* fault = due("refuse"))
        replace(protocol.refusal(request, fault->number));
    if (const Fault* fault = due("error"))
        replace(protocol.error_answer(request, fault->number));
    if (const Fault* fault = due("short"))
        cut(reply.packet, fault->number);
}

Delivery Faults::deliver(Reply reply, View request, const Protocol& protocol)
{
    count(&Counts::replies);
    if (due("silence") != nullptr || due("drop") != nullptr)
        return {};
    spoil(reply, request, protocol);
    const bool bad_fcs = due("badfcs") != nullptr;
    Bytes wire = reply.framed ? frame(reply.packet, bad_fcs) : reply.packet;

    Delivery delivery;
    const auto put = [&](const Bytes& bytes) { delivery.chunks.push_back({.bytes = bytes}); };
    if (const Fault* fault = due("log"))
        put(frame(with_code(log_code, bytes_of(fault->text))));
    if (due("empty") != nullptr)
        put({flag_byte, flag_byte});
    if (due("noise") != nullptr)
        std::ranges::for_each(ignorable_codes, [&](uint8_t code) { put(unasked(code)); });
    if (due("stray") != nullptr)
        put(unasked(stray_code));
    if (due("pair") != nullptr) {
        Bytes both = unasked(ignorable_codes[0]);
        add(both, wire);
        wire = both;
    }
    if (const Fault* fault = due("unplug")) {
        cut(wire, fault->number);
        delivery.unplug = true;
    }
    put(wire);
    if (due("twice") != nullptr)
        put(wire);

    if (const Fault* fault = due("delay"))
        delivery.chunks.front().delay = std::chrono::milliseconds(fault->number);
    if (const Fault* fault = due("dribble"))
        for (Chunk& chunk : delivery.chunks)
            chunk.pace = std::chrono::microseconds(fault->number);
    return delivery;
}

bool Faults::refuse_command(bool turns_echo_off)
{
    count(&Counts::commands);
    return due("at-error") != nullptr || (turns_echo_off && due("at-echo") != nullptr);
}

Delivery Faults::deliver_at(std::string answer) const
{
    if (due("at-silence") != nullptr)
        return {};
    if (const Fault* fault = due("at-text"))
        answer = "\r\n" + fault->text + "\r\n";
    if (const Fault* fault = due("at-long"))
        answer = "\r\n" + std::string(fault->number, 'x') + "\r\nOK\r\n";

    Delivery delivery;
    if (const Fault* fault = due("at-unplug")) {
        cut(answer, fault->number);
        delivery.unplug = true;
    }
    Chunk chunk{.bytes = bytes_of(answer)};
    if (const Fault* fault = due("at-delay"))
        chunk.delay = std::chrono::milliseconds(fault->number);
    if (const Fault* fault = due("at-dribble"))
        chunk.pace = std::chrono::microseconds(fault->number);
    delivery.chunks.push_back(std::move(chunk));
    return delivery;
}

} // namespace sim
