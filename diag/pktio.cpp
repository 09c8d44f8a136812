#include "diag/pktio.h"

#include "diag/hdlc.h"
#include "diag/log.h"
#include "diag/packet_fields.h"
#include "platform/android_log.h"
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <asm/termbits.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The endpoint takes 64-byte packets and waits for a short one after a full one.
constexpr uint32_t endpoint_packet_size = 64;

// How long the modem may refuse to take bytes, as long as it may take to answer.
constexpr int write_time_ms = 5000;

constexpr char stop_message[] = "STOP"; // sent with its zero

// Guards the descriptors, so that the reader does not close one while a sender writes to it.
std::mutex sDescriptorMutex;
int32_t sPktIOFd = -1;
std::array<int32_t, 2> sSockets = {-1, -1}; // the reader watches 0, shutdown writes to 1

pthread_t sPktIOReadThread;
uint32_t sPktIOUp = 0;               // the reader was started and not yet joined
std::atomic<bool> sStopping = false; // a port that never falls silent must not keep the reader from its end
PacketHandler sPktIOHandlePacketCallback = nullptr;
uintptr_t sPktIOHandlePacketUserData = 0;
ShutdownHandler sPktIOShutdownCallback = nullptr;
uintptr_t sPktIOShutdownUserData = 0;

// Guards the mode and what belongs to it, so that every byte read is known to be of the mode before or after a switch.
std::mutex sModeMutex;
uint32_t sUnframeReadMode = 0;
uint32_t sModeSwitches = 0; // tells the reader that what it gathered is of an earlier mode
uint32_t sStaleBytes = 0;   // bytes in the port's input that came before the switch

std::array<uint8_t, pktio_buffer_size> sPktIOReadBuffer;
std::array<uint8_t, pktio_buffer_size> sPktIODecodeBuffer;
std::array<uint8_t, pktio_buffer_size + 1> sPktIOOutputBuffer; // a full frame and its second flag

bool traced(uint32_t mask)
{
    return (gOdlLogMask & mask) != 0;
}

int port_get_attributes(int fd, termios& attributes)
{
    return ioctl(fd, TCGETS, &attributes);
}

int port_set_attributes(int fd, const termios& attributes)
{
    return ioctl(fd, TCSETS, &attributes);
}

void port_set_speed(termios& attributes, tcflag_t speed)
{
    attributes.c_cflag = (attributes.c_cflag & ~static_cast<tcflag_t>(CBAUD)) | (speed & CBAUD);
}

void port_make_raw(termios& attributes)
{
    attributes.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    attributes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    attributes.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB);
    attributes.c_cflag |= CS8;
}

// The calls' results are not looked at: a port that refuses them shows it by its silence. The port stays non-blocking:
// a modem that takes no more bytes would hold a blocking write for ever, and reads never wait as they are.
void configure_port(int fd)
{
    (void)fcntl(fd, F_SETFL, O_NONBLOCK);
    termios attributes{};
    (void)port_get_attributes(fd, attributes);
    port_make_raw(attributes);
    attributes.c_cflag |= CLOCAL | CREAD;
    attributes.c_cc[VTIME] = 0;
    attributes.c_cc[VMIN] = 0;
    port_set_speed(attributes, B230400);
    (void)port_set_attributes(fd, attributes);
}

void close_descriptor(int32_t& descriptor)
{
    if (descriptor > 0)
        (void)close(descriptor);
    descriptor = -1;
}

void close_everything()
{
    const std::lock_guard lock(sDescriptorMutex);
    close_descriptor(sPktIOFd);
    close_descriptor(sSockets[0]);
    close_descriptor(sSockets[1]);
}

// One byte stream being cut into packets; the bytes of the packet so far stand in the decode buffer.
struct Stream {
    enum Kind { packet_start, framed, unframed, discarding };

    Kind kind;
    HdlcCookie cookie;
    uint32_t out_position; // bytes in the decode buffer
    uint32_t mode;         // unframed reads on
    uint32_t mode_switches;
};

void start_packet(Stream& stream)
{
    stream.kind = Stream::packet_start;
    stream.out_position = 0;
    (void)hdlc_init_decode_cookie(&stream.cookie);
}

void hand_over(Stream& stream)
{
    sPktIOHandlePacketCallback({sPktIODecodeBuffer.data(), stream.out_position}, sPktIOHandlePacketUserData);
    start_packet(stream);
}

