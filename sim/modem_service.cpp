// Request: header (4), sub-command (1), then by sub-command a phase (1) and a path or data, or a command line.
// Answer: the request's first six bytes, flag (1), then the length of the data (2, little-endian) and the data, or
// after the flag "no" an error code (1).
#include "protocol.h"

#include <fcntl.h>

namespace sim {

namespace {

constexpr size_t sub_command_at = 4, phase_at = 5, line_at = 5, path_at = 6, data_at = 6;
constexpr size_t answer_header_size = 6, answer_length_at = 7, chunk_size = 1024;
constexpr uint8_t no = 0, yes = 1;

enum SubCommand : uint8_t { sub_kernel_log = 8, sub_run = 9, sub_pull = 10, sub_push = 11, sub_apps_version = 12 };
enum Phase : uint8_t { phase_first = 0, phase_next = 1, phase_close = 2, no_phase = 0xFF };
enum LogError : uint8_t { log_bad_format = 0, log_no_file = 2, log_unknown_sub_command = 4 };
enum FileError : uint8_t { file_end = 0, file_bad_format = 1, file_missing = 3, file_not_open = 4, file_failed = 5 };

uint8_t phase_of(View request)
{
    return request.size() > phase_at ? request[phase_at] : uint8_t{no_phase};
}

Bytes answer_header(View request)
{
    Bytes packet = copy_of(request.first(std::min(request.size(), answer_header_size)));
    packet.resize(answer_header_size);
    return packet;
}

Reply data(View request, std::string_view text)
{
    Bytes packet = answer_header(request);
    packet.push_back(yes);
    add_le16(packet, static_cast<uint32_t>(text.size()));
    add(packet, bytes_of(text));
    return {.packet = packet, .length_at = answer_length_at, .length_size = 2};
}

// A file on its way to the host, chunk by chunk.
struct Outgoing {
    std::string text;
    size_t at = 0;

    Reply next_chunk(View request)
    {
        const std::string chunk = text.substr(at, chunk_size);
        at += chunk.size();
        return data(request, chunk);
    }
};

class Service : public Protocol {
public:
    Service(fs::path home, std::string apps_version, const Journal& journal)
        : home_(std::move(home)), apps_version_(std::move(apps_version)), journal_(journal)
    {
    }

    Reply answer(View request) override
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
        case sub_apps_version:
            return apps_version(request);
        default:
            return refuse(request, log_unknown_sub_command, "unknown sub-command of the modem service");
        }
    }

    Bytes refusal(View request, uint32_t code) const override
    {
        Bytes packet = answer_header(request);
        packet.insert(packet.end(), {no, byte_of(code, 0)});
        return packet;
    }

private:
    Reply refuse(View request, uint8_t code, const std::string& complaint) const
    {
        journal_.complain(complaint);
        return {.packet = refusal(request, code)};
    }

    Reply apps_version(View request) const
    {
        if (request.size() != sub_command_at + 1)
            return refuse(request, log_bad_format, "request for the applications' version of a wrong length");
        Bytes packet = answer_header(request);
        add(packet, bytes_of(apps_version_));
        return {.packet = packet};
    }

    Reply kernel_log(View request)
    {
        const uint8_t phase = phase_of(request);
        if (request.size() != phase_at + 1 || phase > phase_next || (phase == phase_next && !log_))
            return refuse(request, log_bad_format, "kernel log request of a wrong form");
        if (phase == phase_first) {
            const auto text = read_file(home_ / "kernel.log");
            if (!text)
                return {.packet = refusal(request, log_no_file)};
            log_ = Outgoing{*text};
        }
        return log_->next_chunk(request);
    }

    Reply run(View request) const
    {
        const auto line = terminated(request.subspan(line_at));
        if (!line)
            return refuse(request, log_bad_format, "command line without its zero byte");
        append_line(home_ / "commands.log", *line);
        return data(request, {});
    }

    Reply pull(View request)
    {
        const uint8_t phase = phase_of(request);
        if (phase == phase_first) {
            pulled_.reset();
            const auto path = path_in(request);
            if (!path)
                return refuse(request, file_bad_format, "pull of what is no path in the modem");
            const auto text = read_file(*path);
            if (!text)
                return {.packet = refusal(request, file_missing)};
            pulled_ = Outgoing{*text};
            return pulled_->next_chunk(request);
        }
        if (phase != phase_next || request.size() != phase_at + 1)
            return refuse(request, file_bad_format, "pull request of a wrong form");
        if (!pulled_)
            return refuse(request, file_not_open, "pull from a file that is not open");
        if (pulled_->at < pulled_->text.size())
            return pulled_->next_chunk(request);
        pulled_.reset();
        return {.packet = refusal(request, file_end)};
    }

    Reply push(View request)
    {
        const uint8_t phase = phase_of(request);
        if (phase == phase_first) {
            const auto path = path_in(request);
            if (!path)
                return refuse(request, file_bad_format, "push to what is no path in the modem");
            pushed_ = Fd(open(path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644));
            return pushed_.get() < 0 ? Reply{.packet = refusal(request, file_missing)} : data(request, {});
        }

        const View block = request.subspan(std::min(data_at, request.size()));
        const bool closes = phase == phase_close;
        if (phase > phase_close || block.empty() != closes || block.size() > chunk_size)
            return refuse(request, file_bad_format, "push request of a wrong form");
        if (pushed_.get() < 0)
            return refuse(request, file_not_open, "push into a file that is not open");
        if (closes)
            pushed_.close();
        else if (write(pushed_.get(), block.data(), block.size()) != std::ssize(block))
            return {.packet = refusal(request, file_failed)};
        return data(request, {});
    }

    // The file that a request names, below the modem's files/ whatever the name says.
    std::optional<fs::path> path_in(View request) const
    {
        const auto name = terminated(request.subspan(path_at));
        if (!name)
            return std::nullopt;
        const fs::path root = fs::canonical(home_ / "files");
        std::error_code error;
        const fs::path path = fs::weakly_canonical(root / fs::path(*name).relative_path(), error);
        const bool outside = std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first != root.end();
        return error || outside ? std::nullopt : std::optional(path);
    }

    fs::path home_;
    std::string apps_version_;
    const Journal& journal_;
    std::optional<Outgoing> log_;
    std::optional<Outgoing> pulled_;
    Fd pushed_;
};

} // namespace

std::unique_ptr<Protocol> make_service(fs::path home, std::string apps_version, const Journal& journal)
{
    return std::make_unique<Service>(std::move(home), std::move(apps_version), journal);
}

} // namespace sim
