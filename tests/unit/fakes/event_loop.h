/// A stand-in for the eight legacy libevent calls that the daemon makes, with a virtual clock: time
/// passes only while a test lets the loop run, and thirty seconds of a pattern take no time.
///
/// A detailed journal numbers events and callbacks in the order in which they appear.
///
/// It aborts on misuse: an event set before event_init or while it is pending, added, activated or
/// deleted before it was set, watching what its flags do not fit, or changed behind the loop's
/// back.

#pragma once

#include <event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace fakes {

class EventLoop {
public:
    using Time = std::chrono::microseconds;

    /// What event_set and event_add told about an event.
    struct Watch {
        event *address;
        int fd;
        short flags;
        event_callback_fn callback;
        void *argument;
        bool pending;
        bool active;
        short activeFlags;
        std::optional<Time> interval;
        Time deadline;
        uint64_t order; // of activation and of adding: first come, first served
    };

    Time now() const { return now_; }

    /// Runs what is active, then waits for that long and runs each timer as it comes due.
    void run(Time duration);

    /// Runs what is active, without waiting.
    void runActive();

    /// Runs the callback that waits for a descriptor to become readable.
    void readable(int fd);

    /// Runs the callback that waits for a signal.
    void raise(int signal);

    /// The event last set on a descriptor or signal, -1 for the timers; null when there is none.
    const Watch *find(int fd) const;
    bool isPending(int fd) const;
    size_t pendingCount() const;

    bool initFails = false;
    int addResult = 0;      ///< nonzero: event_add does nothing and returns this
    int dispatchResult = 0; ///< of event_base_dispatch
    /// What happens while event_base_dispatch runs, which returns afterwards.
    std::function<void()> duringDispatch = [] {};
    bool exitRequested = false;

    // The eight calls.
    event_base *init();
    void set(event *address, int fd, short flags, event_callback_fn callback, void *argument);
    int add(event *address, const timeval *timeout);
    int del(event *address);
    void activate(event *address, int result, short calls);
    int initialized(event *address) const;
    int dispatch(event_base *given);
    int loopExit(event_base *given, const timeval *delay);

private:
    event_base *base();
    std::string nameOf(const event *address, const void *argument) const;
    Watch &known(event *address);
    Watch *firstActive();
    Watch *nextTimer(Time end);
    void fire(Watch &watch, short what);

    std::map<const event *, Watch> watches_;
    Time now_{0};
    uint64_t order_ = 0;
    bool initialised_ = false;
};

EventLoop &eventLoop();

} // namespace fakes
