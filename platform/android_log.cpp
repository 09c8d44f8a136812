#include "platform/android_log.h"

#ifndef __ANDROID__

#include "platform/os.h"
#include "platform/progress.h"

#include <cerrno>
#include <cstdarg>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

char priority_letter(int priority)
{
    switch (priority) {
    case ANDROID_LOG_DEBUG:
        return 'D';
    case ANDROID_LOG_INFO:
        return 'I';
    case ANDROID_LOG_WARN:
        return 'W';
    case ANDROID_LOG_ERROR:
        return 'E';
    default:
        return '?';
    }
}

std::string_view without_line_ends(std::string_view text)
{
    return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

__attribute__((format(printf, 4, 0))) int write_record(int buffer, int priority, const char* tag, const char* format,
                                                       va_list arguments)
{
    const int saved_errno = errno;
    const std::string text = format_text(format, arguments);

    std::string record = buffer == LOG_ID_RADIO ? "radio " : "main ";
    record += priority_letter(priority);
    record += ' ';
    record += tag;
    record += ": ";
    record += printable(without_line_ends(text)); // a record is one line
    record += '\n';

    hide_progress();
    const ssize_t written = write(STDERR_FILENO, record.data(), record.size());
    errno = saved_errno;
    return static_cast<int>(written);
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the platform's own names
int __android_log_buf_print(int buffer, int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int written = write_record(buffer, priority, tag, format, arguments);
    va_end(arguments);
    return written;
}

int __android_log_print(int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int written = write_record(LOG_ID_MAIN, priority, tag, format, arguments);
    va_end(arguments);
    return written;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)

#endif
