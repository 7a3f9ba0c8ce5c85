/// A libevent program that waits, linked with what the daemon is linked with: the floor of its
/// memory, and of the time to its first LED, which this writes too.

#include "jobs.h"

#include <event.h>

int main()
{
    event_base *const base = event_init();
    constexpr timeval interval = {1, 0};
    event timer;
    event_set(
        &timer, -1, EV_PERSIST, [](int, short, void *) {}, nullptr);
    event_add(&timer, &interval);
    writeLed(6, false);
    return event_base_dispatch(base);
}
