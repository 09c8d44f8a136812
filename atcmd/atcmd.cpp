// tessel atcmd: sends one AT command to the modem, waits for the answer and judges it.
//
//   -c TEXT   the command; a carriage return is appended
//   -C TEXT   the command with escapes: \n \r \t \xHH. Nothing is appended, the answer is shown as it arrives and is
//             not judged
//   -p PATH   the AT port, /dev/ttyUSB1 unless given
//   -t N      seconds to wait for the answer to begin; 3, and never less
//   -e        leave the modem's echo on, and try the command up to 9 times
//   -v        print the answer
//   -o        copy the log to standard output
//
// Exit status: one of AtcmdStatus (atcmd.h); 0 on success, 2 with the usage text.
//
// Oddities kept on purpose, since callers live with them:
//   - Echo is turned off first, in up to 9 tries, and these share their counter with the command's: when the ninth
//     "ATE0" is the first to succeed, the command is never sent and the status is 0.
//   - "OK" anywhere in the answer is success, also inside another word, and wins over "ERROR".
//   - After \xHH the next character is copied unseen, so "\x41\r" gives A, a backslash and r.
//   - In the extended mode the status says whether something was answered, not what; and the answer lasts until the
//     modem is silent for a second, however long that takes.
//   - A longer answer than 32767 bytes is cut there and judged by what was kept.
//
// Decided here:
//   - A backslash, or \x, at the end of the text gives nothing.
//   - \x00 is sent as a zero byte: commands have a length, they do not end at a zero.
//   - A piece of a command that has 256 characters or more is refused before any of it is sent.
//   - Zero bytes of the modem are dropped from a judged answer, so that line noise cannot hide the OK behind it.

#include "atcmd/atcmd.h"

#include "app/applet_log.h"
#include "app/wan_common.h"
#include "platform/os.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int version_major = 1;
constexpr int version_minor = 5;

constexpr const char* default_port = "/dev/ttyUSB1";
constexpr int32_t default_time_out = 3; // seconds, the least as well
constexpr size_t piece_size = 256;      // a piece is shorter than this
constexpr int32_t attempts = 10;        // one more than the tries of echo and command together
constexpr cc_t read_tenths = 10;        // silence that ends a response, tenths of a second

int32_t s_atcmd_extend_mode = 0;
int32_t s_verbose = 0;
int32_t s_wait_for_next_input = 0;
int32_t s_not_buffer_atcmd_rsp = 0;

