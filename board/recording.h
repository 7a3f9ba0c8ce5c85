/// A board's timeline as signals over time, and the file that keeps it: a value change dump (VCD,
/// IEEE 1364), which GTKWave, sigrok-cli and readVcd() open.

#pragma once

#include "board.h"

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace kelo {

struct Signal {
    enum class Type {
        Bit,   ///< "0", "1" or "x" (not known yet)
        Bits,  ///< a whole number in decimal, or "x"; kept as single bits, which every reader knows
        Real,  ///< a number, or "nan"
        Event, ///< happens at a time; the value says what happened
    };
    struct Change {
        int64_t time; ///< in RecordingTick since the recording's start
        std::string value;
    };

    std::string name;
    Type type;
    std::vector<Change> changes{};
};

/// Ten microseconds: fine enough for what the daemon does, coarse enough for readers that keep a
/// sample for every tick.
using RecordingTick = std::chrono::duration<int64_t, std::ratio<1, 100000>>;

struct Recording {
    std::vector<Signal> signals; ///< in the order in which a person looks at them
    int64_t length = 0;

    const Signal *find(const std::string &name) const;
};

/// Some events of a board, and the time that they span.
struct Record {
    std::string title{};
    std::vector<Event> events{}; ///< in the order in which they happened
    Clock::time_point start{};   ///< of the board
    Clock::time_point begin{};   ///< from when on the events are there
    Clock::time_point end{};
};

/// What happened on a board from a time, or the first event, to `end`. The daemon's polling of the
/// platform is left out, and so is its log.
Recording makeRecording(const std::vector<Event> &events, Clock::time_point end,
                        std::optional<Clock::time_point> from = {});

/// The file.
std::string toVcd(const Recording &recording);

/// The events of a file, in time since its start. Throws std::runtime_error that says what is wrong
/// with it, when it is not one of a board.
Record readVcd(std::istream &in);

} // namespace kelo
