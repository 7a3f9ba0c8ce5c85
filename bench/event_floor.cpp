/// The daemon's timers on libevent and nothing else: the floor of what a tick executes.

#include "jobs.h"

#include <event.h>

namespace {

using Job = void (*)();

void onTimer(int, short, void *job)
{
    (*static_cast<Job *>(job))();
}

} // namespace

int main()
{
    event_base *const base = event_init();
    Job jobs[] = {jobTick, jobSnapshot, [] { jobButton(); }};
    constexpr timeval intervals[] = {{0, 500000}, {1, 0}, {1, 0}};
    event timers[3];
    for (int i = 0; i < 3; i++) {
        event_set(&timers[i], -1, EV_PERSIST, onTimer, &jobs[i]);
        event_add(&timers[i], &intervals[i]);
    }
    return event_base_dispatch(base);
}
