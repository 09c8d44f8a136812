// Applet log convention: radio buffer, tag RIL_TESSEL, and a copy on standard output for scripts when an applet saw -o.
//
// Each call writes the record to the log, then, with g_to_stdout set, one console line: the level's prefix, the text,
// "#". The text is formatted once, so the two agree to the byte; errno is the caller's again afterwards. No message is
// filtered by level. Any thread.
#pragma once

#include <cstdint>

// Console copies on (1) or off (0). Set by tessel_stdout_on_off, never cleared in a run.
extern int32_t g_to_stdout;

void log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
