#include "crashdump/modem_cmd.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "crashdump/diag_request.h"
#include "diag/packet_fields.h"
#include "diag/serial_port.h"
#include "platform/os.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* no_response = "Doesn't receive DIAG response\n";

// Requests: 4B 00 51 00, sub-command, phase, then text or data. Answers: the header as sent, a flag (0 is an error),
// then an error code, or a length (2) and that many bytes. Little-endian.
namespace modem_service {
constexpr uint8_t code = 0x4B, command = 0x51;
constexpr uint8_t kernel_log = 8, run = 9, pull = 10, push = 11;
constexpr uint8_t phase_first = 0, phase_next = 1;                 // of a log or a pull
constexpr uint8_t phase_open = 0, phase_data = 1, phase_close = 2; // of a push
constexpr size_t command_at = 2, sub_command_at = 4, line_at = 5, phase_at = 5, argument_at = 6;
constexpr size_t flag_at = 6, error_at = 7, length_at = 7, data_at = 9;
constexpr size_t block_size = 1024;  // of a push
constexpr size_t buffer_size = 1034; // of any answer but that to run
constexpr size_t run_buffer_size = 512;
} // namespace modem_service

// Kernel-log errors by code.
constexpr const char* kernel_log_errors[] = {
    "Invalid command format ",
    "Memory alloc failure on modem ",
    "Failed to open /var/kernel.log on modem ",
    "Failed to read /var/kernel.log on modem ",
    "Unknown sub-command from host modem ",
};

// Transfer errors by code.
constexpr const char* s_pullcmd_err[] = {
    "None",
    "Invalid command format",
    "Invalid command format",
    "File doesn't exist on modem",
    "File isn't opened",
    "Unknown error",
};
constexpr const char* s_pushcmd_err[] = {
    "None",
    "Invalid command format",
    "Invalid command format",
    "Failed to create the file on modem",
    "File isn't opened",
    "Unknown error",
};
static_assert(std::size(s_pullcmd_err) == 6 && std::size(s_pushcmd_err) == 6);

// A request and, after the exchange, its answer in the same place.
struct ServiceBuffer {
    std::array<uint8_t, modem_service::buffer_size> bytes;
    uint32_t length; // of the answer

    [[nodiscard]] std::span<const uint8_t> answer() const { return std::span(bytes).first(length); }
    [[nodiscard]] bool failed() const { return get_u8(answer(), modem_service::flag_at) == 0; }
    [[nodiscard]] uint8_t error() const { return get_u8(answer(), modem_service::error_at); }
};

// Sends the first `length` bytes of the buffer as a request of the service, its header put in front. False after an
// ERROR when nothing came back. What came may be a DIAG error reply, whose meaning the filter has printed.
[[nodiscard]] bool send_to_service(ServiceBuffer& buffer, uint8_t sub_command, size_t length,
                                   size_t capacity = modem_service::buffer_size)
{
    put_u8(buffer.bytes, 0, modem_service::code);
    put_u8(buffer.bytes, 1, 0);
    put_le16(buffer.bytes, modem_service::command_at, modem_service::command);
    put_u8(buffer.bytes, modem_service::sub_command_at, sub_command);

    ResponseBuffer response = {static_cast<uint32_t>(capacity), 0, buffer.bytes.data()};
    const int32_t result = send_diag_request(std::span(buffer.bytes).first(length), response);
    buffer.length = response.length;
    if (result != 0)
        log_error("%s", no_response);
    return result == 0;
}

// The same where the answer is looked at. A DIAG error reply is none: an echo of the request stands at its offsets.
[[nodiscard]] bool exchange_service(ServiceBuffer& buffer, uint8_t sub_command, size_t length)
{
    if (!send_to_service(buffer, sub_command, length))
        return false;
    if (get_u8(buffer.answer(), 0) == modem_service::code)
        return true;
    log_error("%s", no_response);
    return false;
}

// A request with a phase and nothing behind it.
[[nodiscard]] bool exchange_phase(ServiceBuffer& buffer, uint8_t sub_command, uint8_t phase)
{
    put_u8(buffer.bytes, modem_service::phase_at, phase);
    return exchange_service(buffer, sub_command, modem_service::argument_at);
}

// The request that names the file of a transfer.
[[nodiscard]] bool exchange_path(ServiceBuffer& buffer, uint8_t sub_command, uint8_t phase, std::string_view path)
{
    const size_t length = modem_service::argument_at + path.size() + 1;
    if (length > buffer.bytes.size()) {
        log_error("Path on modem is too long: %d characters", static_cast<int>(path.size()));
        return false;
    }
    put_u8(buffer.bytes, modem_service::phase_at, phase);
    const auto end = std::ranges::copy(path, buffer.bytes.begin() + modem_service::argument_at).out;
    *end = '\0';
    return exchange_service(buffer, sub_command, length);
}

