// A clock for a program on libevent that stands still while the program works and jumps where it
// would wait: a week passes as fast as its work can be done, and nothing is ever late. It is
// preloaded; the program itself and libevent are the ones of every day.
//
// At the first wait it stops the program, and then as it is told. It says so by a byte into the
// pipe KELO_CLOCK.stopped, named by the environment, and waits in the pipe KELO_CLOCK.go for the
// microseconds until the next stop.

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

using Microseconds = long long;

constexpr Microseconds second = 1000000;

Microseconds now = 1000 * second;
Microseconds nextStop = now;
int stopped = -1;
int go = -1;

[[gnu::constructor]] void open()
{
    const char *const name = getenv("KELO_CLOCK");
    char path[PATH_MAX];
    snprintf(path, sizeof path, "%s.stopped", name);
    stopped = ::open(path, O_WRONLY | O_CLOEXEC);
    snprintf(path, sizeof path, "%s.go", name);
    go = ::open(path, O_RDONLY | O_CLOEXEC);
    if (stopped < 0 || go < 0)
        abort();
    unsetenv("LD_PRELOAD"); // what the program starts has the time of day
}

void stop()
{
    Microseconds duration = 0;
    if (write(stopped, "", 1) != 1 || read(go, &duration, sizeof duration) != sizeof duration)
        abort();
    nextStop = now + duration;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t, timespec *time) noexcept
{
    time->tv_sec = now / second;
    time->tv_nsec = now % second * 1000;
    return 0;
}

int gettimeofday(timeval *time, void *) noexcept
{
    time->tv_sec = now / second;
    time->tv_usec = now % second;
    return 0;
}

int epoll_wait(int epoll, epoll_event *events, int room, int timeout)
{
    const Microseconds end = now + timeout * 1000LL;
    for (;;) {
        // A stop comes before what else is due at its time.
        if (now == nextStop)
            stop();
        const auto ready =
            static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, room, 0, nullptr, 0));
        if (ready != 0 || (timeout >= 0 && now >= end))
            return ready;
        now = timeout >= 0 && end < nextStop ? end : nextStop;
    }
}
}
