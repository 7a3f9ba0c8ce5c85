#include "event_loop.h"

#include "faults.h"
#include "journal.h"

#include <algorithm>

namespace fakes {

namespace {

constexpr short allowedFlags = EV_SIGNAL | EV_READ | EV_PERSIST;
constexpr int lastSignal = 64;

/// The number of something that was or was not seen before, from 1 on.
template <typename T>
size_t number(T thing)
{
    static std::vector<T> seen;
    const auto found = std::ranges::find(seen, thing);
    const auto index = static_cast<size_t>(found - seen.begin());
    if (found == seen.end())
        seen.push_back(thing);
    return index + 1;
}

EventLoop::Time toTime(const timeval &value)
{
    return std::chrono::seconds(value.tv_sec) + EventLoop::Time(value.tv_usec);
}

bool fits(int fd, short flags)
{
    if (flags & EV_SIGNAL)
        return !(flags & EV_READ) && fd > 0 && fd <= lastSignal;
    if (flags & EV_READ)
        return fd >= 0;
    return fd == -1;
}

} // namespace

std::string EventLoop::nameOf(const event *address, const void *argument) const
{
    if (!argument)
        return "null";
    if (argument == address)
        return "itself";
    if (argument == this)
        return "base";
    return std::to_string(reinterpret_cast<uintptr_t>(argument));
}

event_base *EventLoop::base()
{
    return static_cast<event_base *>(static_cast<void *>(this));
}

EventLoop::Watch &EventLoop::known(event *address)
{
    const auto found = watches_.find(address);
    if (found == watches_.end())
        misuse("an event was used before event_set");
    return found->second;
}

event_base *EventLoop::init()
{
    note("event_init");
    if (initialised_)
        misuse("event_init was called twice");
    initialised_ = true;
    return initFails ? nullptr : base();
}

void EventLoop::set(event *address, int fd, short flags, event_callback_fn callback, void *argument)
{
    if (journal().detailed)
        note("event_set %zu fd=%d flags=0x%x callback=%zu argument=%s", number(address), fd,
             static_cast<unsigned>(flags), number(callback), nameOf(address, argument).c_str());
    else
        note("event_set fd=%d flags=0x%x", fd, static_cast<unsigned>(flags));
    if (!initialised_)
        misuse("event_set before event_init");
    if (!callback || (flags & ~allowedFlags) || !fits(fd, flags))
        misuse("event_set with a callback, flags or descriptor that do not fit");
    const auto found = watches_.find(address);
    if (found != watches_.end() && (found->second.pending || found->second.active))
        misuse("event_set on a pending event");
    address->ev_fd = fd;
    address->ev_events = flags;
    watches_[address] = {address, fd, flags, callback, argument, false, false, 0, {}, {}, order_++};
}

int EventLoop::add(event *address, const timeval *timeout)
{
    Watch &watch = known(address);
    std::string what = "fd=" + std::to_string(watch.fd);
    if (timeout)
        what += " every " + std::to_string(toTime(*timeout).count()) + "us";
    if (!journal().detailed)
        note("event_add %s", what.c_str());
    else if (timeout)
        note("event_add %zu %ld.%06ld", number(address), timeout->tv_sec, timeout->tv_usec);
    else
        note("event_add %zu", number(address));
    if (fails("event_add", what))
        return -1;
    if (addResult != 0)
        return addResult;
    watch.pending = true;
    watch.order = order_++;
    if (timeout) {
        watch.interval = toTime(*timeout);
        watch.deadline = now_ + *watch.interval;
    }
    return 0;
}

int EventLoop::del(event *address)
{
    Watch &watch = known(address);
    if (journal().detailed)
        note("event_del %zu", number(address));
    else
        note("event_del fd=%d", watch.fd);
    watch.pending = false;
    watch.active = false;
    watch.interval.reset();
    return 0;
}

void EventLoop::activate(event *address, int result, short calls)
{
    Watch &watch = known(address);
    if (journal().detailed)
        note("event_active %zu %d %d", number(address), result, calls);
    else
        note("event_active fd=%d result=%d calls=%d", watch.fd, result, calls);
    if (watch.active)
        return;
    watch.active = true;
    watch.activeFlags = static_cast<short>(result);
    watch.order = order_++;
}

int EventLoop::initialized(event *address) const
{
    const int result = watches_.contains(address);
    detail("event_initialized %zu = %d", number(address), result);
    return result;
}

int EventLoop::dispatch(event_base *given)
{
    note("event_base_dispatch");
    if (given != (initFails ? nullptr : base()))
        misuse("event_base_dispatch on another base");
    duringDispatch();
    return dispatchResult;
}

int EventLoop::loopExit(event_base *given, const timeval *delay)
{
    note("event_base_loopexit %s", delay ? "later" : "now");
    if (given != base())
        misuse("event_base_loopexit on another base");
    exitRequested = true;
    return -1; // nobody looks at it
}

EventLoop::Watch *EventLoop::firstActive()
{
    Watch *first = nullptr;
    for (auto &[address, watch] : watches_) {
        if (watch.active && (!first || watch.order < first->order))
            first = &watch;
    }
    return first;
}

EventLoop::Watch *EventLoop::nextTimer(Time end)
{
    Watch *next = nullptr;
    for (auto &[address, watch] : watches_) {
        if (!watch.pending || !watch.interval || watch.deadline > end)
            continue;
        if (!next || watch.deadline < next->deadline ||
            (watch.deadline == next->deadline && watch.order < next->order))
            next = &watch;
    }
    return next;
}

void EventLoop::fire(Watch &watch, short what)
{
    if (watch.address->ev_fd != watch.fd || watch.address->ev_events != watch.flags)
        misuse("an event was changed without event_set");
    if (!(watch.flags & EV_PERSIST))
        watch.pending = false;
    else if (watch.interval)
        watch.deadline = ((what & EV_TIMEOUT) ? watch.deadline : now_) + *watch.interval;
    const Watch fired = watch; // the callback may set the event anew
    fired.callback(fired.fd, what, fired.argument);
}

void EventLoop::runActive()
{
    while (Watch *const watch = firstActive()) {
        watch->active = false;
        fire(*watch, watch->activeFlags);
    }
}

void EventLoop::run(Time duration)
{
    const Time end = now_ + duration;
    runActive();
    while (Watch *const timer = nextTimer(end)) {
        now_ = timer->deadline;
        fire(*timer, EV_TIMEOUT);
        runActive();
    }
    now_ = end;
}

void EventLoop::readable(int fd)
{
    for (auto &[address, watch] : watches_) {
        if (watch.pending && watch.fd == fd && (watch.flags & EV_READ)) {
            fire(watch, EV_READ);
            return;
        }
    }
    misuse("no event waits for this descriptor");
}

void EventLoop::raise(int signal)
{
    for (auto &[address, watch] : watches_) {
        if (watch.pending && watch.fd == signal && (watch.flags & EV_SIGNAL)) {
            fire(watch, EV_SIGNAL);
            return;
        }
    }
    misuse("no event waits for this signal");
}

const EventLoop::Watch *EventLoop::find(int fd) const
{
    const Watch *last = nullptr;
    for (const auto &[address, watch] : watches_) {
        if (watch.fd == fd && (!last || watch.order > last->order))
            last = &watch;
    }
    return last;
}

bool EventLoop::isPending(int fd) const
{
    return std::ranges::any_of(watches_, [fd](const auto &entry) {
        return entry.second.fd == fd && entry.second.pending;
    });
}

size_t EventLoop::pendingCount() const
{
    const auto isPending = [](const auto &entry) { return entry.second.pending; };
    return static_cast<size_t>(std::ranges::count_if(watches_, isPending));
}

EventLoop &eventLoop()
{
    static EventLoop &instance = *new EventLoop; // outlives every other static object
    return instance;
}

} // namespace fakes

using fakes::eventLoop;

extern "C" {

event_base *event_init()
{
    return eventLoop().init();
}

void event_set(event *ev, int fd, short flags, event_callback_fn callback, void *argument)
{
    eventLoop().set(ev, fd, flags, callback, argument);
}

int event_add(event *ev, const timeval *timeout)
{
    return eventLoop().add(ev, timeout);
}

int event_del(event *ev)
{
    return eventLoop().del(ev);
}

void event_active(event *ev, int res, short ncalls)
{
    eventLoop().activate(ev, res, ncalls);
}

int event_initialized(const event *ev)
{
    return eventLoop().initialized(const_cast<event *>(ev));
}

int event_base_dispatch(event_base *base)
{
    return eventLoop().dispatch(base);
}

int event_base_loopexit(event_base *base, const timeval *delay)
{
    return eventLoop().loopExit(base, delay);
}
}
