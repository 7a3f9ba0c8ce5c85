/// The display modes: every mode's pattern and timer, and what survives a change of mode.

#include "display_test.h"

#include <climits>
#include <vector>

namespace {

using namespace panel;

class TimedDisplay : public Display, public testing::WithParamInterface<TimedMode> {};

TEST_P(TimedDisplay, IsLoggedAndArmedWithItsInterval)
{
    journal().take();
    display_setMode(GetParam().mode);
    EXPECT_EQ(journal().take(), Lines{switched(0, GetParam().mode)} + armed(GetParam().interval));
}

TEST_P(TimedDisplay, DrawsItsPhasesFromTheFirstTickOnWhichRunsAtOnce)
{
    display_setMode(GetParam().mode);
    EXPECT_EQ(takePatterns(), Patterns{}); // not before the loop has control
    eventLoop().runActive();
    EXPECT_EQ(takePatterns(), repeated(GetParam().phases, 1));
    for (size_t tick = 1; tick < 5 * GetParam().phases.size(); tick++) {
        eventLoop().run(EventLoop::Time(GetParam().interval - 1));
        EXPECT_EQ(takePatterns(), Patterns{}) << tick;
        eventLoop().run(1us);
        EXPECT_EQ(takePatterns(), repeated(GetParam().phases, 1, tick)) << tick;
    }
}

TEST_P(TimedDisplay, DrawsOncePerTick)
{
    display_setMode(GetParam().mode);
    eventLoop().run(19 * EventLoop::Time(GetParam().interval));
    EXPECT_EQ(takePatterns(), repeated(GetParam().phases, 20));
}

TEST_P(TimedDisplay, GoesOnWhereItWasWhenEnteredAgain)
{
    const size_t left = 2 * GetParam().phases.size() - 1; // not where a counter at 0 would be
    EXPECT_EQ(enterFor(GetParam(), static_cast<int>(left)), repeated(GetParam().phases, left));
    leave();
    eventLoop().run(7s);
    EXPECT_EQ(takePatterns(), Patterns{});
    EXPECT_EQ(enterFor(GetParam(), 8), repeated(GetParam().phases, 8, left));
}

TEST_P(TimedDisplay, IsNotRestartedByBeingAskedForAgain)
{
    enterFor(GetParam(), 1);
    journal().take();
    eventLoop().run(EventLoop::Time(GetParam().interval / 2));
    display_setMode(GetParam().mode);
    EXPECT_EQ(journal().take(), Lines{});
    eventLoop().run(EventLoop::Time(GetParam().interval / 2));
    EXPECT_EQ(takePatterns(), repeated(GetParam().phases, 1, 1));
}

TEST_P(TimedDisplay, IsStoppedByAStaticMode)
{
    enterFor(GetParam(), 2);
    journal().take();
    display_setMode(ErrorA12);
    EXPECT_EQ(journal().take(),
              (Lines{switched(GetParam().mode, 4), "event_del fd=-1"} + drawn("010000")));
    eventLoop().run(60s);
    EXPECT_EQ(journal().take(), Lines{});
}

TEST_P(TimedDisplay, HandlerIgnoresDescriptorAndFlags)
{
    display_setMode(GetParam().mode);
    const auto *const watch = eventLoop().find(-1);
    watch->callback(3, 0x7f, watch->argument);
    EXPECT_EQ(takePatterns(), repeated(GetParam().phases, 1));
}

INSTANTIATE_TEST_SUITE_P(Mode, TimedDisplay,
                         testing::Values(signalBar, reboot, restore, locate, ledTest, factTest,
                                         factTestErr),
                         [](const auto &mode) { return std::to_string(mode.param.mode); });

TEST_F(Display, HandlersIgnoreTheirArgumentButForTheFactoryTest)
{
    for (const TimedMode &mode : {signalBar, reboot, restore, locate, ledTest}) {
        display_setMode(mode.mode);
        EXPECT_EQ(eventLoop().find(-1)->argument, eventLoop().find(-1)->address);
        eventLoop().find(-1)->callback(-1, 0, nullptr);
        EXPECT_EQ(takePatterns(), repeated(mode.phases, 1));
    }
}

TEST_F(Display, FactoryTestsGetTheirErrorFlagAsArgument)
{
    display_setMode(FactTest);
    EXPECT_EQ(eventLoop().find(-1)->argument, nullptr);
    display_setMode(FactTestErr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(eventLoop().find(-1)->argument), 1U);
}

TEST_F(Display, FactoryTestTakesTheLowByteOfItsArgument)
{
    display_setMode(FactTest);
    const auto tick = eventLoop().find(-1)->callback;
    tick(-1, 0, reinterpret_cast<void *>(uintptr_t{0xabcd00}));
    tick(-1, 0, reinterpret_cast<void *>(uintptr_t{0xabcd01}));
    EXPECT_EQ(takePatterns(), (Patterns{factTest.phases[0], factTestErr.phases[1]}));
}

TEST_F(Display, NoneDarkensAllLeds)
{
    display_setMode(ErrorA12);
    journal().take();
    display_setMode(None);
    EXPECT_EQ(journal().take(), Lines{switched(4, 0)} + drawn(dark));
    EXPECT_EQ(eventLoop().pendingCount(), 0U);
}

TEST_F(Display, ErrorA12LightsGpio7)
{
    journal().take();
    display_setMode(ErrorA12);
    EXPECT_EQ(journal().take(), Lines{switched(0, 4)} + drawn("010000"));
    EXPECT_EQ(eventLoop().pendingCount(), 0U);
}

TEST_F(Display, NoneIsIgnoredAtStartThoughNothingWasDrawn)
{
    journal().take();
    display_setMode(None);
    EXPECT_EQ(journal().take(), Lines{});
}

TEST_F(Display, FirstSwitchDoesNotDeleteTheTimer)
{
    journal().take();
    display_setMode(Signal);
    EXPECT_EQ(journal().take(), Lines{switched(0, 1)} + armed(500000));
    display_setMode(Reboot);
    EXPECT_EQ(journal().take(), Lines({switched(1, 2), "event_del fd=-1"}) + armed(250000));
}

TEST_F(Display, StaticModesBeforeAnyTimedOneDoNotDeleteTheTimer)
{
    display_setMode(ErrorA12);
    display_setMode(None);
    display_setMode(42);
    EXPECT_EQ(journal().take({"event_del"}), Lines{});
}

TEST_F(Display, SwitchesFromEveryModeToEveryOther)
{
    const std::vector<TimedMode> modes = {signalBar, reboot,   restore,    locate,
                                          ledTest,   factTest, factTestErr};
    for (const TimedMode &from : modes) {
        for (const TimedMode &to : modes) {
            if (from.mode == to.mode)
                continue;
            display_setMode(from.mode);
            journal().take();
            display_setMode(to.mode);
            EXPECT_EQ(journal().take(), Lines({switched(from.mode, to.mode), "event_del fd=-1"}) +
                                            armed(to.interval));
        }
    }
}

TEST_F(Display, OnlyThePatternOfTheNewModeRuns)
{
    enterFor(restore, 3);
    EXPECT_EQ(enterFor(reboot, 4), repeated(reboot.phases, 4));
}

class OutOfRange : public Display, public testing::WithParamInterface<int32_t> {};

TEST_P(OutOfRange, FreezesTheDisplayUntilAnotherMode)
{
    enterFor(signalBar, 3);
    journal().take();
    display_setMode(GetParam());
    EXPECT_EQ(journal().take(), (Lines{switched(1, GetParam()), "event_del fd=-1"}));
    eventLoop().run(60s);
    display_setMode(GetParam());
    EXPECT_EQ(journal().take(), Lines{});
    display_setMode(Signal);
    EXPECT_EQ(journal().take(),
              Lines({switched(GetParam(), 1), "event_del fd=-1"}) + armed(500000));
    eventLoop().runActive();
    EXPECT_EQ(takePatterns(), Patterns{strongest});
}

INSTANTIATE_TEST_SUITE_P(Mode, OutOfRange,
                         testing::Values(9, 10, 255, 256, 257, INT_MAX, -1, -2, -247, INT_MIN));

TEST_F(Display, LocateMeReturnsToSignalAfter120Ticks)
{
    display_setMode(LocateMe);
    journal().take();
    eventLoop().run(118 * 250ms); // the first tick took no time
    EXPECT_EQ(takePatterns(), repeated(locate.phases, 119));
    EXPECT_EQ(journal().take({"log"}), Lines{});
    eventLoop().run(250ms);
    EXPECT_EQ(journal().take({"log", "event_del", "event_set", "event_add"}),
              (Lines{switched(5, 1), "event_del fd=-1", "event_set fd=-1 flags=0x10",
                     "event_add fd=-1 every 500000us"}));
    EXPECT_EQ(takePatterns(), (Patterns{"000000", strongest})); // its 120th, then the first bar
    eventLoop().run(1s);
    EXPECT_EQ(takePatterns(), (Patterns{strongest, strongest}));
}

TEST_F(Display, LocateMeLeftAfter40TicksReturnsAfter80More)
{
    enterFor(locate, 40);
    leave();
    EXPECT_EQ(enterFor(locate, 79), repeated(locate.phases, 79));
    EXPECT_EQ(journal().take({"log"}), Lines{switched(0, 5)});
    eventLoop().run(250ms);
    EXPECT_EQ(journal().take({"log"}), Lines{switched(5, 1)});
}

TEST_F(Display, LocateMeStartsAfreshAfterItsLimit)
{
    enterFor(locate, 120);
    display_setMode(LocateMe);
    takePatterns();
    journal().take();
    eventLoop().run(118 * 250ms);
    EXPECT_EQ(takePatterns(), repeated(locate.phases, 119));
    EXPECT_EQ(journal().take({"log"}), Lines{});
    eventLoop().run(250ms);
    EXPECT_EQ(journal().take({"log"}), Lines{switched(5, 1)});
}

TEST_F(Display, FactTestErrGoesOnFromFactTest)
{
    EXPECT_EQ(enterFor(factTest, 3), repeated(factTest.phases, 3));
    EXPECT_EQ(enterFor(factTestErr, 6), repeated(factTestErr.phases, 6, 3));
    EXPECT_EQ(enterFor(factTest, 4), repeated(factTest.phases, 4, 9));
}

} // namespace
