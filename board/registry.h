/// How programs find a running board by name and talk to it: the program that runs the board
/// listens on an abstract unix(7) socket, which ends with that program whatever happens to it.
/// Only boards of the caller's own user are found.
///
/// A client sends one request line and reads lines until the end:
///   place           "HOLDER ISOLATED ROOT"
///   state           one "KEY VALUE" line for everything a board has one of
///   watch SINCE     the record: the events that held at that time, then those from there on,
///                   "TIME KIND TEXT" each, then "now", then events as they come, then "end" where
///                   somebody asked the board to end
///   mark            events count from here on
///   accept          an end of the daemon that nobody asked for was meant
///   signal NUMBER   to the daemon, whose end by it is asked for then
///   start SPEED [OPTION...], stop, restart    of the daemon
///   hold, release   the reset button
///   down            ends the board
/// A request that failed is answered with "error TEXT". Times are nanoseconds of the steady clock;
/// TEXT has its backslashes and line feeds escaped.

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

/// It did so because somebody asked it to.
struct BoardEnded : BoardGone {
    using BoardGone::BoardGone;
};

/// A client's connection to a running board.
class Connection {
public:
    /// Throws BoardGone when no board of this name runs.
    Connection(const std::string &board, const std::string &request);

    /// The next line; nothing when the deadline comes first. Throws BoardGone at the end, and
    /// std::runtime_error for an error that the board answers.
    std::optional<std::string> line(Clock::time_point deadline = Clock::time_point::max());
    /// Every line up to the end.
    std::vector<std::string> rest();

private:
    std::string board_;
    Descriptor socket_;
    std::string text_;
};

/// Sends a request whose answer does not matter but for an error, and waits for its end.
void request(const std::string &board, const std::string &text);

/// Where the board of this name runs; nothing when none does.
std::optional<Place> findBoard(const std::string &name);

/// What a board has one of: "leds", "mode", "button", "laser", "gpon", "daemon" (its process, 0
/// while none runs), "pid" (of the program that runs the board), "start", "mark" and "since", from
/// when on the record is kept, and "accepted", of the last request of that name (times).
std::map<std::string, std::string> stateOf(const std::string &board);

/// Adds what happened on a board from a time on until now, and first what held then, as if it had
/// begun then. Where the record was dropped up to a later time, that becomes `from`. With `goesOn`
/// what happens further is added for as long as that says so. Throws BoardGone as Connection does.
void readEvents(const std::string &board, Clock::time_point &from, std::vector<Event> &events,
                const std::function<bool()> &goesOn = nullptr);

/// Names of the running boards, sorted.
std::vector<std::string> runningBoards();

std::string toLine(const Event &event);
std::optional<Event> fromLine(const std::string &line);

std::string toText(Clock::time_point time);
Clock::time_point toTime(const std::string &text);

} // namespace kelo
