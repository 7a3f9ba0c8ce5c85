/// The front panel: every mode's pattern and timer, what survives a change of mode, the signal bar,
/// and the command pipe.

#include "display.h"

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/log.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using fakes::board;
using fakes::eventLoop;
using fakes::EventLoop;
using fakes::files;
using fakes::journal;
using fakes::Lines;
using fakes::operator+;
using fakes::takePatterns;
using fakes::vendor;
using Patterns = std::vector<std::string>;

const std::string dark = "000000";
const std::string noSignal = "000111";
const std::string linkDown = "010101";
const std::string strongest = "110001";

std::string logged(const std::string &function, const std::string &text)
{
    return "log display.cpp " + function + ": " + text;
}

std::string switched(int from, int to)
{
    return logged("display_setMode", "switch display mode " + std::to_string(from) + " -> " +
                                         std::to_string(to) + "\n");
}

/// The six writes of a pattern as they stand in the journal.
Lines drawn(const std::string &pattern)
{
    static constexpr const char *gpios[] = {"6", "7", "8", "2", "3", "4"};
    Lines lines;
    for (size_t led = 0; led < 6; led++)
        lines.push_back(std::string("platform_ledSet ") + gpios[led] + ' ' + pattern[led]);
    return lines;
}

Lines armed(int interval)
{
    return {"event_set fd=-1 flags=0x10",
            "event_add fd=-1 every " + std::to_string(interval) + "us",
            "event_active fd=-1 result=0 calls=0"};
}

/// `count` patterns, `phases` over and over from the given one on.
Patterns repeated(const Patterns &phases, size_t count, size_t first = 0)
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

void PrintTo(const TimedMode &mode, std::ostream *out)
{
    *out << "mode " << mode.mode;
}

const TimedMode reboot = {2, 250000, {"000111", "000000"}};
const TimedMode restore = {3, 100000, {"000100", "000110", "000111", "000000"}};
const TimedMode locate = {5, 250000, {"111000", "000000", "000111", "000000"}};
const TimedMode ledTest = {6, 3000000, {"111111", "000000"}};
const TimedMode factTest = {7, 500000, {"001000", "010000", "100000", "010000"}};
const TimedMode factTestErr = {8, 500000, {"001110", "010101", "100011", "010101"}};
const TimedMode signalBar = {1, 500000, {"110001"}}; // strongest level, link up

/// Lets the given number of ticks run in a mode that was just entered, or goes on with it.
Patterns enterFor(const TimedMode &mode, int ticks)
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
    const size_t left = GetParam().phases.size() / 2 + 1;
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

// The signal bar.

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

class SignalBar : public Display {
protected:
    static Patterns ticks(int count)
    {
        for (int tick = 0; tick < count; tick++)
            nextTick();
        return takePatterns();
    }

    /// The bar that a power shows, one tick after it was read.
    static std::string barOf(float power)
    {
        vendor().laserPower = power;
        const Patterns patterns = ticks(6);
        return patterns.size() == 6 ? patterns.back() : "not six ticks";
    }

    static size_t readings() { return journal().take({"syscfg_getLaserInfo"}).size(); }

private:
    static void nextTick()
    {
        if (!eventLoop().isPending(-1)) {
            display_setMode(Signal);
            eventLoop().runActive();
        } else {
            eventLoop().run(500ms);
        }
    }
};

TEST_F(SignalBar, ShowsTheLevel)
{
    const std::vector<std::pair<int, std::string>> levels = {
        {0, "000100"}, {1, "100000"}, {2, "110000"},   {3, "111000"},   {4, "110001"},
        {5, dark},     {-1, dark},    {INT_MAX, dark}, {INT_MIN, dark}, {256, dark},
    };
    for (const auto &[level, pattern] : levels) {
        board().level = level;
        EXPECT_EQ(ticks(1), Patterns{pattern}) << level;
    }
}

