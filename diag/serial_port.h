// Opening and closing of a DIAG port: the packet engine with the handler of one side, and the device file's time
// stamps as they were when it was opened.
#pragma once

#include <cstdint>
#include <sys/stat.h>

extern struct stat g_serial_stat; // crash-dump side
extern struct stat gSerialStat;   // update side: a later ctime of the device file means that the modem came back

extern int32_t s_crashdump_debug; // crashdump -d: log the time stamps, and more in the crash-dump modules
extern int32_t sDebug;            // wan_dloader -d: log the time stamps

// Opens `device_path` for the crash-dump side and starts its reader thread. Returns 0; any failure is logged (ERROR
// "can't start pktio") or printed on standard error and ends the process with 32. Main thread.
int32_t open_serial_port(const char* device_path);

// The same for the update side: the process ends with 64 when the engine fails, 1 when the device file cannot be
// examined. Main thread.
int32_t OpenSerialPort(const char* device_path);

// Stop the reader and close the port. Do nothing when none is open. Main thread.
void close_serial_port();
void CloseSerialPort();
