#include "tools.h"

#include "drivers.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <linux/magic.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <sys/wait.h>

namespace sim {

namespace {

// What a tool does, apart from being noted.
enum class Play { insert, remove, nothing, real, fastboot, adb };

struct ToolRow {
    std::string_view name;
    Play play;
};

constexpr ToolRow tool_rows[] = {
    {"insmod", Play::insert}, {"rmmod", Play::remove}, {"start", Play::nothing},     {"stop", Play::nothing},
    {"chown", Play::real},    {"chmod", Play::real},   {"fastboot", Play::fastboot}, {"adb", Play::adb},
};

// From the tool: its words, each with a zero behind it, and the last argument that is a file, open.
// To the tool: an order, its exit status, a text for standard output, or standard error if it failed. After `run_real`
// it sends one byte, the status of the real tool, and is told `exit`.
enum ToolOrder : uint8_t { order_exit, order_run_real };
constexpr size_t longest_message = 65536;

constexpr const char* socket_in_sandbox = "/dev/socket/tablet";

sockaddr_un address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("too long for a socket: " + path);
    std::ranges::copy(path, std::begin(address.sun_path));
    return address;
}

Fd new_socket(int flags)
{
    return Fd(must(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0), "socket"));
}

template <typename Function>
int with_address(Function function, const Fd& socket, const std::string& path)
{
    const sockaddr_un where = address(path);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): how sockets take their addresses
    return function(socket.get(), reinterpret_cast<const sockaddr*>(&where), socklen_t{sizeof where});
}

// The last argument that names a file, open. None of the drivers' files: the process that serves them would wait for
// its own answer when it lets go of one.
Fd named_file(std::span<const std::string> words)
{
    struct stat drivers {};
    const bool has_drivers = stat(drivers_in_sandbox, &drivers) == 0;
    while (words.size() > 1) {
        const char* path = words.back().c_str();
        struct stat about {};
        if (stat(path, &about) == 0 && S_ISREG(about.st_mode) && !(has_drivers && about.st_dev == drivers.st_dev))
            return Fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        words = words.first(words.size() - 1);
    }
    return Fd();
}

constexpr size_t room_for_file = CMSG_SPACE(sizeof(int));

bool send_with_file(const Fd& line, std::string message, const Fd& file)
{
    iovec bytes{message.data(), message.size()};
    alignas(cmsghdr) std::array<char, room_for_file> room{};
    msghdr parcel{};
    parcel.msg_iov = &bytes;
    parcel.msg_iovlen = 1;
    const int number = file.get();
    if (number >= 0) {
        parcel.msg_control = room.data();
        parcel.msg_controllen = room.size();
        cmsghdr* head = CMSG_FIRSTHDR(&parcel);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof number);
        std::memcpy(CMSG_DATA(head), &number, sizeof number);
    }
    return sendmsg(line.get(), &parcel, MSG_NOSIGNAL) >= 0;
}

// How long the message was, also where it does not fit; -1 when there is none.
ssize_t receive_with_file(const Fd& line, Bytes& message, Fd& file)
{
    iovec bytes{message.data(), message.size()};
    alignas(cmsghdr) std::array<char, room_for_file> room{};
    msghdr parcel{};
    parcel.msg_iov = &bytes;
    parcel.msg_iovlen = 1;
    parcel.msg_control = room.data();
    parcel.msg_controllen = room.size();
    const ssize_t count = recvmsg(line.get(), &parcel, MSG_TRUNC | MSG_CMSG_CLOEXEC);
    const cmsghdr* head = count < 0 ? nullptr : CMSG_FIRSTHDR(&parcel);
    int number = -1;
    if (head != nullptr && head->cmsg_type == SCM_RIGHTS && head->cmsg_len == CMSG_LEN(sizeof number)) {
        std::memcpy(&number, CMSG_DATA(head), sizeof number);
        file = Fd(number);
    }
    return count;
}

bool below_sys(std::string_view path)
{
    return path == "/sys" || path.starts_with("/sys/");
}

uint8_t run_real_tool(std::vector<std::string>& words)
{
    const std::vector<char*> arguments = argument_vector(words);
    constexpr uint8_t not_found = 127, killed = 1;
    pid_t child = -1;
    const std::string program = "/usr/bin/" + words.front();
    if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ) != 0)
        return not_found;
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return killed;
    return static_cast<uint8_t>(WEXITSTATUS(status));
}

std::string joined(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words)
        line += (line.empty() ? "" : " ") + printable(word);
    return line;
}

} // namespace

std::vector<std::string> tool_names()
{
    std::vector<std::string> names;
    for (const ToolRow& row : tool_rows)
        names.emplace_back(row.name);
    return names;
}

int call_tool(std::vector<std::string> words)
{
    words.front() = fs::path(words.front()).filename();
    constexpr int failed = 1;
    const auto fail = [&](const std::string& why) {
        std::cerr << words.front() << ": " << why << '\n';
        return failed;
    };
    const Fd line = new_socket(0);
    // A tablet that has stopped to answer does not hold its tools for ever.
    const timeval patience{60, 0};
    must(setsockopt(line.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), "socket");
    if (with_address(connect, line, socket_in_sandbox) != 0)
        return fail("nothing serves this tablet: start virtual_tablet serve");

    const Fd file = named_file(words);
    std::string message;
    for (const std::string& word : words)
        message += word + '\0';
    if (!send_with_file(line, message, file))
        return fail("nothing serves this tablet any more");

    std::array<uint8_t, longest_message> answer{};
    while (true) {
        const ssize_t count = recv(line.get(), answer.data(), answer.size(), 0);
        constexpr ssize_t head = 2;
        if (count < head)
            return fail("nothing serves this tablet any more");
        if (answer[0] == order_exit) {
            (answer[1] == 0 ? std::cout : std::cerr)
                << text_of(View(answer).subspan(head, static_cast<size_t>(count - head)));
            return answer[1];
        }
        const uint8_t status = run_real_tool(words);
        (void)send(line.get(), &status, 1, MSG_NOSIGNAL);
    }
}

