/// How programs find a running board by name and talk to it: the program that runs the board
/// listens on an abstract unix(7) socket, which ends with that program whatever happens to it.
/// Only boards of the caller's own user are found.
///
/// They speak the protocol of agent/wire.h, with "ID lost TEXT" for what the agent does not answer.
/// These are answered by that program, and whatever the agent takes, by the agent:
///   place           with words, which make the board's form
///   state           with KEY VALUE..., everything a board has one of
///   watch SINCE     once it sent the record: the events that held at that time, then those from
///                   there on; it goes on with events as they come
///   mark            events count from here on
///   accept          an end of the daemon that nobody asked for was meant
///   start SPEED [OPTION...], restart    of the daemon
///   press TIME, hold, release           of the reset button
///   down            ends the board; answered once nothing is left
/// Two more kinds of event are the last: "down" when the board's end was asked for, "dropped" when
/// the record that is watched was dropped before it was sent.

#pragma once

#include "board.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelo {

/// What makes the socket's address.
struct SocketName {
    explicit SocketName(
        const std::string &board); ///< throws std::invalid_argument for an unusable name
    std::string path;              ///< without the NUL that makes it abstract
};

/// Listens under a board's name; throws std::runtime_error when one of this name runs already.
Descriptor listenAs(const std::string &board);

/// Accepts a client of the caller's own user; none otherwise.
Descriptor acceptClient(int listening);

/// The board at the other end went away.
struct BoardGone : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The same, but somebody had asked it to end.
struct BoardEnded : BoardGone {
    using BoardGone::BoardGone;
};

/// A link to the program that runs a board, whose process becomes `process`. Throws BoardGone when
/// there is none, std::runtime_error when it does not answer.
std::shared_ptr<Link> connectTo(const std::string &board, const Link::LoopPointer &loop,
                                pid_t *process = nullptr, Happened happened = {},
                                std::function<void()> ended = {});

/// The record of a running board from a time on, with what held then before it.
class RecordReader {
public:
    /// `news` is called when there is more to take.
    RecordReader(const std::string &board, Clock::time_point since,
                 const Link::LoopPointer &loop = std::make_shared<const Loop>(),
                 std::function<void()> news = {});
    RecordReader(const RecordReader &) = delete;
    RecordReader &operator=(const RecordReader &) = delete;

    /// The next event that came. Throws, after the last, BoardEnded or BoardGone when the board
    /// ended, and std::runtime_error when it does not answer or did not keep all.
    std::optional<Event> take();
    /// The same, but waits for it. Nothing when the deadline comes first, which does not hold
    /// before all that happened so far has been read.
    std::optional<Event> next(Clock::time_point deadline);
    /// Whether all that happened before this was made has been taken.
    bool isUpToDate() const { return isPastHere_ && past_.empty(); }

private:
    void receive(Clock::time_point time, const std::string &kind, const std::string &text);
    void fail(const std::string &why);
    void tell() const;

    const std::string board_;
    const std::function<void()> news_;
    std::deque<Event> past_;   ///< what happened before this was made
    std::deque<Event> coming_; ///< since
    bool isPastHere_ = false;  ///< all of it came
    std::string failure_;      ///< why nothing more comes; empty while it may
    bool down_ = false;
    const Link::LoopPointer loop_;
    const std::shared_ptr<Link> link_;
};

/// Sends a request and waits until it is done. Throws BoardGone, or what Link::ask throws.
Words request(const std::string &board, const Words &words, Clock::duration limit = startLimit);

/// Access to the board of this name. Throws BoardGone when none runs.
Access openBoard(const std::string &name,
                 const Link::LoopPointer &loop = std::make_shared<const Loop>());
bool isRunning(const std::string &name);

/// What a board has one of: "leds", "mode", "button", "laser", "gpon", "daemon" (its process, 0
/// while none runs), "process" (its state as in /proc), "pid" (of the program that runs the board),
/// "start", "mark" and "since", from when on the record is kept, and "accepted", of the last
/// request of that name (times). Throws std::runtime_error while the board comes up.
std::map<std::string, std::string> stateOf(const std::string &board);

/// The same from the words of its answer.
std::map<std::string, std::string> toState(const Words &answer);

/// Ends a board in whatever state it is; returns once nothing of it is left. Throws BoardGone when
/// none runs.
void endBoard(const std::string &name);

/// Names of the running boards, sorted.
std::vector<std::string> runningBoards();

} // namespace kelo
