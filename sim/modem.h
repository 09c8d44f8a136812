// The virtual modem: its power and its link, which mode it is in, which nodes that gives, and who answers on them.
#pragma once

#include "at_port.h"
#include "modules.h"
#include "usb_nodes.h"

#include <poll.h>

namespace sim {

// A modem that is `partial` runs, but shows only the first two of its three ttys. `bootrom` is DLOAD without boot code,
// `flash` a flash programmer that DLOAD has started.
enum class Mode { absent, off, normal, partial, offline, dload, fastboot, bootrom, flash };

struct ModemSettings {
    Mode mode = Mode::normal;
    std::chrono::milliseconds reenumerate{300};
    std::chrono::milliseconds power_up{1500};
    // What each power-up leads to; the last one counts for all that follow. A normal start ends where the flash lets
    // it.
    std::vector<Mode> boot{Mode::normal};
    const Chip* chip = chips;
    bool knows_fastboot = true; // by a DIAG request
    SysfsSettings sysfs;
    UsbNodesSettings usb;
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

// What it shows in /dev, while it is there.
constexpr const char* packet_port = "ttyUSB0";
constexpr const char* text_ports[] = {"ttyUSB1", "ttyUSB2"};
constexpr const char* modem_nodes[] = {packet_port, text_ports[0], text_ports[1]};

class Modem {
public:
    // `root`: the tablet, with dev/ and sys/ for what it shows and modem/ for its insides.
    Modem(const fs::path& root, const ModemSettings& settings, const Modules& modules, const Journal& journal);

    // Waits until one of `others` is ready or the modem has something to do, and does it.
    void step(std::span<pollfd> others);

    // What the power files are told: '0' off, '1' on, '2' off and on again.
    void switch_power(char word);
    void switch_link(char word);
    [[nodiscard]] bool is_powered() const { return powered_; }
    // What the tools fastboot and adb reach.
    [[nodiscard]] bool in_fastboot() const;
    [[nodiscard]] bool has_adb() const;
    [[nodiscard]] const FlashStore& flash() const { return flash_; }
    void erase_files(); // EFS2, and what NV items hold
    void restart(Mode next) { leave(next, settings_.reenumerate); }
    // Nodes come and go with the drivers that give them.
    void follow_modules();

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

    [[nodiscard]] bool is_up() const { return mode_ != Mode::absent && mode_ != Mode::off; }
    [[nodiscard]] bool is_running() const { return mode_ == Mode::normal || mode_ == Mode::partial; }
    [[nodiscard]] Mode started() const;
    void enter(Mode mode);
    void come_up();
    void vanish(Mode next);
    void plug_in(const std::string& node);
    void leave(Mode next, std::chrono::milliseconds away);
    void receive(Line& line);
    void receive_packets(Line& line, View input);
    void carry_out(Then then);
    void pass_time();
    [[nodiscard]] std::optional<Time> next_event(Time now);
    void await_arrival(std::chrono::milliseconds away);

    fs::path nodes_;
    fs::path home_;
    ModemSettings settings_;
    const Modules& modules_;
    const Journal& journal_;
    Faults faults_;
    NvStore nv_;
    FlashStore flash_;
    Memory memory_;
    std::unique_ptr<Protocol> protocol_; // of the packet port
    Sysfs sysfs_;
    UsbNodes usb_;
    bool powered_;
    bool linked_;
    size_t boots_ = 0;
    Mode mode_ = Mode::absent; // absent also while it is away for a moment
    std::vector<Line> lines_;
    std::optional<Departure> departure_; // decided on, once the last reply was read
    Mode next_ = Mode::absent;           // what it is when it can be seen again
    std::optional<Time> arrival_;        // when `next_` begins
    Time plugged_until_;                 // the end of the clock's second in which a node was plugged in
    Time awake_ = Clock::now();          // since when it works at what it has heard
};

} // namespace sim
