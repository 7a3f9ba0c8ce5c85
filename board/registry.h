/// How programs find a running board by name and talk to it: the program that runs the board
/// listens on an abstract unix(7) socket, which ends with that program whatever happens to it.
/// Only boards of the caller's own user are found.
///
/// A client sends one request, a line of words, and reads lines until one that begins with "ok"
/// says that it was done, or "error TEXT" why not:
///   place           "ok WORD...", which make its form
///   state           "ok KEY VALUE...", everything a board has one of
///   watch SINCE     the record: the events that held at that time, then those from there on,
///                   "TIME KIND TEXT" each, then "now", then events as they come; "ok" when the
///                   board's end was asked for
///   mark            events count from here on
///   accept          an end of the daemon that nobody asked for was meant
///   start SPEED [OPTION...], restart    of the daemon
///   hold, release   the reset button
///   down            ends the board; "ok" once nothing is left
///   ...             whatever the agent takes, see agent/main.cpp: "out TEXT" lines are what a
///                   command prints, "refused TEXT" what the agent cannot do
/// Times are nanoseconds of the steady clock.

#pragma once

#include "board.h"

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

/// It did so because somebody asked it to, or the request was done.
struct BoardEnded : BoardGone {
    using BoardGone::BoardGone;
};

/// The program that runs the board does not answer, as when it was stopped.
struct NoAnswer : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A client's connection to a running board.
class Connection {
public:
    /// Throws BoardGone when no board of this name runs.
    Connection(const std::string &board, const Words &request);

    /// The next line; nothing when the deadline comes first. Throws BoardEnded at "ok", BoardGone
    /// at an end without, and std::runtime_error for an error that the board answers.
    std::optional<std::string> line(Clock::time_point deadline = Clock::time_point::max());
    /// Waits for "ok" and returns what it came with. Throws NoAnswer when it does not come in time,
    /// and what `line` throws.
    Words answer(Clock::duration limit = requestLimit, const Printed &printed = {});
    /// Readable when there may be another line.
    int descriptor() const { return socket_.get(); }
    /// The process that listens at the other end.
    pid_t process() const;

private:
    std::string board_;
    Descriptor socket_;
    std::string text_;
    Words answer_;
};

/// The record of a running board from a time on, with what held then before it.
class RecordReader {
public:
    RecordReader(const std::string &board, Clock::time_point since);

    /// The next event. Nothing when the deadline comes first, which does not hold before all that
    /// happened so far has been read. Throws as Connection does.
    std::optional<Event> next(Clock::time_point deadline);
    /// Whether what comes next is news.
    bool isUpToDate() const { return isUpToDate_; }

private:
    Connection connection_;
    bool isUpToDate_ = false;
};

/// Sends a request and waits until it is done.
void request(const std::string &board, const Words &words);

/// Access to the board of this name. Throws BoardGone when none runs.
Access openBoard(const std::string &name);
bool isRunning(const std::string &name);

/// What a board has one of: "leds", "mode", "button", "laser", "gpon", "daemon" (its process, 0
/// while none runs), "process" (its state as in /proc), "pid" (of the program that runs the board),
/// "start", "mark" and "since", from when on the record is kept, and "accepted", of the last
/// request of that name (times). A board that comes up has "starting" instead.
std::map<std::string, std::string> stateOf(const std::string &board);

/// The same from the words of its answer.
std::map<std::string, std::string> toState(const Words &answer);

/// Ends a board in whatever state it is; returns once nothing of it is left. Throws BoardGone when
/// none runs.
void endBoard(const std::string &name);

/// Adds what happened on a board from a time on until now, and first what held then, as if it had
/// begun then. Where the record was dropped up to a later time, that becomes `from`. With `goesOn`
/// what happens further is added for as long as that says so. Throws BoardGone as Connection does.
void readEvents(const std::string &board, Clock::time_point &from, std::vector<Event> &events,
                const std::function<bool()> &goesOn = nullptr);

/// What happened on a board up to now.
struct Past {
    explicit Past(const std::string &board); ///< throws BoardGone as Connection does
    Clock::time_point start;                 ///< of the board
    Clock::time_point from;                  ///< from when on its record is kept
    std::vector<Event> events;
};

/// Names of the running boards, sorted.
std::vector<std::string> runningBoards();

std::string toLine(const Event &event);
std::optional<Event> fromLine(const std::string &line);

std::string toText(Clock::time_point time);
Clock::time_point toTime(const std::string &text);

} // namespace kelo
