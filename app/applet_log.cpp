#include "app/applet_log.h"

#include "platform/android_log.h"
#include "platform/os.h"
#include "platform/progress.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

int32_t g_to_stdout = 0;

namespace {

struct Level {
    int priority;       // the platform's
    const char* prefix; // what scripts look for at the start of a console line
};

constexpr Level level_error = {ANDROID_LOG_ERROR, "ERROR:#"};
constexpr Level level_warning = {ANDROID_LOG_WARN, "WARNING:#"};
constexpr Level level_info = {ANDROID_LOG_INFO, "INFO:#"};
constexpr Level level_debug = {ANDROID_LOG_DEBUG, "DEBUG:#"};

__attribute__((format(printf, 2, 0))) void emit(const Level& level, const char* format, va_list arguments)
{
    const int saved_errno = errno;
    const std::string text = format_text(format, arguments);
    __android_log_buf_print(LOG_ID_RADIO, level.priority, "RIL_TESSEL", "%s", text.c_str());
    hide_progress();
    if (g_to_stdout != 0)
        (void)printf("%s%s#\n", level.prefix, text.c_str());
    errno = saved_errno;
}

} // namespace

void log_error(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    emit(level_error, format, arguments);
    va_end(arguments);
}

void log_warning(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    emit(level_warning, format, arguments);
    va_end(arguments);
}

void log_info(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    emit(level_info, format, arguments);
    va_end(arguments);
}

void log_debug(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    emit(level_debug, format, arguments);
    va_end(arguments);
}