// The data of a successful answer, which end where the answer ends, whatever it announces.
std::span<const uint8_t> data_of(std::span<const uint8_t> answer)
{
    const uint16_t announced = get_le16(answer, modem_service::length_at);
    const auto carried = answer.subspan(std::min(answer.size(), modem_service::data_at));
    return carried.first(std::min<size_t>(announced, carried.size()));
}

// Tells of an answer that carries less than it announces.
void warn_if_cut(std::span<const uint8_t> answer)
{
    const uint16_t announced = get_le16(answer, modem_service::length_at);
    const size_t carried = data_of(answer).size();
    if (carried < announced)
        log_warning("Response carries %d bytes of %d", static_cast<int>(carried), announced);
}

// `name` in the current directory; none, with an ERROR, when that is longer than 511 characters.
std::optional<std::string> in_current_directory(std::string_view name)
{
    std::array<char, 512> directory{};
    const size_t room = directory.size() - 1;
    if (name.size() >= room || getcwd(directory.data(), room - name.size()) == nullptr) {
        log_error("Not enough buffer!");
        return std::nullopt;
    }
    return std::string(directory.data()).append("/").append(name);
}

// `file`, opened from `path`; none, with an ERROR, where that failed. A folder opens for reading, too, and is none of
// the files meant here.
UniqueFile opened_or_log(UniqueFile file, const std::string& path)
{
    struct stat file_status {};
    if (file != nullptr && fstat(fileno(file.get()), &file_status) == 0 && S_ISDIR(file_status.st_mode))
        file.reset();
    if (file == nullptr)
        log_error("Failed to open %s", printable(path).c_str());
    return file;
}

void print_pull_error(uint8_t code)
{
    if (code < std::size(s_pullcmd_err))
        (void)puts(s_pullcmd_err[code]);
    else
        (void)printf("Invalid error code: %d\n", code);
}

void print_push_error(uint8_t code)
{
    if (code < std::size(s_pushcmd_err))
        (void)printf("err code (%d): %s\n", code, s_pushcmd_err[code]);
    else
        (void)printf("Invalid error code: %d\n", code);
}

// Sends the file block by block; `total` counts what the modem took. False when the transfer broke off.
[[nodiscard]] bool push_data(ServiceBuffer& buffer, FILE* file, uint64_t& total)
{
    size_t count = modem_service::block_size;
    while (count == modem_service::block_size) {
        count = fread(&buffer.bytes[modem_service::argument_at], 1, modem_service::block_size, file);
        if (count == 0)
            break;
        put_u8(buffer.bytes, modem_service::phase_at, modem_service::phase_data);
        if (!exchange_service(buffer, modem_service::push, modem_service::argument_at + count))
            return false;
        if (buffer.failed()) {
            print_push_error(buffer.error());
            return false;
        }
        total += count;
    }
    if (ferror(file) != 0)
        log_error("Failed to read the file to push");
    return true;
}

// Puts the data of one answer to a pull into the local file.
[[nodiscard]] bool store(std::span<const uint8_t> answer, FILE* file)
{
    warn_if_cut(answer);
    const auto data = data_of(answer);
    if (fwrite(data.data(), 1, data.size(), file) == data.size())
        return true;
    log_error("Failed to write the pulled file: %s", error_text(errno).c_str());
    return false;
}

void pull_data(ServiceBuffer& buffer, FILE* file)
{
    using namespace modem_service;
    if (buffer.failed()) {
        print_pull_error(buffer.error());
        return;
    }
    if (!store(buffer.answer(), file))
        return;

    while (exchange_phase(buffer, pull, phase_next)) {
        if (buffer.failed()) {
            print_pull_error(buffer.error());
            return;
        }
        if (!store(buffer.answer(), file) || data_of(buffer.answer()).empty())
            return;
    }
}

} // namespace

uint32_t diag_parse2(std::span<uint8_t, typed_request_size> request, std::string_view text)
{
    constexpr std::string_view delimiters = " ,";
    uint32_t count = 0;
    for (auto token = next_token(text, delimiters); !token.empty(); token = next_token(text, delimiters)) {
        const int32_t value = text_to_int(std::string(token));
        if (value > UINT8_MAX) {
            log_error("Invalid data: %d\n", value);
            return 0;
        }
        if (count == request.size()) {
            log_error("Out of buffer size: 512\n");
            return 0;
        }
        request[count++] = static_cast<uint8_t>(value);
    }
    return count;
}

void send_diagcmd(std::string_view text)
{
    std::array<uint8_t, typed_request_size> request{};
    const uint32_t count = diag_parse2(request, text);
    if (count == 0)
        return;

    ResponseBuffer response = {static_cast<uint32_t>(request.size()), 0, request.data()};
    if (send_diag_request(std::span(request).first(count), response) != 0) {
        log_error("%s", no_response);
        return;
    }
    if (response.length != 0) {
        (void)puts("Response:");
        dump_buf(std::span(request).first(response.length));
    }
}

