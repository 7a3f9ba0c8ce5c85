#include "board.h"

#include "device.h"

#include <algorithm>
#include <set>

namespace kelo {

namespace {

constexpr size_t eventsAtOnce = 4096;

constexpr const char *kindNames[] = {"leds",     "log",   "mode", "call",   "store", "omci",
                                     "snapshot", "laser", "gpon", "button", "exit",  "note"};

/// What an event takes in memory, as good as exactly.
size_t sizeOf(const Event &event)
{
    const bool isApart = event.text.capacity() > std::string().capacity();
    return sizeof event + (isApart ? event.text.capacity() + 2 * sizeof(void *) : 0);
}

using EventRange = std::vector<Event>::const_iterator;

/// The last event of every subject.
std::vector<Event> lastOfEach(EventRange begin, EventRange end)
{
    std::set<std::string> subjects;
    std::vector<Event> result;
    while (end != begin) {
        const std::string of = subject(*--end);
        if (!of.empty() && subjects.insert(of).second)
            result.push_back(*end);
    }
    std::reverse(result.begin(), result.end());
    return result;
}

} // namespace

const char *kindName(EventKind kind)
{
    return kindNames[static_cast<size_t>(kind)];
}

std::optional<EventKind> kindOf(const std::string &name)
{
    const auto *const found = std::find(std::begin(kindNames), std::end(kindNames), name);
    if (found == std::end(kindNames))
        return std::nullopt;
    return static_cast<EventKind>(found - kindNames);
}

std::string subject(const Event &event)
{
    switch (event.kind) {
    case EventKind::Leds:
    case EventKind::Mode:
    case EventKind::Laser:
    case EventKind::Gpon:
    case EventKind::Button:
    case EventKind::Exit:
        return kindName(event.kind);
    case EventKind::Store:
        return event.text.substr(0, event.text.find(' ', event.text.find(' ') + 1));
    default:
        return {};
    }
}

Board::Board(const Options &options, const Loop *loop)
    : ownLoop_(loop ? nullptr : std::make_unique<Loop>()), loop_(loop ? *loop : *ownLoop_),
      environment_(options.environment), keep_(options.keep)
{
    agent_ = std::make_unique<AgentLink>(
        loop_, options.form,
        [this](Clock::time_point time, const std::string &kind, const std::string &text) {
            record(time, kind, text);
        },
        options.givenUp);
    form_ = agent_->form();
    ask_ = [this](const Words &request, const Printed &printed, Clock::duration limit) {
        return agent_->ask(request, printed, limit);
    };
}

void Board::startDaemon(const std::vector<std::string> &arguments)
{
    startBy(concat({device::daemonPath}, arguments));
}

void Board::startBy(const std::vector<std::string> &command)
{
    ask(startRequest(command));
}

Words Board::startRequest(const std::vector<std::string> &command) const
{
    return concat(concat({"start"}, environment_), command);
}

void Board::stopDaemon()
{
    ask({"stop"});
}

size_t Board::mark() const
{
    if (!ended())
        ask({"look"});
    return count_;
}

std::vector<Event> Board::events(size_t from) const
{
    mark();
    const size_t start = std::clamp(from, firstPlace(), count_) - firstPlace();
    return {events_.begin() + static_cast<ptrdiff_t>(start), events_.end()};
}

std::vector<Event> Board::next(size_t &place, Clock::duration patience) const
{
    const Clock::time_point end = Clock::now() + patience;
    do
        loop_.turn(count_ > place ? Clock::now() : end);
    while (count_ <= place && Clock::now() < end && !ended());
    return next(place);
}

std::vector<Event> Board::next(size_t &place) const
{
    place = std::max(place, firstPlace());
    const auto begin = events_.begin() + static_cast<ptrdiff_t>(place - firstPlace());
    const size_t length = std::min(count_ - place, eventsAtOnce);
    place += length;
    return {begin, begin + static_cast<ptrdiff_t>(length)};
}

std::vector<Event> Board::heldAt(Clock::time_point time, size_t &place) const
{
    const auto first =
        std::lower_bound(events_.begin(), events_.end(), time,
                         [](const Event &event, Clock::time_point t) { return event.time < t; });
    place = firstPlace() + static_cast<size_t>(first - events_.begin());
    return lastOfEach(events_.begin(), first);
}

bool Board::waitUntil(const std::function<bool(const std::vector<Event> &)> &condition,
                      Clock::duration deadline) const
{
    const Clock::time_point end = Clock::now() + deadline;
    for (size_t known = count_; !condition(events_); known = count_) {
        do {
            if (ended())
                return false;
            loop_.turn(end);
        } while (count_ == known && Clock::now() < end);
        if (count_ == known)
            return false;
    }
    return true;
}

void Board::record(Clock::time_point time, const std::string &kind, const std::string &text)
{
    const std::optional<EventKind> known = kindOf(kind);
    if (!known)
        return;
    // The order is the agent's, also where its clock was compared in between.
    if (!events_.empty())
        time = std::max(time, events_.back().time);
    events_.push_back({time, *known, text});
    count_++;
    bytes_ += sizeOf(events_.back());
    if (bytes_ > keep_)
        dropOldest();
    if (recorded_)
        recorded_();
}

/// A record that is too long loses its oldest quarter, but for what still holds.
void Board::dropOldest()
{
    auto first = events_.begin();
    for (size_t dropped = 0; dropped < keep_ / 4 && first + 1 != events_.end(); ++first)
        dropped += sizeOf(*first);
    keptSince_ = first->time;
    std::vector<Event> held = lastOfEach(events_.begin(), first);
    events_.erase(std::move(held.begin(), held.end(), events_.begin()), first);
    bytes_ = 0;
    for (const Event &event : events_)
        bytes_ += sizeOf(event);
}

} // namespace kelo