// `size` zero bytes, or none when there is no memory.
std::vector<char> allocate(size_t size)
{
    try {
        return std::vector<char>(size);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

void usage(const char* name)
{
    (void)printf("\n%s ver: %d.%d\n\n", name, version_major, version_minor);
    (void)printf("\nusage: %s -c|C [AT command] -p [port] -t [timeout] [-v] [-e] [-o]\n\n"
                 "\t-c\tAT command to be sent to the modem\n"
                 "\t-C\tAT command with supporting extended charaters, e.g. -C\"ati\\r\"\n"
                 "\t-p\tmodem port. Default port is %s\n"
                 "\t-t\ttimeout. Default timeout is %d\n"
                 "\t-e\tConfigure modem to echo received command\n"
                 "\t\tEcho turned off by default\n"
                 "\t-v\tVerbose output\n"
                 "\t-o\tOutput to console\n\n",
                 name, default_port, default_time_out);
}

// Waits until `fd` has something to read.
int32_t await_response(int fd, int32_t time_out)
{
    if (fd < 0 || fd >= FD_SETSIZE) {
        log_error("Select failed waiting for read.%s", error_text(EBADF).c_str());
        return ATCMD_SELECT_FAILED;
    }

    fd_set readable;
    fd_set exceptional;
    timeval remaining = {std::max(time_out, 0), 0};
    int ready = -1;
    do {
        FD_ZERO(&readable);
        FD_ZERO(&exceptional);
        FD_SET(fd, &readable);
        FD_SET(fd, &exceptional);
        ready = select(fd + 1, &readable, nullptr, &exceptional, &remaining);
    } while (ready < 0 && errno == EINTR);

    if (ready < 0) {
        log_error("Select failed waiting for read.%s", error_text(errno).c_str());
        return ATCMD_SELECT_FAILED;
    }
    if (ready == 0) {
        log_error("Timed out while waiting for response from modem. %s", error_text(ETIMEDOUT).c_str());
        return ATCMD_TIMED_OUT;
    }
    if (FD_ISSET(fd, &exceptional)) {
        log_error("Exception occurred during select. %s", error_text(EIO).c_str());
        return ATCMD_SELECT_FAILED;
    }
    return ATCMD_OK;
}

// Takes the next piece off `rest`: up to and including the first CR, else all of it.
std::string_view cut_piece(std::string_view& rest)
{
    const size_t cr = rest.find('\r');
    const std::string_view piece = rest.substr(0, cr == std::string_view::npos ? cr : cr + 1);
    rest.remove_prefix(piece.size());
    return piece;
}

// Sends one piece and judges its response, unless that was streamed.
int32_t exchange_piece(int write_fd, int read_fd, std::string_view piece, std::span<char> buffer, int32_t time_out)
{
    if (piece.size() >= piece_size) {
        log_error("Command piece of %zu characters refused, the most is %zu", piece.size(), piece_size - 1);
        return ATCMD_SEND_FAILED;
    }
    int32_t status = atcmd_send_cmd(write_fd, piece);
    if (status == ATCMD_OK)
        status = atcmd_read_response(read_fd, buffer, time_out);
    if (status != ATCMD_OK || s_not_buffer_atcmd_rsp != 0)
        return status;

    atcmd_parse_output(buffer.data());
    return atcmd_assert_response(buffer.data());
}

// Turns the modem's echo off, within the attempts that are left.
int32_t turn_echo_off(const char* port, std::span<char> buffer, int32_t time_out, int32_t& attempt)
{
    while (--attempt >= 1) {
        if (atcmd_process_cmd_helper(s_atcmd_extend_mode != 0 ? "ATE0\r" : "ATE0", port, buffer, time_out) == ATCMD_OK)
            return ATCMD_OK;
        std::this_thread::sleep_for(std::chrono::seconds(1)); // a modem that has just started needs a moment
    }
    log_error("Timed out, failed to turn off echo 0x%x", static_cast<unsigned>(ATCMD_ECHO_STAYS));
    return ATCMD_ECHO_STAYS;
}

void report(int32_t status, const char* response)
{
    const auto code = static_cast<unsigned>(status);
    if (status == ATCMD_OK || status == ATCMD_MODEM_ERROR) {
        if (s_verbose != 0 && s_not_buffer_atcmd_rsp == 0)
            (void)printf("%s\n", response);
    } else if (status == ATCMD_TIMED_OUT) {
        log_error("Timed out, failed to receiving response, 0x%x", code);
    } else {
        log_error("Unknown err_code: 0x%x", code);
    }
}

// Echo phase, then the command. Only where the echo stays is the command tried again.
int32_t atcmd_process_cmd(std::string_view command, const char* port, int32_t time_out, bool echo)
{
    std::vector<char> buffer = allocate(atcmd_response_size);
    if (buffer.empty())
        return ATCMD_NO_MEMORY;

    int32_t attempt = attempts;
    int32_t status = ATCMD_OK;
    if (!echo)
        status = turn_echo_off(port, buffer, time_out, attempt);
    if (status != ATCMD_OK)
        return status;

    s_not_buffer_atcmd_rsp = s_atcmd_extend_mode;
    while (--attempt >= 1) {
        status = atcmd_process_cmd_helper(command, port, buffer, time_out);
        report(status, buffer.data());
        if (status == ATCMD_OK || !echo)
            break;
    }
    return status;
}

} // namespace

int32_t atcmd_main(int32_t argc, char** argv, const Applet* /*row*/)
{
    const char* command_text = nullptr;
    const char* port = default_port;
    int32_t time_out = default_time_out;
    bool echo = false;

    int option = -1;
    while ((option = getopt(argc, argv, "c:C:p:t:evo")) != -1) { // NOLINT(concurrency-mt-unsafe): one thread
        switch (option) {
        case 'C':
            s_atcmd_extend_mode = 1;
            [[fallthrough]];
        case 'c':
            command_text = optarg;
            break;
        case 'p':
            port = optarg;
            break;
        case 't':
            time_out = std::max(text_to_int(optarg), default_time_out);
            break;
        case 'e':
            echo = true;
            break;
        case 'v':
            s_verbose = 1;
            break;
        case 'o':
            tessel_stdout_on_off(1);
            log_debug("stdout is on");
            break;
        default:
            usage(argv[0]);
            return ATCMD_USAGE;
        }
    }
    if (command_text == nullptr) {
        usage(argv[0]);
        return ATCMD_USAGE;
    }

    std::string command = command_text;
    if (s_atcmd_extend_mode != 0)
        parse_atcmd_string(command);

    struct stat found = {};
    if (stat(port, &found) != 0) {
        log_error("USB device %s doesn't exist", printable(port).c_str());
        return ATCMD_NO_PORT;
    }
    return atcmd_process_cmd(command, port, time_out, echo);
}

int32_t atcmd_process_cmd_helper(std::string_view command, const char* port, std::span<char> buffer, int32_t time_out)
{
    if (buffer.empty())
        return atcmd_assert_response(nullptr);

    const UniqueFd write_fd(atcmd_open_port(port));
    const UniqueFd read_fd(atcmd_open_port(port));
    if (!write_fd.valid() || !read_fd.valid())
        return ATCMD_NO_PORT;

    int32_t status = ATCMD_OK;
    while (!command.empty()) {
        s_wait_for_next_input = 0;
        std::fill(buffer.begin(), buffer.end(), '\0');
        status = exchange_piece(write_fd.get(), read_fd.get(), cut_piece(command), buffer, time_out);
        if (status != ATCMD_OK || s_wait_for_next_input == 0)
            break;
    }
    if (status == ATCMD_OK && command.find_first_not_of('\n') != std::string_view::npos) // \r\n ends a command, too
        log_warning("%zu characters behind a carriage return were not sent", command.size());
    return status;
}

void parse_atcmd_string(std::string& text)
{
    std::string parsed;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            parsed += text[i];
            continue;
        }
        if (++i == text.size())
            break;
        switch (text[i]) {
        case 'n':
            parsed += '\n';
            break;
        case 'r':
            parsed += '\r';
            break;
        case 't':
            parsed += '\t';
            break;
        case 'x': {
            int32_t value = 0;
            size_t digits = 0;
            while (digits < 2 && i + 1 < text.size() && isxdigit(static_cast<unsigned char>(text[i + 1])) != 0) {
                value = value * 16 + hex2dec(text[++i]);
                ++digits;
            }
            if (digits > 0)
                parsed += static_cast<char>(value);
            if (++i < text.size())
                parsed += text[i]; // unseen, even a backslash
            break;
        }
        default:
            parsed += text[i];
        }
    }
    text = std::move(parsed);
}

