// The platform's log calls. On Android they come from liblog; elsewhere our own sink writes one line a record to
// standard error, so that buffer, priority and tag stay visible: "radio E RIL_TESSEL: text".
#pragma once

#ifdef __ANDROID__
#include <android/log.h>
extern "C" int __android_log_buf_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
#else

// The platform's names and numbers.
constexpr int LOG_ID_MAIN = 0;
constexpr int LOG_ID_RADIO = 1;
constexpr int ANDROID_LOG_DEBUG = 3;
constexpr int ANDROID_LOG_INFO = 4;
constexpr int ANDROID_LOG_WARN = 5;
constexpr int ANDROID_LOG_ERROR = 6;

// Both write one record with one call of write(), from any thread, and leave errno as it was. A record is one line:
// trailing line ends are dropped, other control characters but the tab become blanks.
// Return the bytes written, or -1 as write() does.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the platform's own names
int __android_log_buf_print(int buffer, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// The same into the main buffer.
int __android_log_print(int priority, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)

#endif
