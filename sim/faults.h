// Failures on demand: WORD@N[+][:ARG], one of the rows that `help` prints. N counts the replies of the packet port, or
// the commands on the AT ports, from 1 at the start of each mode of the modem.
#pragma once

#include "journal.h"
#include "port.h"
#include "protocol.h"

#include <optional>
#include <string>
#include <vector>

namespace sim {

enum class FaultWord {
    drop,
    silence,
    delay,
    badfcs,
    nak,
    refuse,
    error,
    shorten,
    oversize,
    empty,
    noise,
    stray,
    pair,
    twice,
    dribble,
    unplug,
    at_silence,
    at_error,
    at_text,
    at_echo,
    at_long,
    at_delay,
    at_dribble,
    at_unplug,
};

struct Fault {
    FaultWord word;
    unsigned first;
    bool onwards;
    uint32_t number; // the argument, or what stands for it
    std::string text;
    std::string given; // as written on the command line

    // Throws UsageError.
    [[nodiscard]] static Fault parse(std::string_view given);
    [[nodiscard]] static std::string help();
};

// What goes out for one reply.
struct Delivery {
    std::vector<Chunk> chunks;
    bool unplug = false; // afterwards, for good
};

class Faults {
public:
    Faults(std::vector<Fault> faults, const Journal& journal) : faults_(std::move(faults)), journal_(journal) {}

    void begin_mode() { replies_ = commands_ = 0; }

    [[nodiscard]] Delivery deliver(const Reply& reply, View request, const Protocol& protocol);
    // An AT command was received.
    void count_command() { ++commands_; }
    // Whether the command fails although it would have been obeyed.
    [[nodiscard]] bool fails(bool turns_echo_off) const;
    [[nodiscard]] Delivery deliver_at(const std::string& answer) const;

private:
    // The fault of this word that is due now, noted in the journal.
    [[nodiscard]] const Fault* due(FaultWord word, unsigned count) const;
    [[nodiscard]] Reply spoilt(Reply reply, View request, const Protocol& protocol) const;

    std::vector<Fault> faults_;
    const Journal& journal_;
    unsigned replies_ = 0;
    unsigned commands_ = 0;
};

} // namespace sim