// Takes bytes of a framed packet from `bytes`, up to its flag at the most. Returns how many.
uint32_t take_framed(Stream& stream, std::span<const uint8_t> bytes)
{
    auto size_in = static_cast<uint32_t>(bytes.size());
    auto size_out = static_cast<int32_t>(pktio_buffer_size - stream.out_position);
    if (traced(odl_trace_bytes))
        __android_log_print(ANDROID_LOG_DEBUG, "RIL_ODL",
                            "%s:%d inIdx=%d, sizeIn=%d, outIdx=%d, sizeOut=%d, cookie.state=%d, cookie.crc=%d\n",
                            "pktio.c", 147, static_cast<int>(bytes.data() - sPktIOReadBuffer.data()),
                            static_cast<int>(size_in), static_cast<int>(stream.out_position), size_out,
                            stream.cookie.state, stream.cookie.crc);
    const int status = hdlc_decode_with_cookie(bytes.data(), size_in, sPktIODecodeBuffer.data() + stream.out_position,
                                               size_out, &stream.cookie);
    stream.kind = Stream::framed;
    stream.out_position = static_cast<uint32_t>(static_cast<int32_t>(stream.out_position) + size_out);
    if (status == HDLC_OK) {
        hand_over(stream);
    } else if (status != HDLC_MORE) {
        __android_log_print(ANDROID_LOG_WARN, "RIL_ODL", "%s:%d hdlcdec:status=%d:bad HDLC decode\n", "pktio.c", 164,
                            status);
        start_packet(stream);
    }
    return size_in;
}

// Takes bytes of an unframed reply from `bytes`, up to its end at the most. Returns how many. A reply that announces
// more than the buffer holds has no end that could be trusted: all up to the next switch of mode is discarded.
uint32_t take_unframed(Stream& stream, std::span<const uint8_t> bytes)
{
    stream.kind = Stream::unframed;
    uint32_t taken = 0;
    const auto gather_up_to = [&](uint32_t size) {
        const uint32_t count = std::min(size - stream.out_position, static_cast<uint32_t>(bytes.size()) - taken);
        std::ranges::copy(bytes.subspan(taken, count), sPktIODecodeBuffer.data() + stream.out_position);
        stream.out_position += count;
        taken += count;
        return stream.out_position == size;
    };

    constexpr auto header_size = static_cast<uint32_t>(unframed_reply::data_at);
    if (stream.out_position < header_size && !gather_up_to(header_size))
        return taken;

    const uint32_t length = get_be32(sPktIODecodeBuffer, unframed_reply::length_at);
    if (length > pktio_buffer_size - header_size) {
        __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                            "%s:%d unframed:length=%u:reply larger than the buffer--dropped\n", "pktio.c", 134, length);
        stream.kind = Stream::discarding;
        return taken;
    }
    if (gather_up_to(header_size + length))
        hand_over(stream);
    return taken;
}

void cut_into_packets(Stream& stream, std::span<const uint8_t> bytes)
{
    while (!bytes.empty() && stream.kind != Stream::discarding) {
        const bool unframed =
            stream.kind == Stream::unframed ||
            (stream.kind == Stream::packet_start && stream.mode != 0 && bytes.front() == unframed_reply::code);
        const uint32_t taken = unframed ? take_unframed(stream, bytes) : take_framed(stream, bytes);
        bytes = bytes.subspan(taken);
    }
}

// Reads what the port has, and notes which mode it belongs to. Returns read()'s result; `fresh` is what of it came
// after the last switch of mode.
ssize_t read_port(Stream& stream, int fd, std::span<const uint8_t>& fresh)
{
    const std::lock_guard lock(sModeMutex);
    const ssize_t count = read(fd, sPktIOReadBuffer.data(), sPktIOReadBuffer.size());
    if (stream.mode_switches != sModeSwitches) {
        stream.mode_switches = sModeSwitches;
        stream.mode = sUnframeReadMode;
        start_packet(stream);
    }
    if (count > 0) {
        const auto stale = std::min(sStaleBytes, static_cast<uint32_t>(count));
        sStaleBytes -= stale;
        fresh = std::span(sPktIOReadBuffer).first(static_cast<size_t>(count)).subspan(stale);
    }
    return count;
}

