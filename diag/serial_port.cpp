#include "diag/serial_port.h"

#include "app/applet_log.h"
#include "diag/exchange.h"
#include "diag/pktio.h"
#include "platform/os.h"

#include <cstdio>

struct stat g_serial_stat;
struct stat gSerialStat;
int32_t s_crashdump_debug = 0;
int32_t sDebug = 0;

namespace {

struct SideOfPort {
    PacketHandler handler;
    int engine_failed; // exit statuses
    int stat_failed;
    struct stat& file_status;
    const int32_t& debug;
};

constexpr SideOfPort crashdump_port = {rcv_handle_packet, 32, 32, g_serial_stat, s_crashdump_debug};
constexpr SideOfPort update_port = {prv_handle_packet, 64, 1, gSerialStat, sDebug};

int32_t open_port(const SideOfPort& side, const char* device_path)
{
    if (pktio_init(device_path, side.handler, 0) != 0) {
        log_error("can't start pktio");
        end_process(side.engine_failed);
    }
    if (stat(device_path, &side.file_status) != 0) {
        perror(device_path);
        end_process(side.stat_failed);
    }
    if (side.debug != 0) {
        const std::string name = printable(device_path);
        log_debug("ctime of %s = %d", name.c_str(), static_cast<int>(side.file_status.st_ctime));
        log_debug("atime of %s = %d", name.c_str(), static_cast<int>(side.file_status.st_atime));
        log_debug("mtime of %s = %d", name.c_str(), static_cast<int>(side.file_status.st_mtime));
    }
    return 0;
}

} // namespace

int32_t open_serial_port(const char* device_path)
{
    return open_port(crashdump_port, device_path);
}

int32_t OpenSerialPort(const char* device_path)
{
    return open_port(update_port, device_path);
}

void close_serial_port()
{
    pktio_shutdown();
}

void CloseSerialPort()
{
    pktio_shutdown();
}
