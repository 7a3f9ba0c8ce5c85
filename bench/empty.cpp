/// A libevent program that waits, linked with what the daemon is linked with: the floor of its
/// memory, and of the time to its first LED, which this writes too.

#include "jobs.h"

#include <cstring>

#include <event.h>

namespace {

/// Fills as much of the stack as the daemon's callback does, whose receive buffer is its own and is
/// cleared each time.
void clearBuffer(int, short, void *)
{
    char buffer[16400];
    memset(buffer, 0, sizeof buffer);
    asm volatile("" : : "r"(buffer) : "memory"); // or it would not be there
}

} // namespace

int main()
{
    event_base *const base = event_init();
    constexpr timeval interval = {1, 0};
    event timer;
    event_set(&timer, -1, EV_PERSIST, clearBuffer, nullptr);
    event_add(&timer, &interval);
    writeLed(6, false);
    return event_base_dispatch(base);
}