TEST_F(SignalBar, ReadsThePowerOnTheFirstAndThenEverySixthTick)
{
    for (int tick = 0; tick < 30; tick++) {
        ticks(1);
        EXPECT_EQ(readings(), tick % 6 == 0 ? 1U : 0U) << tick;
    }
}

TEST_F(SignalBar, KeepsTheReadingInBetween)
{
    vendor().laserPower = -20.0F;
    ticks(1);
    vendor().laserPower = -10.0F;
    ticks(5);
    EXPECT_EQ(board().classified, std::vector<float>(6, -20.0F));
    ticks(1);
    EXPECT_EQ(board().classified.back(), -10.0F);
}

TEST_F(SignalBar, ClassifiesExactlyThePowerThatWasRead)
{
    for (const float power : {-39.9F, -28.5F, -8.01F, 0.1F, 3.5F, infinity}) {
        barOf(power);
        EXPECT_EQ(board().classified.back(), power);
    }
}

TEST_F(SignalBar, TakesEveryNonzeroResultAsReading)
{
    for (const int result : {1, 2, -1, INT_MIN, 256}) {
        vendor().laserResult = result;
        EXPECT_EQ(barOf(-20.0F), strongest);
    }
}

TEST_F(SignalBar, FailedReadingIsNoSignalUntilALaterOneSucceeds)
{
    vendor().laserPower = -20.0F;
    EXPECT_EQ(ticks(6), Patterns(6, strongest));
    vendor().laserResult = 0; // although it stores a power
    EXPECT_EQ(ticks(6), Patterns(6, noSignal));
    EXPECT_EQ(ticks(6), Patterns(6, noSignal));
    vendor().laserResult = 1;
    EXPECT_EQ(ticks(6), Patterns(6, strongest));
}

TEST_F(SignalBar, ShowsNoSignalForZeroAndFromMinus40Down)
{
    for (const float power :
         {0.0F, -0.0F, -40.0F, std::nextafter(-40.0F, -infinity), -40.1F, -1e30F, -infinity})
        EXPECT_EQ(barOf(power), noSignal) << power;
}

TEST_F(SignalBar, ClassifiesEveryOtherPower)
{
    for (const float power :
         {std::nextafter(0.0F, infinity), std::nextafter(0.0F, -infinity), 0.001F, -0.001F,
          std::nextafter(-40.0F, infinity), -39.9F, infinity, notANumber})
        EXPECT_EQ(barOf(power), strongest) << power;
    for (int hundredths = -3999; hundredths < 0; hundredths++)
        EXPECT_EQ(barOf(static_cast<float>(hundredths) / 100.0F), strongest) << hundredths;
}

TEST_F(SignalBar, AlternatesWithTheLinkDownPatternWhileTheLinkIsDown)
{
    board().gponUp = 0;
    EXPECT_EQ(ticks(14), repeated({linkDown, strongest}, 14));
    board().gponUp = 1;
    EXPECT_EQ(ticks(3), Patterns(3, strongest));
    board().gponUp = 0;
    EXPECT_EQ(ticks(3), (Patterns{strongest, linkDown, strongest})); // by the count, not from down
}

TEST_F(SignalBar, LinkDownReplacesEveryLevel)
{
    board().gponUp = 0;
    for (const int level : {0, 1, 2, 3, 4, 5, -1}) {
        board().level = level;
        EXPECT_EQ(ticks(2)[0], linkDown);
    }
}

TEST_F(SignalBar, TakesEveryNonzeroAsLinkUp)
{
    board().gponUp = 255;
    EXPECT_EQ(ticks(2), Patterns(2, strongest));
}

TEST_F(SignalBar, DoesNotBlinkWithoutSignal)
{
    board().gponUp = 0;
    vendor().laserPower = 0.0F;
    EXPECT_EQ(ticks(12), Patterns(12, noSignal));
}