ToolFailure ToolFailure::parse(std::string_view given)
{
    const size_t colon = std::min(given.find(':'), given.size());
    const std::string_view tool = given.substr(0, colon);
    if (std::ranges::find(tool_rows, tool, &ToolRow::name) == std::end(tool_rows))
        throw UsageError("no tool that can fail: " + std::string(given));
    return {std::string(tool), std::string(given.substr(std::min(colon + 1, given.size())))};
}

Tools::Tools(const fs::path& root, std::vector<ToolFailure> failures, const Modules& modules, Modem& modem,
             const Journal& journal)
    : listener_(new_socket(SOCK_NONBLOCK)), failures_(std::move(failures)), modules_(modules), modem_(modem),
      journal_(journal)
{
    // An address holds only a short path, and the tablet may stand anywhere.
    const fs::path path = root / fs::path(socket_in_sandbox).relative_path();
    fs::create_directories(path.parent_path());
    fs::remove(path);
    const Fd directory(must(open(path.parent_path().c_str(), O_PATH | O_CLOEXEC), path));
    const fs::path way = fs::path("/proc/self/fd") / std::to_string(directory.get()) / path.filename();
    must(with_address(bind, listener_, way), path);
    constexpr int backlog = 64;
    must(listen(listener_.get(), backlog), path);
}

void Tools::watch(std::vector<pollfd>& watched) const
{
    watched.push_back({listener_.get(), POLLIN, 0});
    for (const Call& call : calls_)
        watched.push_back({call.line.get(), POLLIN, 0});
}

void Tools::serve()
{
    for (int line = -1; (line = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
        calls_.push_back({Fd(line), {}});
    for (Call& call : calls_)
        answer(call);
    std::erase_if(calls_, [](const Call& call) { return call.over; });
}

void Tools::answer(Call& call)
{
    Bytes message(longest_message);
    Fd file;
    const ssize_t count = receive_with_file(call.line, message, file);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0) {
        call.over = true;
        return;
    }
    if (!call.waiting.empty())
        return end(call, call.waiting, {message[0], {}});

    Words words;
    const std::string text = text_of(View(message).first(std::min(message.size(), static_cast<size_t>(count))));
    for (const std::string_view word : split(text, '\0'))
        words.emplace_back(word);
    words.pop_back(); // behind the last zero
    const auto* const row =
        words.empty() ? std::end(tool_rows) : std::ranges::find(tool_rows, words.front(), &ToolRow::name);
    if (static_cast<size_t>(count) > message.size() || row == std::end(tool_rows))
        return end(call, {"a tool"}, {1, "virtual_tablet: this is not how a tool calls\n"});

    const auto asked_for = [&](const ToolFailure& failure) {
        const auto meant = [&](const std::string& word) {
            return failure.word == word || failure.word == fs::path(word).filename();
        };
        return failure.tool == words.front() &&
               (failure.word.empty() || std::any_of(words.begin() + 1, words.end(), meant));
    };
    if (std::ranges::any_of(failures_, asked_for))
        return end(call, words, {1, words.front() + ": fails, as it was asked to with --fail\n"});
    if (row->play == Play::real && std::ranges::none_of(words, below_sys)) {
        call.waiting = words;
        const std::array<uint8_t, 2> order{order_run_real, 0};
        (void)send(call.line.get(), order.data(), order.size(), MSG_NOSIGNAL);
        return;
    }
    end(call, words, play(words, file));
}

ToolOutcome Tools::play(const Words& words, const Fd& file)
{
    const Play play = std::ranges::find(tool_rows, words.front(), &ToolRow::name)->play;
    if (play == Play::nothing || play == Play::real)
        return {};
    if (play == Play::fastboot)
        return play_fastboot(std::span(words).subspan(1), file, modem_, journal_);
    if (play == Play::adb)
        return play_adb(std::span(words).subspan(1), modem_);
    if (words.size() < 2)
        return {1, words.front() + ": which module?\n"};
    const bool inserts = play == Play::insert;
    const std::string name = module_name(words[1]);
    const std::string why = inserts && file.get() < 0 ? "No such file or directory"
                            : inserts                 ? modules_.insert(name)
                                                      : modules_.remove(name);
    if (!why.empty())
        return {1, words.front() + (inserts ? ": can't insert '" : ": can't unload '") + words[1] + "': " + why + "\n"};
    modem_.follow_modules();
    return {};
}

void Tools::end(Call& call, const Words& words, const ToolOutcome& outcome) const
{
    journal_.note("ran " + joined(words) + ": " + std::to_string(outcome.status));
    const std::string answer = std::string{order_exit, static_cast<char>(outcome.status)} + outcome.message;
    (void)send(call.line.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    call.over = true;
}

} // namespace sim
