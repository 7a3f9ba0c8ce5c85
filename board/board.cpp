#include "board.h"

#include "device.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <set>
#include <sys/wait.h>

namespace kelo {

namespace {

constexpr auto layoutLimit = std::chrono::seconds(60);
constexpr int clockTries = 20;
constexpr auto livingEvery = std::chrono::seconds(10);
constexpr char livingFor[] = "30"; // seconds
constexpr size_t eventsAtOnce = 4096;

constexpr const char *kindNames[] = {"leds",     "log",   "mode", "call",   "store", "omci",
                                     "snapshot", "laser", "gpon", "button", "exit",  "note"};

/// What an event takes in memory, roughly.
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

std::string modeName(const std::string &number)
{
    const int mode = atoi(number.c_str());
    const bool known =
        !number.empty() && mode >= 0 && mode < static_cast<int>(std::size(device::modeKeywords));
    return known ? device::modeKeywords[mode] : number;
}

Board::Board(const Options &options, const Link::LoopPointer &loop)
    : environment_(options.environment), keep_(options.keep)
{
    std::vector<std::unique_ptr<Form>> forms = Form::named(options.form);
    for (size_t i = 0; i < forms.size(); i++) {
        agent_ = forms[i]->start();
        form_ = std::move(forms[i]);
        begin(loop);
        std::optional<Answer> answer;
        link_->send(
            {"clock"}, [&](const Answer &got) { answer = got; }, {}, layoutLimit);
        while (!answer && !options.givenUp())
            turn(std::chrono::milliseconds(100));
        if (answer && answer->ok()) {
            compareClocks();
            if (agent_.isFar)
                tellThatWeLive();
            return;
        }
        const bool late = !ended();
        link_.reset();
        finish(late ? 0 : agent_.patience);
        fcntl(agent_.complaints.get(), F_SETFL, O_NONBLOCK);
        std::string complaint = readAll(agent_.complaints.get());
        while (complaint.ends_with('\n'))
            complaint.pop_back();
        if (options.givenUp())
            throw std::runtime_error("the board ended");
        const bool refused = complaint.find("unshare:") != std::string::npos;
        if (refused)
            complaint += "\n" + namespaceAdvice();
        if (!refused || i + 1 == forms.size())
            throw std::runtime_error(!complaint.empty() ? complaint
                                     : late             ? "the board does not start"
                                                        : "the board ended as it started");
        if (!forms[i + 1]->lacks(Ability::Network).empty())
            fprintf(stderr,
                    "%s\ngoing on without: in a plain chroot, on this machine's network, which is "
                    "listened to but not changed\n",
                    complaint.c_str());
    }
}

Board::~Board()
{
    living_ = Watch();
    link_.reset(); // ends the agent, and with it everything of the board
    form_.reset();
    finish(agent_.patience);
}

void Board::begin(const Link::LoopPointer &loop)
{
    const auto happened = [this](Clock::time_point time, const std::string &kind,
                                 const std::string &text) {
        record(offset_ ? time + *offset_ : Clock::now(), kind, text);
    };
    link_ = std::make_shared<Link>(loop, "the board", std::move(agent_.out), std::move(agent_.in),
                                   happened);
}

void Board::finish(int patience) const
{
    makeEnd(endOf(agent_.process), patience);
    waitpid(agent_.process, nullptr, WNOHANG);
}

/// Finds out how far the agent's clock is from this one: the shortest of some exchanges tells best.
void Board::compareClocks()
{
    Clock::duration shortest = Clock::duration::max();
    for (int i = 0; i < clockTries; i++) {
        const Clock::time_point before = Clock::now();
        const Clock::time_point there = toTime(ask({"clock"}).at(0));
        const Clock::duration length = Clock::now() - before;
        if (length >= shortest)
            continue;
        shortest = length;
        offset_ = before + length / 2 - there;
        // Equal within the error of the measurement: it is the same clock.
        if (std::chrono::abs(*offset_) <= length) {
            offset_ = Clock::duration::zero();
            return;
        }
    }
}

void Board::tellThatWeLive()
{
    link_->send({"alive", livingFor});
    living_ = Watch(link_->loop().base(), livingEvery, [this] { tellThatWeLive(); });
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
            link_->loop().turn(end);
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