TEST_F(SignalBar, AsksInOrderAndForTheLinkOnEveryTickWithASignal)
{
    display_setMode(Signal);
    journal().take();
    eventLoop().runActive();
    EXPECT_EQ(journal().take(),
              Lines({"syscfg_getLaserInfo", "platform_getLaserRxPowerLevel", "platform_isGponUp"}) +
                  drawn(strongest));
    eventLoop().run(500ms);
    EXPECT_EQ(journal().take(),
              Lines({"platform_getLaserRxPowerLevel", "platform_isGponUp"}) + drawn(strongest));
}

TEST_F(SignalBar, AsksForNeitherLevelNorLinkWithoutSignal)
{
    vendor().laserPower = -40.0F;
    display_setMode(Signal);
    journal().take();
    eventLoop().runActive();
    EXPECT_EQ(journal().take(), Lines{"syscfg_getLaserInfo"} + drawn(noSignal));
    eventLoop().run(500ms);
    EXPECT_EQ(journal().take(), drawn(noSignal));
}

TEST_F(SignalBar, GoesOnWithTheStoredPowerAfterAnotherMode)
{
    vendor().laserPower = -20.0F;
    ticks(2);
    vendor().laserPower = 0.0F;
    leave();
    EXPECT_EQ(ticks(4), Patterns(4, strongest)); // the third to sixth tick
    EXPECT_EQ(readings(), 0U);
    EXPECT_EQ(ticks(1), Patterns{noSignal});
    EXPECT_EQ(readings(), 1U);
}

TEST_F(SignalBar, ReadsAtOnceAfterAnotherModeWhenAReadingIsDue)
{
    ticks(6);
    leave();
    ticks(1);
    EXPECT_EQ(readings(), 1U);
}

// The command pipe.

const std::string pipePath = "/var/run/kelo-monitord.display";
const int pipeFd = fakes::firstDescriptor;

const Lines opened = {"open " + pipePath + " 0x800", "event_set fd=1000 flags=0x12",
                      "event_add fd=1000"};

class Pipe : public Display {
protected:
    Pipe()
    {
        display_register();
        eventLoop().runActive();
        takePatterns();
        journal().take();
    }

    /// One chunk arrives. Returns the log, cut down to what follows the first record, which tells
    /// of the call.
    static Lines receive(const std::string &chunk)
    {
        files().chunks.push_back(chunk);
        return wake();
    }

    static Lines wake()
    {
        eventLoop().readable(pipeFd);
        Lines lines = journal().take({"log"});
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], called(EV_READ));
        lines.erase(lines.begin());
        return lines;
    }

    static std::string called(int events)
    {
        char text[100];
        snprintf(text, sizeof text, "readDisplayMode called with fd: %d, event: %d, arg: %p\n",
                 pipeFd, events, static_cast<void *>(eventLoop().find(pipeFd)->address));
        return logged("readDisplayMode", text);
    }

    static std::string received(const std::string &text)
    {
        return logged("readDisplayMode", "received \"" + text + "\"\n");
    }

    static std::string receivedLength(int length)
    {
        return logged("readDisplayMode", "received len: " + std::to_string(length) + "\n");
    }
};

TEST_F(Display, RegistrationDarkensTheLedsEntersSignalAndOpensThePipe)
{
    journal().take();
    display_register();
    const Lines darkened = {"platform_ledInit 6", "platform_ledInit 7", "platform_ledInit 8",
                            "platform_ledInit 2", "platform_ledInit 3", "platform_ledInit 4"};
    EXPECT_EQ(journal().take(), darkened + Lines{switched(0, 1)} + armed(500000) +
                                    Lines({"unlink " + pipePath, "mkfifo " + pipePath + " 0600"}) +
                                    opened);
    EXPECT_EQ(eventLoop().find(pipeFd)->argument, eventLoop().find(pipeFd)->address);
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Display, RegistrationReplacesAnOldFile)
{
    files().content[pipePath] = "old";
    display_register();
    EXPECT_EQ(files().content[pipePath], "");
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Display, RunsOnWithoutAPipeThatCannotBeCreated)
{
    files().content[pipePath] = "a directory";
    files().fileErrors[pipePath] = EISDIR;
    display_register();
    const Lines steps = journal().take({"unlink", "mkfifo", "open", "log"});
    EXPECT_EQ(steps,
              (Lines{switched(0, 1), "unlink " + pipePath, "mkfifo " + pipePath + " 0600",
                     logged("display_register", "Failed to create fifo \"" + pipePath + "\"\n")}));
    EXPECT_EQ(eventLoop().pendingCount(), 1U);
    eventLoop().run(1s);
    EXPECT_EQ(takePatterns(), Patterns(3, strongest));
}

