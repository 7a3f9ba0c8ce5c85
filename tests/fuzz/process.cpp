#include "process.h"

#include "display.h"
#include "fuzz.h"
#include "input.h"
#include "ipinfo.h"
#include "netinfo.h"

#include <sys/types.h>

using fuzz::did;
using fuzz::process;

fuzz::Process &fuzz::process()
{
    static Process instance;
    return instance;
}

extern "C" {

pid_t fuzz_fork()
{
    did("fork");
    return process().fork;
}

mode_t fuzz_umask(mode_t mask)
{
    did("umask %o", mask);
    return 022;
}

pid_t fuzz_setsid()
{
    did("setsid");
    return process().setsid;
}

int fuzz_chdir(const char *path)
{
    did("chdir %s", path);
    return process().chdir;
}

int fuzz_close(int fd)
{
    did("close %d", fd);
    return -1; // nobody looks at it
}

[[noreturn]] void fuzz_exit(int status)
{
    did("exit %d", status);
    throw fuzz::Exit{status};
}

int netinfo_register()
{
    did("netinfo");
    return -1;
}

void ipinfo_register()
{
    did("ipinfo");
}

void display_register()
{
    did("display");
}

int input_register()
{
    did("input");
    return -1;
}
}
