#include "modem.h"

#include "efs2.h"

namespace sim {

namespace {

using std::chrono::milliseconds;

// A resetting modem keeps the bus for a moment after its last words, so that a host hears them.
constexpr milliseconds last_words{150};
constexpr milliseconds never{-1};

constexpr const char* mode_names[] = {"absent", "normal", "offline", "dload", "fastboot"};

std::string state(Mode mode)
{
    return std::string("state ") + mode_names[static_cast<size_t>(mode)];
}

} // namespace

Modem::Modem(const fs::path& nodes, const fs::path& home, const ModemSettings& settings)
    : nodes_(nodes), home_(home), settings_(settings), journal_(home / "journal.txt"),
      faults_(settings.faults, journal_), nv_(home / "nv"), memory_(settings.regions, settings.seed)
{
    enter(settings.mode);
}

void Modem::enter(Mode mode)
{
    faults_.begin_mode();
    if (mode == Mode::dload) {
        memory_.save(home_ / "memory");
        protocol_ = make_dload(memory_, settings_.dload_version, settings_.region_table, journal_);
        lines_.push_back({Port(nodes_ / "ttyUSB0"), {}, {}});
    } else if (mode == Mode::normal) {
        protocol_ = make_diag(nv_, make_service(home_, settings_.apps_version, journal_),
                              make_efs2(EfsStore(home_ / "efs"), journal_), settings_.sku, settings_.spc, journal_);
        lines_.push_back({Port(nodes_ / "ttyUSB0"), {}, {}});
        for (const std::string name : {"ttyUSB1", "ttyUSB2"})
            lines_.push_back({Port(nodes_ / name), {}, AtPort(name, settings_.revision, faults_, journal_)});
    }
    journal_.note(state(mode));
}

void Modem::leave(Mode next, milliseconds away)
{
    departure_ = Departure{next, away};
}

void Modem::step(std::span<pollfd> others)
{
    std::vector<pollfd> watched(others.begin(), others.end());
    const Time now = Clock::now();
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
        lines_.clear();
        journal_.note("state gone");
        next_ = departure_->next;
        if (departure_->away != never)
            arrival_ = now + departure_->away;
        departure_.reset();
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
            journal_.request(line.port.name(), request);
            reply = protocol_->answer(request);
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
    }
}

} // namespace sim
