#include "process.h"

#include "faults.h"
#include "journal.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace fakes {

Process &process()
{
    static Process &instance = *new Process; // outlives every other static object
    return instance;
}

} // namespace fakes

using fakes::detail;
using fakes::note;
using fakes::process;

extern "C" {

pid_t fake_fork()
{
    if (fakes::fails("fork"))
        return -1;
    note("fork");
    return process().forkResult;
}

mode_t fake_umask(mode_t mask)
{
    note("umask %03o", mask);
    return 022;
}

pid_t fake_setsid()
{
    note("setsid");
    return fakes::fails("setsid") ? -1 : process().setsidResult;
}

int fake_chdir(const char *path)
{
    note("chdir %s", path);
    return fakes::fails("chdir", path) ? -1 : process().chdirResult;
}

int fake_system(const char *command)
{
    if (fakes::fails("system", command))
        return -1;
    note("system %s", command);
    return process().systemResult;
}

[[noreturn]] void fake_exit(int status)
{
    note("exit %d", status);
    throw fakes::Exit{status};
}

[[noreturn]] void fake__exit(int)
{
    fakes::misuse("_exit, which leaves the standard streams unflushed");
}

int fake_fputs(const char *text, FILE *stream)
{
    if (stream != stderr)
        fakes::misuse("fputs to other than standard error");
    if (fakes::fails("fputs"))
        return EOF;
    note("stderr %s", text);
    return process().fputsResult;
}

int fake_getopt(int argc, char *const *argv, const char *options)
{
    const int option = getopt(argc, argv, options);
    detail("getopt \"%s\" = %d", options, option);
    return option;
}

int fake_snprintf(char *buffer, size_t room, const char *format, ...)
{
    detail("snprintf %zu \"%s\"", room, format);
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, room, format, arguments);
    va_end(arguments);
    return length;
}

int fake_vsnprintf(char *buffer, size_t room, const char *format, va_list arguments)
{
    detail("vsnprintf %zu \"%s\"", room, format);
    const auto &result = process().formatResult;
    if (!result)
        return vsnprintf(buffer, room, format, arguments);
    const size_t length = std::min(static_cast<size_t>(std::max(*result, 0)), room - 1);
    memset(buffer, '#', length);
    buffer[length] = '\0';
    return *result;
}
}
