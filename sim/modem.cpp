#include "modem.h"

#include "efs2.h"

#include <iostream>

namespace sim {

namespace {

using std::chrono::milliseconds;

// A resetting modem keeps the bus for a moment after its last words, so that a host hears them.
constexpr milliseconds last_words{500};
constexpr milliseconds never{-1};
constexpr const char* gone = "state gone";

constexpr const char* mode_names[] = {"absent", "off",      "normal",  "partial", "offline",
                                      "dload",  "fastboot", "bootrom", "flash"};

// What shows a modem, from the bus to the ports.
constexpr std::string_view bus_driver = "ehci_hcd", network_driver = "rmnet_usb";
constexpr std::string_view tty_drivers[] = {"usbserial", "usb_wwan", bus_driver, "option"};

// Which faults are meant for a mode.
std::string_view fault_mode(Mode mode)
{
    switch (mode) {
    case Mode::normal:
    case Mode::partial:
        return "diag";
    case Mode::dload:
    case Mode::bootrom:
        return "dload";
    case Mode::flash:
        return "flash";
    case Mode::absent:
    case Mode::off:
    case Mode::offline:
    case Mode::fastboot:
        return "";
    }
    return "";
}

std::string state(Mode mode)
{
    return std::string("state ") + mode_names[static_cast<size_t>(mode)];
}

// A host that waits for seconds would take a modem for silent whose machine was busy with something else.
void tell_of_delay(Time since, Time now)
{
    constexpr auto bearable = std::chrono::seconds(1);
    if (now - since > bearable)
        std::cerr << "virtual_tablet: this machine is too busy: the modem was "
                  << std::chrono::duration_cast<milliseconds>(now - since).count() << " ms late\n";
}

} // namespace

Modem::Modem(const fs::path& root, const ModemSettings& settings, const Modules& modules, const Journal& journal)
    : nodes_(root / "dev"), home_(root / "modem"), settings_(settings), modules_(modules), journal_(journal),
      faults_(settings.faults, journal_), nv_(home_ / "nv"), flash_(home_ / "flash", *settings.chip),
      memory_(settings.regions, settings.seed), sysfs_(root / "sys", settings.sysfs), usb_(nodes_, settings.usb),
      powered_(settings.mode != Mode::off), linked_(powered_)
{
    // Links that a tablet that was killed has left lead to other people's terminals.
    for (const char* node : modem_nodes)
        fs::remove(nodes_ / node);
    enter(settings.mode);
}

Mode Modem::started() const
{
    if (flash_.lacks(Need::start))
        return Mode::bootrom;
    return flash_.lacks(Need::linux_system) ? Mode::fastboot : Mode::normal;
}

void Modem::enter(Mode mode)
{
    mode_ = mode == Mode::normal ? started() : mode;
    faults_.begin_mode(fault_mode(mode_));
    if (mode_ == Mode::dload)
        memory_.save(home_ / "memory");
    if (mode_ == Mode::dload || mode_ == Mode::bootrom) {
        protocol_ = make_dload(memory_,
                               {settings_.dload_version, settings_.region_table, flash_.chip().wide_addresses,
                                mode_ == Mode::bootrom, home_ / "ram.bin"},
                               journal_);
    } else if (mode_ == Mode::flash) {
        protocol_ = make_flash_programmer(flash_, journal_);
    } else if (is_running()) {
        const std::string apps = flash_.version_of(apps_partition).value_or(settings_.apps_version);
        protocol_ = make_diag(nv_, make_service(home_, apps, journal_), make_efs2(EfsStore(home_ / "efs"), journal_),
                              settings_.sku, settings_.spc, settings_.knows_fastboot, journal_);
    }
    follow_modules();
    journal_.note(state(mode_));
}

void Modem::come_up()
{
    if (powered_ && linked_ && next_ != Mode::absent)
        await_arrival(settings_.power_up);
}

// A host tells a new node from the one before by the second in which it was made.
void Modem::await_arrival(milliseconds away)
{
    arrival_ = std::max(Clock::now() + away, plugged_until_);
}

void Modem::vanish(Mode next)
{
    mode_ = Mode::absent;
    next_ = next;
    departure_.reset();
    arrival_.reset();
    follow_modules();
}

void Modem::switch_power(char word)
{
    if (settings_.mode == Mode::absent)
        return;
    if (word != '1' && powered_) {
        powered_ = false;
        const bool was_up = is_up();
        vanish(Mode::absent);
        if (word == '0' || was_up)
            journal_.note(word == '0' ? state(Mode::off) : gone);
    }
    if (word != '0' && !powered_) {
        powered_ = true;
        next_ = settings_.boot[std::min(boots_++, settings_.boot.size() - 1)];
        come_up();
    }
}

void Modem::switch_link(char word)
{
    if (word != '1' && linked_) {
        linked_ = false;
        const bool was_up = is_up();
        // Cut off, it goes on with what it was at.
        vanish(departure_ ? departure_->next : was_up ? mode_ : next_);
        if (was_up)
            journal_.note(gone);
    }
    if (word != '0' && !linked_) {
        linked_ = true;
        come_up();
    }
}

void Modem::follow_modules()
{
    const bool running = is_running(), booting = mode_ == Mode::fastboot;
    const bool loading = mode_ == Mode::dload || mode_ == Mode::bootrom || mode_ == Mode::flash;
    const UsbFace face = booting ? UsbFace::fastboot : running ? UsbFace::running : UsbFace::loading;

    // A host that finds the network device or the first port then looks for the others: those two come last.
    if (!(running || loading || booting) || !modules_.loaded(bus_driver)) {
        sysfs_.hide_device();
        usb_.hide();
    } else {
        sysfs_.show_device(face);
        usb_.show(face);
    }
    if (!(running || loading) || !modules_.loaded(tty_drivers)) {
        lines_.clear();
    } else if (lines_.empty()) {
        const size_t texts = mode_ == Mode::normal ? 2 : running ? 1 : 0;
        for (size_t i = texts; i > 0; --i)
            plug_in(text_ports[i - 1]);
        plug_in(packet_port);
    }
    if (mode_ == Mode::normal && modules_.loaded(network_driver))
        sysfs_.show_network();
    else
        sysfs_.hide_network();
}

void Modem::plug_in(const std::string& node)
{
    lines_.push_back({Port(nodes_ / node), {}, {}});
    constexpr milliseconds second{1000}, clock_tick{10};
    const auto wall_clock = std::chrono::system_clock::now().time_since_epoch();
    plugged_until_ = Clock::now() + second + clock_tick - std::chrono::duration_cast<milliseconds>(wall_clock) % second;
    if (node != packet_port)
        lines_.back().at.emplace(node, flash_.version_of(flash_.chip().firmware).value_or(settings_.revision), faults_,
                                 journal_);
}

bool Modem::in_fastboot() const
{
    return mode_ == Mode::fastboot && !departure_ && modules_.loaded(bus_driver);
}

bool Modem::has_adb() const
{
    return is_running() && settings_.usb.adb && !departure_ && modules_.loaded(bus_driver);
}

void Modem::erase_files()
{
    EfsStore(home_ / "efs").clear();
    nv_.wipe();
}

void Modem::leave(Mode next, milliseconds away)
{
    departure_ = Departure{next, away};
}

void Modem::step(std::span<pollfd> others)
{
    std::vector<pollfd> watched(others.begin(), others.end());
    const Time now = Clock::now();
    tell_of_delay(awake_, now);
    for (const Line& line : lines_) {
        const auto due = line.port.due();
        watched.push_back({line.port.fd(), static_cast<short>(due && *due <= now ? POLLIN | POLLOUT : POLLIN), 0});
    }

    timespec wait{};
    const auto event = next_event(now);
    if (event && *event > now) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(*event - now).count();
        constexpr int64_t second = 1'000'000'000;
        wait = {left / second, left % second};
    }
    if (ppoll(watched.data(), watched.size(), event ? &wait : nullptr, nullptr) < 0 && errno != EINTR)
        must(-1, "ppoll");
    awake_ = Clock::now();
    tell_of_delay(event.value_or(awake_), awake_);
    std::copy_n(watched.begin(), others.size(), others.begin());

