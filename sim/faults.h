// Failures on demand: [MODE/]WORD@N[+][:ARG], one of the rows that `help` prints. N counts the replies of the packet
// port, or the commands on the AT ports, from 1 at the start of each mode of the modem; behind all/ from the first
// start on.
#pragma once

#include "port.h"
#include "protocol.h"

namespace sim {

// The words before a fault: what the modem speaks on its packet port, or that its starts are not looked at.
constexpr std::string_view any_mode = "all", fault_modes[] = {"diag", "dload", "flash", any_mode};

struct Fault {
    std::string mode; // empty: any
    std::string word;
    unsigned first;
    bool onwards;
    uint32_t number;   // the argument, or what stands for it
    std::string text;  // the argument of a word that takes a text
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

    void begin_mode(std::string_view mode)
    {
        mode_ = mode;
        since_start_ = {};
    }

    // Whether the next request will be refused.
    [[nodiscard]] bool will_refuse() const;
    [[nodiscard]] Delivery deliver(Reply reply, View request, const Protocol& protocol);
    // An AT command was received; true when it fails although it would have been obeyed.
    [[nodiscard]] bool refuse_command(bool turns_echo_off);
    [[nodiscard]] Delivery deliver_at(std::string answer) const;

private:
    struct Counts {
        unsigned replies = 0, commands = 0;
    };

    void count(unsigned Counts::*what)
    {
        ++(since_start_.*what);
        ++(in_all_.*what);
    }

    // The fault of this word that is due, or `ahead` counts later.
    [[nodiscard]] const Fault* find(std::string_view word, unsigned ahead = 0) const;
    // The one that is due now, noted in the journal.
    [[nodiscard]] const Fault* due(std::string_view word) const;
    void spoil(Reply& reply, View request, const Protocol& protocol) const;

    std::vector<Fault> faults_;
    const Journal& journal_;
    std::string mode_;
    Counts since_start_, in_all_;
};

} // namespace sim