TEST_F(Display, RunsOnWithoutAPipeThatCannotBeOpened)
{
    files().openErrors[pipePath] = EACCES;
    display_register();
    EXPECT_EQ(
        journal().take({"open", "close", "log"}),
        (Lines{switched(0, 1), "open " + pipePath + " 0x800",
               logged("openDisplayModeFifo", "Failed to open socket \"" + pipePath + "\"\n")}));
    EXPECT_EQ(eventLoop().pendingCount(), 1U);
    eventLoop().run(1s);
    EXPECT_EQ(takePatterns(), Patterns(3, strongest));
}

struct Command {
    std::string chunk;
    int mode; ///< -1 where none is chosen
};

class PipeCommand : public Pipe, public testing::WithParamInterface<Command> {};

TEST_P(PipeCommand, ChoosesTheModeOfTheFirstKeywordThatItBeginsWith)
{
    display_setMode(42); // no keyword's
    journal().take();
    const Lines expected = GetParam().mode < 0
                               ? Lines{received(GetParam().chunk)}
                               : Lines({received(GetParam().chunk), switched(42, GetParam().mode)});
    EXPECT_EQ(receive(GetParam().chunk), expected);
}

INSTANTIATE_TEST_SUITE_P(Keyword, PipeCommand,
                         testing::Values(Command{"none", 0}, Command{"signal", 1},
                                         Command{"reboot", 2}, Command{"restore", 3},
                                         Command{"errora12", 4}, Command{"locateme", 5},
                                         Command{"ledtest", 6}, Command{"facttest", 7},
                                         Command{"facttesterr", 8}));

INSTANTIATE_TEST_SUITE_P(KeywordAndMore, PipeCommand,
                         testing::Values(Command{"reboot\n", 2}, Command{"signalling", 1},
                                         Command{"none of these", 0}, Command{"reboot signal", 2},
                                         Command{"facttester", 7}, Command{"facttest err", 7},
                                         Command{"facttesterX", 7}, Command{"facttesterror", 8},
                                         Command{"errora123", 4}, Command{"restored\r\n", 3},
                                         Command{"ledtests", 6}, Command{"locatemenow", 5}));

INSTANTIATE_TEST_SUITE_P(
    NoKeyword, PipeCommand,
    testing::Values(Command{"Signal", -1}, Command{"sIGNAL", -1}, Command{" signal", -1},
                    Command{"\nsignal", -1}, Command{"non", -1}, Command{"signa", -1},
                    Command{"reboo", -1}, Command{"restor", -1}, Command{"errora1", -1},
                    Command{"errora", -1}, Command{"locatem", -1}, Command{"ledtes", -1},
                    Command{"facttes", -1}, Command{"x", -1}, Command{"1", -1}, Command{"\n", -1},
                    Command{"re", -1}, Command{"ebootsignal", -1}));

TEST_F(Pipe, KeywordOfTheCurrentModeIsOnlyLogged)
{
    EXPECT_EQ(receive("signal\n"), Lines{received("signal\n")});
    eventLoop().run(500ms);
    EXPECT_EQ(takePatterns(), Patterns{strongest});
}

TEST_F(Pipe, TextEndsAtAZeroByte)
{
    EXPECT_EQ(receive(std::string("reboot\0signal", 13)),
              (Lines{received("reboot"), switched(1, 2)}));
    EXPECT_EQ(receive(std::string("\0signal", 7)), Lines{received("")});
}

