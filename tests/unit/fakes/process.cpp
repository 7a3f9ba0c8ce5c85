#include "process.h"

#include "faults.h"
#include "journal.h"

#include <cstdio>

namespace fakes {

Process &process()
{
    static Process &instance = *new Process; // outlives every other static object
    return instance;
}

} // namespace fakes

using fakes::note;
using fakes::process;

extern "C" {

pid_t __real_fork();

pid_t __wrap_fork()
{
    if (!process().forkResult)
        return __real_fork();
    if (fakes::fails("fork"))
        return -1;
    note("fork");
    return *process().forkResult;
}

mode_t __wrap_umask(mode_t mask)
{
    note("umask %03o", mask);
    return 022;
}

pid_t __wrap_setsid()
{
    note("setsid");
    return fakes::fails("setsid") ? -1 : process().setsidResult;
}

int __wrap_chdir(const char *path)
{
    note("chdir %s", path);
    return fakes::fails("chdir", path) ? -1 : process().chdirResult;
}

int __wrap_system(const char *command)
{
    if (fakes::fails("system", command))
        return -1;
    note("system %s", command);
    return process().systemResult;
}

[[noreturn]] void __wrap_exit(int status)
{
    note("exit %d", status);
    throw fakes::Exit{status};
}

[[noreturn]] void __wrap__exit(int)
{
    fakes::misuse("_exit, which leaves the standard streams unflushed");
}

int __real_fputs(const char *text, FILE *stream);

int __wrap_fputs(const char *text, FILE *stream)
{
    if (stream != stderr)
        return __real_fputs(text, stream);
    if (fakes::fails("fputs"))
        return EOF;
    note("stderr %s", text);
    return process().fputsResult;
}
}
