// Preloaded under a program on libevent: a clock that jumps over the time that the program would
// wait, so that a day takes no longer than its work. BENCH_STOPS names the seconds, ascending and
// separated by spaces, at which the program is stopped, to be looked at and continued.

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <sys/epoll.h>

namespace {

long long now; // milliseconds

void stopWhereAsked()
{
    static const char *stops = getenv("BENCH_STOPS");
    if (!stops)
        return;
    char *end;
    const long long seconds = strtoll(stops, &end, 10);
    if (end != stops && now >= seconds * 1000) {
        stops = end;
        raise(SIGSTOP);
    }
}

} // namespace

extern "C" int clock_gettime(clockid_t, timespec *time) noexcept
{
    *time = {static_cast<time_t>(now / 1000), static_cast<long>(now % 1000 * 1000000)};
    return 0;
}

extern "C" int epoll_wait(int epoll, epoll_event *events, int count, int timeout)
{
    using Wait = int (*)(int, epoll_event *, int, int);
    static const auto wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "epoll_wait"));
    const int ready = wait(epoll, events, count, timeout < 0 ? -1 : 0);
    if (ready == 0) {
        now += timeout;
        stopWhereAsked();
    }
    return ready;
}