// Reads until the port is drained, which a read that does not fill the buffer tells, or the engine is being stopped.
// Returns false when the device is gone or failing.
bool read_burst(Stream& stream, int fd)
{
    bool drained = false;
    for (bool first_read = true; !drained && !sStopping; first_read = false) {
        std::span<const uint8_t> fresh;
        const ssize_t count = read_port(stream, fd, fresh);
        const int error = errno;
        if (traced(odl_trace_bytes))
            __android_log_print(ANDROID_LOG_DEBUG, "RIL_ODL", "%s:%d bytes = %d", "pktio.c", 123,
                                static_cast<int>(count));
        if (count < 0 && (error == EINTR || error == EAGAIN))
            return true;
        if (count < 0) {
            __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                                "%s:%d read:errno=%d:error on read--pausing read thread\n", "pktio.c", 127, error);
            return false;
        }
        // Readable, yet nothing to read: unplugged.
        if (count == 0 && first_read) {
            __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d eof::EOF received--pausing read thread\n",
                                "pktio.c", 173);
            return false;
        }
        drained = static_cast<size_t>(count) < sPktIOReadBuffer.size();

        if (stream.mode == 0 && !fresh.empty()) {
            if (traced(odl_trace_packets))
                __android_log_print(
                    ANDROID_LOG_DEBUG, "RIL_ODL", "%s:%d packet received pkt[0]=%02x, len=%d outIdx=%d\n", "pktio.c",
                    141, fresh.front(), static_cast<int>(fresh.size()), static_cast<int>(stream.out_position));
            odl_log_debug_print_packet(odl_trace_select, fresh);
        }
        cut_into_packets(stream, fresh);
    }
    return true;
}

// Waits until the port has something to read. Returns false when the reader has to end.
bool wait_for_input(int port, int socket)
{
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(port, &readable);
        FD_SET(socket, &readable);
        fd_set exceptions = readable;

        if (traced(odl_trace_select))
            __android_log_print(ANDROID_LOG_DEBUG, "RIL_ODL", "%s:%d entered select", "pktio.c", 90);
        const int count = select(std::max(port, socket) + 1, &readable, nullptr, &exceptions, nullptr);
        const int error = errno;
        if (traced(odl_trace_select))
            __android_log_print(ANDROID_LOG_DEBUG, "RIL_ODL", "%s:%d exited select numFds=%d", "pktio.c", 92, count);

        if (count < 0 && error == EINTR)
            continue;
        if (count < 0) {
            __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                                "%s:%d select:errno=%d:select failed--pausing read thread\n", "pktio.c", 96, error);
            return false;
        }
        if (FD_ISSET(port, &exceptions)) {
            __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                                "%s:%d selerr:errno=%d:select err on read fd--exiting read thread\n", "pktio.c", 105,
                                error);
            return false;
        }
        if (FD_ISSET(socket, &exceptions)) {
            __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL",
                                "%s:%d selerr:errno=%d:select err on socket pair--exiting read thread\n", "pktio.c",
                                110, error);
            return false;
        }
        if (FD_ISSET(socket, &readable)) {
            if (traced(odl_trace_select))
                __android_log_print(ANDROID_LOG_DEBUG, "RIL_ODL", "%s:%d exiting read thread", "pktio.c", 115);
            return false;
        }
        if (FD_ISSET(port, &readable))
            return true;
    }
}

void* prv_read_thread(void* /*unused*/)
{
    // Nobody else closes them while the reader runs.
    const int port = sPktIOFd;
    const int socket = sSockets[0];
    Stream stream{};
    start_packet(stream);

    while (wait_for_input(port, socket) && read_burst(stream, port)) {
    }

    if (sPktIOShutdownCallback != nullptr)
        sPktIOShutdownCallback(sPktIOShutdownUserData);
    close_everything();
    return nullptr;
}

// Waits until the port takes bytes again. False, with errno set, when it does not within write_time_ms.
bool takes_bytes(int fd)
{
    pollfd port = {fd, POLLOUT, 0};
    if (poll(&port, 1, write_time_ms) > 0)
        return true;
    errno = ETIMEDOUT;
    return false;
}

// Writes `bytes`, as a rule in one call. Returns their number, or -1 with errno set.
ssize_t write_bytes(std::span<const uint8_t> bytes)
{
    const std::lock_guard lock(sDescriptorMutex);
    const auto size = static_cast<ssize_t>(bytes.size());
    while (!bytes.empty()) {
        const ssize_t count = write(sPktIOFd, bytes.data(), bytes.size());
        if (count > 0)
            bytes = bytes.subspan(static_cast<size_t>(count));
        else if ((count < 0 && errno != EAGAIN) || !takes_bytes(sPktIOFd))
            return -1;
    }
    return size;
}

