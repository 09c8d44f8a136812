// The virtual modem: which mode it is in, which nodes that gives, and who answers on them.
#pragma once

#include "at_port.h"

#include <poll.h>

namespace sim {

enum class Mode { absent, normal, offline, dload, fastboot };

struct ModemSettings {
    Mode mode = Mode::normal;
    std::chrono::milliseconds reenumerate{300};
    uint8_t dload_version = 7;
    std::vector<Region> regions;
    std::optional<Bytes> region_table;
    uint32_t seed = 1;
    uint32_t sku = 0;
    std::string spc;
    std::string revision;
    std::string apps_version;
    std::vector<Fault> faults;
};

class Modem {
public:
    // `nodes`: the tablet's /dev. `home`: the modem's insides, with nv/, files/ and memory/.
    Modem(const fs::path& nodes, const fs::path& home, const ModemSettings& settings);

    // Waits until one of `others` is ready or the modem has something to do, and does it.
    void step(std::span<pollfd> others);

private:
    struct Line {
        Port port;
        Deframer deframer;
        std::optional<AtPort> at; // a text port; else it carries packets
    };
    struct Departure {
        Mode next;
        std::chrono::milliseconds away;
    };

    void enter(Mode mode);
    void leave(Mode next, std::chrono::milliseconds away);
    void receive(Line& line);
    void receive_packets(Line& line, View input);
    void carry_out(Then then);
    void pass_time();
    [[nodiscard]] std::optional<Time> next_event(Time now);

    fs::path nodes_;
    fs::path home_;
    ModemSettings settings_;
    Journal journal_;
    Faults faults_;
    NvStore nv_;
    Memory memory_;
    std::unique_ptr<Protocol> protocol_; // of the packet port
    std::vector<Line> lines_;
    std::optional<Departure> departure_; // decided on, once the last reply was read
    Mode next_ = Mode::absent;
    std::optional<Time> arrival_; // when `next_` begins
};

} // namespace sim
