/// The tick counters past 2^31. The shortest of them takes years to get there, so this program has
/// the display's source in its own, where it can set them.

#include "display.cpp" // NOLINT(bugprone-suspicious-include)

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/journal.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace {

using fakes::eventLoop;
using fakes::journal;
using fakes::takePatterns;
using Patterns = std::vector<std::string>;

/// What a mode draws tick by tick from a count on, "" where it draws nothing.
Patterns drawnFrom(int32_t &counter, int32_t count, int32_t mode, int ticks)
{
    event_init();
    display_setMode(mode);
    counter = count;
    const auto *const watch = eventLoop().find(-1);
    Patterns patterns;
    for (int tick = 0; tick < ticks; tick++) {
        watch->callback(-1, 0, watch->argument);
        const Patterns drawn = takePatterns();
        patterns.push_back(drawn.empty() ? "" : drawn[0]);
    }
    return patterns;
}

constexpr int32_t lastCount = INT_MAX - 1; // even

TEST(DisplayCount, TwoPhasesDrawOnlyOnEvenTicksPast2To31)
{
    EXPECT_EQ(drawnFrom(rebootCount, lastCount, Reboot, 6),
              (Patterns{"000111", "000000", "000111", "", "000111", ""}));
    EXPECT_EQ(rebootCount, INT_MIN + 4);
}

TEST(DisplayCount, LedTestDrawsOnlyOnEvenTicksPast2To31)
{
    EXPECT_EQ(drawnFrom(ledTestCount, lastCount, LedTest, 5),
              (Patterns{"111111", "000000", "111111", "", "111111"}));
}

TEST(DisplayCount, FourPhasesDrawOnlyOnEveryFourthTickPast2To31)
{
    EXPECT_EQ(drawnFrom(restoreCount, lastCount, Restore, 8),
              (Patterns{"000111", "000000", "000100", "", "", "", "000100", ""}));
}

TEST(DisplayCount, FactoryTestDrawsOnlyOnEveryFourthTickPast2To31)
{
    EXPECT_EQ(drawnFrom(factTestCount, lastCount, FactTest, 7),
              (Patterns{"100000", "010000", "001000", "", "", "", "001000"}));
}

TEST(DisplayCount, PatternsAreCompleteAgainOnceTheCountReachesZero)
{
    EXPECT_EQ(drawnFrom(restoreCount, -2, Restore, 6),
              (Patterns{"", "", "000100", "000110", "000111", "000000"}));
}

TEST(DisplayCount, LocateMeEndsAt120AndNotBelow)
{
    EXPECT_EQ(drawnFrom(locateCount, -3, LocateMe, 5), (Patterns{"", "", "", "111000", "000000"}));
    EXPECT_EQ(locateCount, 2);
    EXPECT_EQ(journal().take({"log"}).size(), 1U); // entered, and not left
}

TEST(DisplayCount, LocateMeEndsAbove120Too)
{
    EXPECT_EQ(drawnFrom(locateCount, 130, LocateMe, 1), Patterns{"000111"});
    EXPECT_EQ(locateCount, 0);
    EXPECT_EQ(journal().take({"log"}).size(), 2U); // entered and left
}

TEST(DisplayCount, SignalReadsAndBlinksByTheSignedRemainderPast2To31)
{
    fakes::board().gponUp = 0;
    // 2^31 - 2 and -2^31 + 2 are multiples of 6.
    const Patterns down = {"010101", "110001"};
    const Patterns patterns = drawnFrom(signalCount, lastCount, Signal, 12);
    for (size_t tick = 0; tick < patterns.size(); tick++)
        EXPECT_EQ(patterns[tick], down[tick % 2]) << tick;
    EXPECT_EQ(journal().take({"syscfg_getLaserInfo"}).size(), 3U); // at ticks 0, 4 and 10
    EXPECT_EQ(signalCount, INT_MIN + 10);
}

} // namespace