int write_to_port(int line, std::span<const uint8_t> bytes)
{
    if (write_bytes(bytes) >= 0)
        return 0;
    const int error = errno;
    __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d write:errno=%d (%s):error writing\n", "pktio.c", line,
                        error, error_text(error).c_str());
    return 1;
}

// select() takes no descriptor from FD_SETSIZE on.
UniqueFd open_port(const char* device_path)
{
    UniqueFd port(open(device_path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (port.get() >= FD_SETSIZE) {
        port.reset();
        errno = EMFILE;
    }
    return port;
}

int create_socket_pair()
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sSockets.data()) != 0)
        return -1;
    if (sSockets[0] < FD_SETSIZE)
        return 0;
    errno = EMFILE;
    return -1;
}

// Wakes the reader for its end.
void tell_reader_to_stop()
{
    std::unique_lock lock(sDescriptorMutex);
    // A reader that ended by itself has closed the pair: no signal for that.
    if (send(sSockets[1], stop_message, sizeof stop_message, MSG_NOSIGNAL) >= 0)
        return;
    __android_log_print(ANDROID_LOG_WARN, "RIL_ODL", "%s:%d socketpair:errno=%d:unable to write to socket pair\n",
                        "pktio.c", 306, errno);
    if (sSockets[1] == -1)
        return;
    __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d socketpair:write:error on socket pair\n", "pktio.c", 309);
    lock.unlock();
    close_everything();
}

void reset_mode()
{
    const std::lock_guard lock(sModeMutex);
    sUnframeReadMode = 0;
    sModeSwitches = 0;
    sStaleBytes = 0;
}

} // namespace

int pktio_init(const char* device_path, PacketHandler handler, uintptr_t user_data)
{
    pktio_shutdown();

    UniqueFd port = open_port(device_path);
    if (!port.valid()) {
        __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d open:device=%s,errno=%d:cant open device\n\n",
                            "pktio.c", 271, device_path, errno);
        return 1;
    }
    configure_port(port.get());
    sPktIOFd = port.release();
    sPktIOHandlePacketCallback = handler;
    sPktIOHandlePacketUserData = user_data;
    reset_mode();
    sStopping = false;

    if (create_socket_pair() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d socketpair:errno=%d:cant create socket pair\n\n",
                            "pktio.c", 282, errno);
        close_everything();
        return 1;
    }
    const int error = pthread_create(&sPktIOReadThread, nullptr, prv_read_thread, nullptr);
    if (error != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d createth:err=%d:cant create thread\n\n", "pktio.c",
                            288, error);
        close_everything();
        return 1;
    }
    sPktIOUp = 1;
    return 0;
}

void pktio_shutdown()
{
    if (sPktIOUp == 0)
        return;

    sStopping = true;
    tell_reader_to_stop();
    (void)pthread_join(sPktIOReadThread, nullptr);
    sPktIOUp = 0;
}

int pktio_send_packet(std::span<const uint8_t> packet)
{
    uint32_t length = pktio_buffer_size;
    const int status = hdlc_encode(packet, sPktIOOutputBuffer.data(), length);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "RIL_ODL", "%s:%d enc:status=%d:error encoding\n", "pktio.c", 209,
                            status);
        return 1;
    }
    // The endpoint would wait for a short packet behind a frame that fills its packets exactly.
    if (length % endpoint_packet_size == 0)
        sPktIOOutputBuffer[length++] = HDLC_END_OF_PACKET_CHAR;
    return write_to_port(221, std::span(sPktIOOutputBuffer).first(length));
}

int pktio_send_raw_packet(std::span<const uint8_t> bytes)
{
    return write_to_port(196, bytes);
}

int pktio_send_end_of_packet_char()
{
    return static_cast<int>(write_bytes(std::array{HDLC_END_OF_PACKET_CHAR}));
}

void pktio_set_unframed_read(uint32_t on)
{
    const std::scoped_lock lock(sModeMutex, sDescriptorMutex);
    pollfd port = {sPktIOFd, POLLIN, 0};
    int waiting = 0;
    if (poll(&port, 1, 0) > 0)                     // moves what the driver still has on its way to where it is counted
        (void)ioctl(sPktIOFd, FIONREAD, &waiting); // leaves 0 where the port is gone
    sStaleBytes = static_cast<uint32_t>(std::max(waiting, 0));
    sUnframeReadMode = on;
    ++sModeSwitches;
}

void pktio_set_shutdown_callback(ShutdownHandler handler, uintptr_t user_data)
{
    sPktIOShutdownCallback = handler;
    sPktIOShutdownUserData = user_data;
}