int32_t send_diagcmd2(std::string_view text, std::span<uint8_t> response, uint32_t& length)
{
    ResponseBuffer buffer = {static_cast<uint32_t>(response.size()), 0, response.data()};
    length = 0;
    std::array<uint8_t, typed_request_size> request{};
    const uint32_t count = diag_parse2(request, text);
    if (count == 0)
        return 1;
    const int32_t result = send_diag_request(std::span(request).first(count), buffer);
    if (result == 0)
        length = buffer.length;
    return result;
}

void dump_mdmkernel_log()
{
    using namespace modem_service;
    ServiceBuffer buffer{};
    if (!exchange_phase(buffer, kernel_log, phase_first) || dump_dmesg(buffer.answer()) != 0)
        return;
    while (exchange_phase(buffer, kernel_log, phase_next) && dump_dmesg(buffer.answer()) == 0) {
        if (data_of(buffer.answer()).empty())
            return;
    }
}

int32_t dump_dmesg(std::span<const uint8_t> response)
{
    if (get_u8(response, modem_service::flag_at) != 0) {
        warn_if_cut(response);
        const auto data = data_of(response);
        (void)printf("%s", std::string(data.begin(), data.end()).c_str());
        return 0;
    }
    const uint8_t code = get_u8(response, modem_service::error_at);
    if (code < std::size(kernel_log_errors))
        log_error("%s", kernel_log_errors[code]);
    else
        log_error("Unknown error: %d from modem ", code);
    return -1;
}

void run_modem_cmd(const std::string& name)
{
    constexpr int line_limit = 506; // with the terminating zero
    const auto path = name.find('/') != std::string::npos ? name : in_current_directory(name);
    if (!path)
        return;
    (void)puts(path->c_str());
    const UniqueFile file = opened_or_log(open_file(*path, "r"), *path);
    if (file == nullptr)
        return;

    ServiceBuffer buffer{};
    std::array<char, line_limit> text{};
    while (fgets(text.data(), line_limit, file.get()) != nullptr) {
        std::string line = text.data();
        line.resize(line.find_last_not_of("\r\n") + 1);
        (void)printf("RUN: %s\n", line.c_str());

        const auto end = std::ranges::copy(line, buffer.bytes.begin() + modem_service::line_at).out;
        *end = '\0';
        // Whether the modem could run it is not known in any case: that it is there is enough for the next line.
        if (!send_to_service(buffer, modem_service::run, modem_service::line_at + line.size() + 1,
                             modem_service::run_buffer_size))
            return;
    }
}

void pull_modem_file(const std::string& path)
{
    const auto local = in_current_directory(path.substr(path.rfind('/') + 1));
    if (!local)
        return;
    (void)puts(local->c_str());
    UniqueFile file = opened_or_log(make_file(*local), *local);
    if (file == nullptr)
        return;

    ServiceBuffer buffer{};
    if (exchange_path(buffer, modem_service::pull, modem_service::phase_first, path))
        pull_data(buffer, file.get());
    if (fclose(file.release()) != 0)
        log_error("Failed to write the pulled file: %s", error_text(errno).c_str());
}

void push_file2modem(const std::string& paths)
{
    using namespace modem_service;
    const size_t comma = paths.find(',');
    if (comma == std::string::npos) {
        log_error("Format issue: with src or dst file");
        return;
    }
    const std::string destination = paths.substr(comma + 1);
    (void)printf("dst: %s\n", destination.c_str());
    const std::string given = paths.substr(0, comma);
    const auto source = given.starts_with('/') ? given : in_current_directory(given);
    if (!source)
        return;
    (void)printf("src: %s\n", source->c_str());
    const UniqueFile file = opened_or_log(open_file(*source, "r"), *source);
    if (file == nullptr)
        return;

    ServiceBuffer buffer{};
    if (!exchange_path(buffer, push, phase_open, destination))
        return;
    if (buffer.failed()) {
        print_push_error(buffer.error());
        return;
    }
    uint64_t total = 0;
    if (!push_data(buffer, file.get(), total))
        return;
    log_info("Total bytes (%d) sent! ", static_cast<int>(total));
    if (exchange_phase(buffer, push, phase_close) && buffer.failed())
        print_push_error(buffer.error());
}

int32_t get_modem_sku(uint32_t& sku)
{
    constexpr size_t sku_at = 4;
    std::array<uint8_t, 64> response{};
    uint32_t length = 0;

    (void)open_serial_port("/dev/ttyUSB0"); // ends the process where it fails
    const int32_t result = send_diagcmd2("75,0,68,0", response, length);
    close_serial_port();
    if (result == 0)
        sku = get_le32(std::span(response).first(length), sku_at);
    return result;
}

void show_modem_sku()
{
    uint32_t sku = 0;
    if (get_modem_sku(sku) != 0)
        log_warning(" Failed to get modem sku!!!");
    else if (sku < modem_sku_desc.size() - 1)
        log_info(" %s", modem_sku_desc[sku]);
    else
        log_info(" UNKNOWN: %d ", static_cast<int>(sku));
}
