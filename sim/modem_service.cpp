#include "modem_service.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <fcntl.h>

namespace sim {

namespace {

// Request: header (4), sub-command (1), then by sub-command a phase (1) and a path or data, or a command line.
// Answer: the request's first six bytes, flag (1), then the data's length (2, little-endian) and the data, or after
// the flag "no" an error code (1).
constexpr std::array<uint8_t, 4> header{0x4B, 0x00, 0x51, 0x00};
constexpr size_t sub_command_at = 4, phase_at = 5, text_at = 5, path_at = 6, data_at = 6;
constexpr size_t answer_header_size = 6, answer_length_at = 7, chunk_size = 1024;
constexpr uint8_t no = 0, yes = 1;

enum SubCommand : uint8_t { sub_kernel_log = 8, sub_run = 9, sub_pull = 10, sub_push = 11, sub_apps_version = 12 };
enum Phase : uint8_t { phase_first = 0, phase_next = 1, phase_close = 2 };

enum LogError : uint8_t { log_bad_format = 0, log_no_file = 2, log_unknown_sub_command = 4 };
enum FileError : uint8_t { file_end = 0, file_bad_format = 1, file_missing = 3, file_not_open = 4, file_failed = 5 };

Bytes answer_header(View request)
{
    Bytes packet(request.begin(),
                 request.begin() + static_cast<ptrdiff_t>(std::min(request.size(), answer_header_size)));
    packet.resize(answer_header_size);
    return packet;
}

} // namespace

bool ModemService::is_request(View request)
{
    return starts_with(request, header);
}

Bytes ModemService::refusal(View request, uint8_t code)
{
    Bytes packet = answer_header(request);
    packet.push_back(no);
    packet.push_back(code);
    return packet;
}

Reply ModemService::answer(View request)
{
    switch (request.size() > sub_command_at ? request[sub_command_at] : 0) {
    case sub_kernel_log:
        return kernel_log(request);
    case sub_run:
        return run(request);
    case sub_pull:
        return pull(request);
    case sub_push:
        return push(request);
    case sub_apps_version: {
        if (request.size() != sub_command_at + 1)
            return refuse(request, log_bad_format, "request for the applications' version of a wrong length");
        Bytes packet = answer_header(request);
        add(packet, bytes_of(apps_version_));
        return {.packet = packet};
    }
    default:
        return refuse(request, log_unknown_sub_command, "unknown sub-command of the modem service");
    }
}

Reply ModemService::refuse(View request, uint8_t code, const std::string& complaint) const
{
    journal_.complain(complaint);
    return {.packet = refusal(request, code)};
}

Reply ModemService::data(View request, std::string_view text)
{
    Bytes packet = answer_header(request);
    packet.push_back(yes);
    add_le16(packet, static_cast<uint32_t>(text.size()));
    add(packet, bytes_of(text));
    return {.packet = packet, .length_at = answer_length_at, .length_size = 2};
}

Reply ModemService::next_chunk(View request, Outgoing& file)
{
    const auto chunk = std::string_view(file.text).substr(file.at, chunk_size);
    file.at += chunk.size();
    return data(request, chunk);
}

Reply ModemService::kernel_log(View request)
{
    if (request.size() != phase_at + 1 || request[phase_at] > phase_next)
        return refuse(request, log_bad_format, "kernel log request of a wrong form");
    if (request[phase_at] == phase_first) {
        const auto text = read_file(home_ / "kernel.log");
        if (!text)
            return {.packet = refusal(request, log_no_file)};
        log_ = Outgoing{*text};
    }
    if (!log_)
        return refuse(request, log_bad_format, "next piece of a kernel log that was not begun");
    return next_chunk(request, *log_);
}

Reply ModemService::run(View request) const
{
    const View line = request.subspan(text_at);
    if (line.empty() || std::find(line.begin(), line.end(), 0) != line.end() - 1)
        return refuse(request, log_bad_format, "command line without its zero byte");
    const Fd log(
        must(open((home_ / "commands.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), "commands.log"));
    append_line(log.get(), text_of(line.first(line.size() - 1)));
    return data(request, {});
}

Reply ModemService::pull(View request)
{
    const uint8_t phase = request.size() > phase_at ? request[phase_at] : UINT8_MAX;
    if (phase == phase_first) {
        pulled_.reset();
        const auto path = path_in(request);
        if (!path)
            return {.packet = refusal(request, file_bad_format)};
        const auto text = read_file(*path);
        if (!text)
            return {.packet = refusal(request, file_missing)};
        pulled_ = Outgoing{*text};
        return next_chunk(request, *pulled_);
    }
    if (phase != phase_next || request.size() != phase_at + 1)
        return refuse(request, file_bad_format, "pull request of a wrong form");
    if (!pulled_)
        return refuse(request, file_not_open, "next piece of a file that is not open");
    if (pulled_->at == pulled_->text.size()) {
        pulled_.reset();
        return {.packet = refusal(request, file_end)};
    }
    return next_chunk(request, *pulled_);
}

Reply ModemService::push(View request)
{
    const uint8_t phase = request.size() > phase_at ? request[phase_at] : UINT8_MAX;
    if (phase == phase_first) {
        pushed_.close();
        const auto path = path_in(request);
        if (!path)
            return {.packet = refusal(request, file_bad_format)};
        pushed_ = Fd(open(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644));
        if (pushed_.get() < 0)
            return {.packet = refusal(request, file_missing)};
        return data(request, {});
    }

    const View block = request.subspan(std::min(data_at, request.size()));
    const bool closing = phase == phase_close;
    if (phase > phase_close || block.empty() != closing || block.size() > chunk_size)
        return refuse(request, file_bad_format, "push request of a wrong form");
    if (pushed_.get() < 0)
        return refuse(request, file_not_open, "push into a file that is not open");
    if (closing)
        pushed_.close();
    else if (write(pushed_.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size()))
        return {.packet = refusal(request, file_failed)};
    return data(request, {});
}

// The file that a request names, below modem/files/ whatever the name says.
std::optional<fs::path> ModemService::path_in(View request) const
{
    const View text = request.subspan(path_at);
    if (text.empty() || std::find(text.begin(), text.end(), 0) != text.end() - 1) {
        journal_.complain("path without its zero byte");
        return std::nullopt;
    }
    const fs::path root = fs::canonical(home_ / "files");
    const fs::path name = fs::path(text_of(text.first(text.size() - 1))).relative_path();
    std::error_code error;
    const fs::path path = fs::weakly_canonical(root / name, error);
    const auto outside = std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first != root.end();
    if (error || outside) {
        journal_.complain("path that leads out of the modem's files");
        return std::nullopt;
    }
    return path;
}

} // namespace sim
