/// What the tests of the display share: its log lines and calls, the timed modes with their phases,
/// and a display that was just started.

#pragma once

#include "display.h"

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/journal.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace panel {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::EventLoop;
using fakes::journal;
using fakes::Lines;
using fakes::operator+;
using fakes::takePatterns;
using Patterns = std::vector<std::string>;

inline const std::string dark = "000000";
inline const std::string noSignal = "000111";
inline const std::string linkDown = "010101";
inline const std::string strongest = "110001";

inline std::string logged(const std::string &function, const std::string &text)
{
    return "log display.cpp " + function + ": " + text;
}

inline std::string switched(int from, int to)
{
    return logged("display_setMode", "switch display mode " + std::to_string(from) + " -> " +
                                         std::to_string(to) + "\n");
}

/// A pattern as it stands in the journal.
inline Lines drawn(const std::string &pattern)
{
    return {"leds " + pattern};
}

inline Lines armed(int interval)
{
    return {"event_set fd=-1 flags=0x10",
            "event_add fd=-1 every " + std::to_string(interval) + "us",
            "event_active fd=-1 result=0 calls=0"};
}

/// `count` patterns, `phases` over and over from the given one on.
inline Patterns repeated(const Patterns &phases, size_t count, size_t first = 0)
{
    Patterns patterns;
    for (size_t i = 0; i < count; i++)
        patterns.push_back(phases[(first + i) % phases.size()]);
    return patterns;
}

struct TimedMode {
    int32_t mode;
    int interval; // in microseconds
    Patterns phases;
};

inline void PrintTo(const TimedMode &mode, std::ostream *out)
{
    *out << "mode " << mode.mode;
}

inline const TimedMode reboot = {2, 250000, {"000111", "000000"}};
inline const TimedMode restore = {3, 100000, {"000100", "000110", "000111", "000000"}};
inline const TimedMode locate = {5, 250000, {"111000", "000000", "000111", "000000"}};
inline const TimedMode ledTest = {6, 3000000, {"111111", "000000"}};
inline const TimedMode factTest = {7, 500000, {"001000", "010000", "100000", "010000"}};
inline const TimedMode factTestErr = {8, 500000, {"001110", "010101", "100011", "010101"}};
inline const TimedMode signalBar = {1, 500000, {"110001"}}; // strongest level, link up

/// Lets the given number of ticks run in a mode that was just entered, or goes on with it.
inline Patterns enterFor(const TimedMode &mode, int ticks)
{
    display_setMode(mode.mode);
    takePatterns();
    eventLoop().run((ticks - 1) * EventLoop::Time(mode.interval));
    return takePatterns();
}

class Display : public testing::Test {
protected:
    Display() { event_init(); }

    /// Stops the pattern without a trace in any counter.
    static void leave()
    {
        display_setMode(None);
        takePatterns();
        journal().take();
    }
};

} // namespace panel
