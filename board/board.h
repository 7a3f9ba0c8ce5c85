/// The simulated board: a firmware's root file system in miniature, real network interfaces, and
/// the hardware that the unmodified daemon finds there. What the daemon does is recorded as it
/// happens.
///
/// A board ends with this object, or with this process however that ends: no process, mount,
/// interface or file is left. There are no threads: what waits here turns the loop.

#pragma once

#include "access.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelo {

enum class EventKind {
    Leds,     ///< the six LEDs were written; text: the flags of GPIO 6, 7, 8, 2, 3, 4
    Log,      ///< the daemon wrote a record to standard error; text: the record, to the letter
    Mode,     ///< the display mode was switched; text: the new mode's number
    Call,     ///< the daemon called into the platform; text: the function and its arguments
    Store,    ///< the configuration store was set; text: node, attribute, value, "refused" if so
    Omci,     ///< the omci command was run; text: its arguments
    Snapshot, ///< the port counter snapshot was replaced; text: the file
    Laser,    ///< received optical power was turned; text: dBm
    Gpon,     ///< GPON ONU state was turned; text: the state
    Button,   ///< the reset button was moved; text: its value
    Exit,     ///< the daemon ended; text: "status NUMBER" or "signal NAME", and "unasked" behind
              ///< that when nobody asked for it by way of the board
    Note,     ///< a test said something; text: what, "failed: " before it if it did not come true
};

/// The kind's name in lower case: "leds", "log", ...
const char *kindName(EventKind kind);
std::optional<EventKind> kindOf(const std::string &name);

struct Event {
    Clock::time_point time;
    EventKind kind;
    std::string text;
};

/// What an event tells of, when that holds until the next one of it: "leds", "mode", ..., or an
/// attribute of the store; empty for what just happens.
std::string subject(const Event &event);

/// A display mode's keyword, or its number where it has none.
std::string modeName(const std::string &number);

class Board : public Access {
public:
    struct Options {
        std::string form;                       ///< empty for the one of KELO_BOARD, see form.h
        std::vector<std::string> environment{}; ///< of the daemon, beside PATH
        size_t keep = SIZE_MAX;                 ///< bytes of the record; the oldest part goes then
        std::function<bool()> givenUp = [] { return false; }; ///< ends the wait for its start
    };

    /// Starts the agent, which lays out the board, and records; the daemon does not run yet. Of the
    /// forms of that name it takes the first that the machine does not refuse. Throws
    /// std::runtime_error that says what is refused and how to allow it.
    explicit Board(const Options &options,
                   const Link::LoopPointer &loop = std::make_shared<const Loop>());
    Board() : Board(Options()) {}
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    /// Starts the daemon on the board.
    void startDaemon(const std::vector<std::string> &arguments = {});
    /// Starts the daemon by another command on the board, such as a shell that prepares something.
    void startBy(const std::vector<std::string> &command);
    /// Ends the daemon with a signal, if it runs, and waits until it is gone.
    void stopDaemon();
    /// The request that starts it, for `send`.
    Words startRequest(const std::vector<std::string> &command) const;

    /// All that is kept of the record, or what happened since a place in it.
    std::vector<Event> events(size_t from = 0) const;
    /// The place in the record behind all that happened so far.
    size_t mark() const;
    /// Takes the events from a place on, some thousands at most, and moves the place behind them.
    /// Where they were dropped, it takes those from the beginning of the record on.
    std::vector<Event> next(size_t &place) const;
    /// Calls back after every event.
    void whenRecorded(std::function<void()> recorded) { recorded_ = std::move(recorded); }
    size_t recorded() const { return count_; }
    /// What held at a time: the last event of every subject before it. `place` becomes that of the
    /// first event from then on.
    std::vector<Event> heldAt(Clock::time_point time, size_t &place) const;
    /// From when on the record is whole, if its beginning was dropped. What held then is kept.
    Clock::time_point keptSince() const { return keptSince_; }
    /// Waits until `condition` holds for what is kept of the record; false when the deadline, or
    /// the board's end, comes first. It is asked anew after every event.
    bool waitUntil(const std::function<bool(const std::vector<Event> &)> &condition,
                   Clock::duration deadline) const;

    /// Whether the board has ended by itself.
    bool ended() const { return link_->ended(); }
    /// Milliseconds that it may take to end.
    int patience() const { return agent_.patience; }

private:
    void begin(const Link::LoopPointer &loop);
    void finish(int patience) const;
    void compareClocks();
    void tellThatWeLive();
    void record(Clock::time_point time, const std::string &kind, const std::string &text);
    void dropOldest();
    size_t firstPlace() const { return count_ - events_.size(); }

    Form::Agent agent_;
    Watch living_;
    std::optional<Clock::duration> offset_; ///< to the agent's clock; none before they are compared
    std::vector<std::string> environment_;
    size_t keep_;
    std::vector<Event> events_; ///< those that are kept
    size_t bytes_ = 0;          ///< what they take
    size_t count_ = 0;          ///< how many there have been
    Clock::time_point keptSince_{};
    std::function<void()> recorded_;
};

} // namespace kelo
