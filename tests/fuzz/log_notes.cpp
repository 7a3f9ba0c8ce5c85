/// The log as its callers see it: each record becomes a note.

#include "fuzz.h"
#include "kelo-monitord.h"

#include <cstdarg>

int kelo_log(const char *file, int line, const char *function, const char *format, ...)
{
    if (!file || line <= 0 || !function)
        fuzz::wrong("a log record without its location");
    fuzz::done().append("log ").append(function).append(": ");
    va_list arguments;
    va_start(arguments, format);
    fuzz::append(fuzz::done(), format, arguments);
    va_end(arguments);
    fuzz::done() += '\n';
    return -1; // nobody looks at it
}
