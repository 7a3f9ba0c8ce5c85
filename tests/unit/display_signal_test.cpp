/// The signal mode: when it reads the power and asks for the link, and what it shows.

#include "display_test.h"

#include "fakes/vendor.h"

#include <climits>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

namespace {

using namespace panel;
using fakes::board;
using fakes::vendor;

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

} // namespace
