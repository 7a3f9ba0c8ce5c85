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

/// What happened on a board from the first event to `end`. The daemon's polling of the platform is
/// left out, and so is its log.
Recording makeRecording(const std::vector<Event> &events, Clock::time_point end);

/// The file.
std::string toVcd(const Recording &recording);

/// Throws std::runtime_error that says what is wrong with the file, when it is not one of a board.
Recording readVcd(std::istream &in);

} // namespace kelo
