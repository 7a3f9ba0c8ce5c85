/// The simulated board: a firmware's root file system in miniature, real network interfaces, and
/// the hardware that the unmodified daemon finds there. What the daemon does is recorded as it
/// happens.
///
/// A board lives in mount, network and process namespaces of its own (and in a user namespace where
/// the caller is not root) and ends with this object, or with this process however that ends:
/// no process, mount, interface or file is left.

#pragma once

#include "access.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelo {

using Clock = std::chrono::steady_clock;

enum class EventKind {
    Leds,     ///< the six LEDs were written; text: the flags of GPIO 6, 7, 8, 2, 3, 4
    Log,      ///< the daemon wrote a record to standard error; text: the record, to the letter
    Mode,     ///< the display mode was switched; text: the new mode's number
    Call,     ///< the daemon called into the platform; text: the function and its arguments
    Store,    ///< the configuration store was set; text: node, attribute, value
    Omci,     ///< the omci command was run; text: its arguments
    Snapshot, ///< the port counter snapshot was replaced; text: the file
    Laser,    ///< received optical power was turned; text: dBm
    Gpon,     ///< GPON ONU state was turned; text: the state
    Button,   ///< the reset button was moved; text: its value
    Exit,     ///< the daemon ended; text: "status NUMBER" or "signal NAME", and "unasked" behind
              ///< that when nobody asked for it
};

/// The kind's name in lower case: "leds", "log", ...
const char *kindName(EventKind kind);

struct Event {
    Clock::time_point time;
    EventKind kind;
    std::string text;
};

/// What an event tells of, when that holds until the next one of it: "leds", "mode", ..., or an
/// attribute of the store; empty for what just happens.
std::string subject(const Event &event);

class Board : public Access {
public:
    struct Options {
        std::string rootfs;                     ///< the template; empty for the one of this build
        std::vector<std::string> environment{}; ///< of the daemon, beside PATH
        size_t keep = SIZE_MAX;                 ///< bytes of the record; the oldest part goes then
    };

    /// Lays out the board and starts recording; the daemon does not run yet. Throws
    /// std::runtime_error that says what the machine refuses and how to allow it.
    explicit Board(const Options &options);
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
    /// Sends the daemon a signal; false when none runs. An end by it is asked for.
    bool signalDaemon(int signal);

    /// All that is kept of the record, or what happened since a place in it.
    std::vector<Event> events(size_t from = 0) const;
    /// How many events there have been: a place in the record to look on from.
    size_t mark() const;
    /// The events at a place, some thousands at most, and moves the place behind them; waits for
    /// the first of them, none when it does not come in time. A place that was dropped is moved to
    /// where the record begins.
    std::vector<Event> next(size_t &place, Clock::duration patience) const;
    /// What held at a time: the last event of every subject before it. `place` becomes that of the
    /// first event from then on.
    std::vector<Event> heldAt(Clock::time_point time, size_t &place) const;
    /// From when on the record is whole, if its beginning was dropped. What held then is kept.
    Clock::time_point keptSince() const;
    /// Waits until `condition` holds for what is kept of the record; false when the deadline comes
    /// first. It is asked anew after every event, under the record's lock: it must not call the
    /// board.
    bool waitUntil(const std::function<bool(const std::vector<Event> &)> &condition,
                   Clock::duration deadline) const;

private:
    void record(EventKind kind, std::string text);
    void append(EventKind kind, std::string text);
    size_t firstPlace() const { return count_ - events_.size(); }
    void recordLoop();
    void readLeds();
    void readLog();
    void readFileEvents();
    void readCalls();
    void noteHardware(const std::string &name, EventKind kind, const std::string &boardPath);
    void reapDaemon();
    void wake() const;

    std::vector<std::string> environment_;
    size_t keep_;
    pid_t unshare_ = -1; ///< the holder's parent
    Descriptor holderInput_;

    Descriptor leds_;
    Pipe log_;
    Descriptor files_;
    Pipe wake_;
    Descriptor calls_;
    Descriptor callsBefore_; ///< the file that was replaced last
    std::string ledText_;
    std::string callText_;
    std::string flags_ = "??????";
    std::map<int, std::string> watched_; ///< inotify watch to folder
    std::map<EventKind, std::string> hardware_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_; ///< those that are kept
    size_t bytes_ = 0;          ///< what they take
    size_t count_ = 0;          ///< how many there have been
    Clock::time_point keptSince_{};
    pid_t child_ = -1; ///< the started program, until it ends
    int asked_ = 0;    ///< the signal that it got last
    Descriptor childEnd_;
    bool ending_ = false;
    std::thread recorder_;
};

} // namespace kelo
