#include "platform/android_log.h"

#ifndef __ANDROID__

#include "platform/os.h"

#include <cerrno>
#include <cstdarg>
#include <string>
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

// What a modem or a file put into a text must not break the record or steer the terminal.
void keep_on_one_line(std::string& text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    for (char& c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7F)
            c = ' ';
    }
}

__attribute__((format(printf, 4, 0))) int write_record(int buffer, int priority, const char* tag, const char* format,
                                                       va_list arguments)
{
    const int saved_errno = errno;
    std::string text = format_text(format, arguments);
    keep_on_one_line(text);

    std::string record = buffer == LOG_ID_RADIO ? "radio " : "main ";
    record += priority_letter(priority);
    record += ' ';
    record += tag;
    record += ": ";
    record += text;
    record += '\n';

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
