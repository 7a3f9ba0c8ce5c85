/// Whether the LEDs go through a cycle of patterns in a steady beat.

#pragma once

#include "board.h"

#include <string>
#include <vector>

namespace kelo {

struct Beat {
    std::vector<std::string> patterns; ///< six flags each; neighbours differ, last and first too
    Clock::duration period{};          ///< of the whole cycle
    Clock::duration length{};          ///< how long it has to go on
    double tolerance = 0.25;           ///< of the time that each pattern shows
};

/// Sees the LEDs' patterns in order and says when they have kept the beat long enough.
class BeatWatch {
public:
    /// `showing` is what the LEDs show from `start` on; empty when that is unknown.
    BeatWatch(Beat beat, Clock::time_point start, std::string showing);

    /// The LEDs were written.
    void see(Clock::time_point time, const std::string &pattern);
    bool kept() const { return kept_; }

private:
    void judge(Clock::time_point end);

    Beat beat_;
    Clock::time_point steadySince_; ///< the beat was kept from here to the last change
    Clock::time_point shownSince_;
    std::string showing_;
    std::string before_;  ///< what showed before that; empty when the beat starts with this one
    bool partial_ = true; ///< the pattern was there before anyone looked
    bool kept_ = false;
};

} // namespace kelo