    for (Line& line : lines_)
        receive(line);
    pass_time();
}

std::optional<Time> Modem::next_event(Time now)
{
    constexpr milliseconds look_again{10};
    std::optional<Time> event = arrival_;
    const auto sooner = [&](Time time) { event = event ? std::min(*event, time) : time; };
    if (departure_)
        sooner(now + look_again);
    for (const Line& line : lines_)
        // What is due already waits for room, and POLLOUT tells of that.
        if (const auto due = line.port.due(); due && *due > now)
            sooner(*due);
    return event;
}

void Modem::pass_time()
{
    const Time now = Clock::now();
    for (Line& line : lines_)
        line.port.pump(now);

    if (departure_) {
        const bool heard =
            std::ranges::all_of(lines_, [&](Line& line) { return now - line.port.idle_since(now) >= last_words; });
        if (!heard)
            return;
        const auto [next, away] = *departure_;
        vanish(next);
        journal_.note(gone);
        if (away != never)
            await_arrival(away);
    }
    if (arrival_ && *arrival_ <= now) {
        arrival_.reset();
        enter(next_);
    }
}

void Modem::receive(Line& line)
{
    const Bytes input = line.port.receive();
    if (input.empty() || departure_)
        return; // a modem on its way out hears nothing
    if (!line.at)
        return receive_packets(line, input);
    Delivery delivery = line.at->take(input);
    for (Chunk& chunk : delivery.chunks)
        line.port.send(std::move(chunk));
    if (delivery.unplug)
        leave(Mode::absent, never);
}

void Modem::receive_packets(Line& line, View input)
{
    while (!departure_) {
        const auto received = line.deframer.take(input);
        if (!received)
            return;
        const View request = received->packet;
        Reply reply;
        if (received->state == FrameState::good) {
            if (!protocol_->is_block(request))
                journal_.request(line.port.name(), request);
            const bool refused = protocol_->heeds_refusals() && faults_.will_refuse();
            reply = refused ? Reply{.packet = protocol_->refusal(request, 0)} : protocol_->answer(request);
        } else {
            constexpr const char* texts[] = {"", "bad FCS", "aborted frame", "frame that is too long"};
            journal_.complain(texts[static_cast<size_t>(received->state)]);
            reply = protocol_->answer_to_damaged_frame(received->state);
        }
        if (reply.packet.empty())
            continue;

        Delivery delivery = faults_.deliver(reply, request, *protocol_);
        for (Chunk& chunk : delivery.chunks)
            line.port.send(std::move(chunk));
        carry_out(reply.then);
        if (delivery.unplug)
            leave(Mode::absent, never);
    }
}

void Modem::carry_out(Then then)
{
    switch (then) {
    case Then::stay:
        return;
    case Then::go_offline:
        return journal_.note(state(Mode::offline));
    case Then::crash:
        return leave(Mode::dload, settings_.reenumerate);
    case Then::reboot:
        return leave(Mode::normal, settings_.reenumerate);
    case Then::enter_fastboot:
        return leave(Mode::fastboot, settings_.reenumerate);
    case Then::start_programmer:
        if (flash_.chip().keeps_port)
            return enter(Mode::flash);
        return leave(Mode::flash, settings_.reenumerate);
    }
}

} // namespace sim
