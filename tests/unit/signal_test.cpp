/// The signal bar from the optical power down to the LED driver: display and platform together,
/// over every power that could make a difference.

#include "display.h"

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::journal;
using fakes::vendor;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

/// The documented bar of a power.
std::string barOf(float power)
{
    if (power == 0.0F || power <= -40.0F)
        return "000111";
    if (power >= -8.0F)
        return "110001";
    if (power >= -11.0F)
        return "111000";
    if (power >= -25.0F)
        return "110000";
    if (power >= -28.0F)
        return "100000";
    return "000100";
}

class SignalPattern : public testing::Test {
protected:
    SignalPattern()
    {
        event_init();
        display_setMode(Signal);
    }

    /// What the driver was last told of the six LEDs, in the panel's order.
    static std::string panel()
    {
        const fakes::Lines writes = journal().take({"write"});
        if (writes.size() < 6)
            return "not drawn";
        std::string flags;
        size_t i = writes.size() - 6;
        for (const char *const gpio : {"6", "7", "8", "2", "3", "4"}) {
            const std::string start =
                std::string("write /proc/tc3162/gpio_output: active ") + gpio + ' ';
            if (writes[i] != start + "0\n" && writes[i] != start + "1\n")
                return "disorder";
            flags += writes[i][start.size()] == '0' ? '1' : '0';
            i++;
        }
        return flags;
    }

    /// Six ticks, of which the first reads the power: ends on an odd one, which never blinks.
    static std::string showOnOddTick(float power)
    {
        vendor().laserPower = power;
        eventLoop().run(first_ ? 2500ms : 3000ms);
        first_ = false;
        return panel();
    }

    static std::string showOnEvenTick()
    {
        eventLoop().run(500ms);
        std::string flags = panel();
        eventLoop().run(2500ms);
        return flags;
    }

    static std::vector<float> powers()
    {
        std::vector<float> all = {notANumber,
                                  -notANumber,
                                  infinity,
                                  -infinity,
                                  0.0F,
                                  -0.0F,
                                  std::numeric_limits<float>::max(),
                                  std::numeric_limits<float>::lowest(),
                                  std::numeric_limits<float>::denorm_min(),
                                  -std::numeric_limits<float>::denorm_min()};
        for (const float threshold : {0.0F, -8.0F, -11.0F, -25.0F, -28.0F, -40.0F}) {
            all.push_back(threshold);
            all.push_back(std::nextafter(threshold, infinity));
            all.push_back(std::nextafter(threshold, -infinity));
        }
        for (int hundredths = -6000; hundredths <= 1000; hundredths += 7)
            all.push_back(static_cast<float>(hundredths) / 100.0F);
        return all;
    }

private:
    static inline bool first_ = true;
};

TEST_F(SignalPattern, ShowsEveryPowerAsDocumentedWhileTheLinkIsUp)
{
    for (const float power : powers()) {
        EXPECT_EQ(showOnOddTick(power), barOf(power)) << power;
        EXPECT_EQ(showOnEvenTick(), barOf(power)) << power;
    }
}

TEST_F(SignalPattern, AlternatesEveryPowerButNoSignalWithLinkDown)
{
    vendor().gponState = 4;
    for (const float power : powers()) {
        EXPECT_EQ(showOnOddTick(power), barOf(power)) << power;
        EXPECT_EQ(showOnEvenTick(), barOf(power) == "000111" ? "000111" : "010101") << power;
    }
}

TEST_F(SignalPattern, ShowsAFailedReadingAsNoSignal)
{
    vendor().laserResult = 0;
    for (const float power : powers())
        EXPECT_EQ(showOnOddTick(power), "000111") << power;
}

} // namespace