TEST_F(Pipe, ReadsAtMost127BytesAndTheRestAsAnotherCommand)
{
    const std::string first = "reboot" + std::string(121, '.');
    EXPECT_EQ(receive(first + "signal"), (Lines{received(first), switched(1, 2)}));
    EXPECT_EQ(wake(), (Lines{received("signal"), switched(2, 1)}));
}

TEST_F(Pipe, KeywordCutBy127BytesChoosesNothing)
{
    const std::string first = std::string(123, '.') + "sign";
    EXPECT_EQ(receive(first + "al"), Lines{received(first)});
    EXPECT_EQ(wake(), Lines{received("al")});
}

TEST_F(Pipe, CommandDoesNotSeeTheOneBefore)
{
    receive("facttesterr");
    EXPECT_EQ(receive("facttest"), (Lines{received("facttest"), switched(8, 7)}));
    EXPECT_EQ(receive("n"), Lines{received("n")});
}

TEST_F(Pipe, EventPersistsFromCommandToCommand)
{
    files().chunks = {"reboot"};
    eventLoop().readable(pipeFd);
    EXPECT_EQ(journal().take(), Lines({called(EV_READ), "read fd=1000 size=127", received("reboot"),
                                       switched(1, 2), "event_del fd=-1"}) +
                                    armed(250000));
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Pipe, IsOpenedAnewWhenTheWriterHasClosedIt)
{
    receive("reboot\n");
    eventLoop().readable(pipeFd);
    EXPECT_EQ(journal().take(), Lines({called(EV_READ), "read fd=1000 size=127", receivedLength(0),
                                       "event_del fd=1000", "close 1000"}) +
                                    opened);
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
    EXPECT_EQ(files().openCount, 1U);
    EXPECT_EQ(receive("signal\n"), (Lines{received("signal\n"), switched(2, 1)}));
}

TEST_F(Pipe, IsOpenedAnewWhenAReadFails)
{
    for (const int error : {EAGAIN, EIO, EINTR}) {
        files().readError = error;
        eventLoop().readable(pipeFd);
        EXPECT_EQ(journal().take(), Lines({called(EV_READ), "read fd=1000 size=127",
                                           receivedLength(-1), "event_del fd=1000", "close 1000"}) +
                                        opened);
    }
}

TEST_F(Pipe, StaysClosedWhenItCannotBeOpenedAnew)
{
    files().openErrors[pipePath] = ENOENT;
    EXPECT_EQ(wake(),
              (Lines{receivedLength(0), logged("openDisplayModeFifo",
                                               "Failed to open socket \"" + pipePath + "\"\n")}));
    EXPECT_FALSE(eventLoop().isPending(pipeFd));
    EXPECT_EQ(files().openCount, 0U);
    files().openErrors.clear();
    journal().take();
    eventLoop().run(60s);
    EXPECT_EQ(journal().take({"open", "log"}), Lines{}); // no retry
}

TEST_F(Pipe, ClosesNothingOnceItIsClosed)
{
    files().openErrors[pipePath] = ENOENT;
    wake();
    files().openErrors.clear();
    // Registering once more is the only way to open it again.
    files().content.clear();
    display_register();
    EXPECT_EQ(journal().take({"open", "close"}), Lines{"open " + pipePath + " 0x800"});
}

TEST_F(Pipe, IgnoresAFailedClose)
{
    files().closeFails = true;
    EXPECT_EQ(wake(), Lines{receivedLength(0)});
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Pipe, LogsTheEventFlagsAsASignedShort)
{
    const auto *const watch = eventLoop().find(pipeFd);
    files().chunks = {"x", "x"};
    watch->callback(watch->fd, -1, watch->argument);
    EXPECT_EQ(journal().take({"log"})[0], called(-1));
    watch->callback(watch->fd, SHRT_MIN, watch->argument);
    EXPECT_EQ(journal().take({"log"})[0], called(SHRT_MIN));
}

} // namespace