int32_t hex2dec(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    return tolower(static_cast<unsigned char>(digit)) - 87;
}

int atcmd_open_port(const char* path)
{
    const int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        log_error("Unable to open device %s. %s", printable(path).c_str(), error_text(errno).c_str());
        return -1;
    }

    // What is not a tty answers as it can: these calls may fail.
    (void)fcntl(fd, F_SETFL, 0);
    termios settings = {};
    if (tcgetattr(fd, &settings) == 0) {
        cfmakeraw(&settings);
        settings.c_cc[VMIN] = 0;
        settings.c_cc[VTIME] = read_tenths;
        (void)tcsetattr(fd, TCSANOW, &settings);
    }
    return fd;
}

int32_t atcmd_send_cmd(int fd, std::string_view piece)
{
    const size_t length = piece.size() + (s_atcmd_extend_mode != 0 ? 0 : 1);
    std::vector<char> line = allocate(length);
    if (line.size() != length) {
        log_error("%s: Unable to allocate memory. %s", "atcmd_send_cmd", error_text(ENOMEM).c_str());
        return ATCMD_NO_MEMORY;
    }
    std::fill(line.begin(), line.end(), '\r');
    std::copy(piece.begin(), piece.end(), line.begin());

    const ssize_t written = write(fd, line.data(), line.size());
    if (written < 0 || static_cast<size_t>(written) != line.size()) {
        const int error = written < 0 ? errno : EIO;
        log_error("Unable to send command %s to the modem. %s", printable(piece).c_str(), error_text(error).c_str());
        return ATCMD_SEND_FAILED;
    }
    return ATCMD_OK;
}

int32_t atcmd_read_response(int fd, std::span<char> buffer, int32_t time_out)
{
    const int32_t status = await_response(fd, time_out);
    if (status != ATCMD_OK)
        return status;

    // What is not a tty knows no second of silence, and would block in a read of nothing.
    const auto has_more = [fd, is_tty = isatty(fd) != 0] {
        pollfd port = {fd, POLLIN, 0};
        return is_tty || poll(&port, 1, read_tenths * 100) != 0;
    };
    const size_t room = buffer.size() - 1;
    size_t held = 0;
    for (bool first_read = true; held < room && (first_read || has_more()); first_read = false) {
        const ssize_t length = read(fd, &buffer[held], room - held);
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0) {
            log_error("Error while reading response from the modem. %s", error_text(errno).c_str());
            return ATCMD_READ_FAILED;
        }
        if (length == 0)
            break;
        if (s_not_buffer_atcmd_rsp == 0) {
            held += static_cast<size_t>(length);
        } else if (s_verbose != 0) {
            (void)fwrite(buffer.data(), 1, static_cast<size_t>(length), stdout);
            (void)fflush(stdout); // a person watches
        }
    }
    const auto end = std::remove(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(held), '\0');
    *end = '\0';
    return ATCMD_OK;
}

void atcmd_parse_output(char* text)
{
    const char* from = text + strspn(text, "\r\n");
    char* to = text;
    while (*from != '\0') {
        const size_t line_ends = strspn(from, "\r\n");
        *to++ = line_ends > 0 ? '\n' : *from;
        from += std::max<size_t>(line_ends, 1);
    }
    *to = '\0';
}

int32_t atcmd_assert_response(const char* text)
{
    if (text == nullptr) {
        log_debug("Response buffer is empty");
        return ATCMD_NO_BUFFER;
    }
    if (strstr(text, "OK") != nullptr)
        return ATCMD_OK;
    if (strstr(text, "ERROR") != nullptr) { // "+CME ERROR" too
        log_debug("Response contains ERR, AT cmd failed");
        return ATCMD_MODEM_ERROR;
    }
    if (strchr(text, '>') != nullptr) {
        s_wait_for_next_input = 1;
        return ATCMD_OK;
    }
    return s_atcmd_extend_mode != 0 ? ATCMD_OK : ATCMD_NOT_UNDERSTOOD;
}
