#include "log.h"

#include "journal.h"
#include "kelo-monitord.h"

#include <cstdarg>
#include <cstdio>

namespace fakes {

std::vector<LogRecord> &logRecords()
{
    static auto &records = *new std::vector<LogRecord>; // outlives every other static object
    return records;
}

} // namespace fakes

int kelo_log(const char *file, int line, const char *function, const char *format, ...)
{
    if (!file || line <= 0 || !function)
        fakes::misuse("a log record without its location");
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (fakes::journal().recording) {
        fakes::logRecords().push_back({file, line, function, text});
        fakes::note("log %s %s: %s", file, function, text);
    }
    return -1; // nobody looks at it
}
