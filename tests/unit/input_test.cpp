/// The reset button: its state table row by row, and what a press does up to the child process.

#include "input.h"

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fakes/process.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

using namespace std::chrono_literals;
using fakes::board;
using fakes::eventLoop;
using fakes::journal;
using fakes::Lines;
using fakes::operator+;
using fakes::process;

const std::string sampled = "platform_getResetButton";
const Lines nothing = {sampled};
const Lines pressed = {sampled, "display_setMode 2"};
const Lines rebooted = {"log input.cpp doReboot: rebooting...\n", "event_del fd=-1",
                        "display_setMode 2", "fork"};
const Lines restored = {"log input.cpp doDefault: resetting to defaults...\n", "event_del fd=-1",
                        "display_setMode 3", "fork"};

class Button : public testing::Test {
protected:
    Button()
    {
        event_init();
        input_register();
        journal().take();
    }

    /// What happens in the second that ends with this sample.
    static Lines sample(int value)
    {
        board().resetButton = value;
        eventLoop().run(1s);
        return journal().take();
    }

    static void hold() { ASSERT_EQ(sample(1), pressed); }

    static void expectFinished()
    {
        EXPECT_EQ(eventLoop().pendingCount(), 0U);
        for (const int value : {0, 1, 5, 0})
            EXPECT_EQ(sample(value), Lines{});
    }
};

TEST(ButtonTimer, ReturnsTheResultOfEventAdd)
{
    event_init();
    eventLoop().addResult = -1;
    EXPECT_EQ(input_register(), -1);
    eventLoop().addResult = 0;
    EXPECT_EQ(input_register(), 0);
}

TEST_F(Button, IsFirstSampledAfterOneSecond)
{
    eventLoop().run(1s - 1us);
    EXPECT_EQ(journal().take(), Lines{});
    eventLoop().run(1us);
    EXPECT_EQ(journal().take(), nothing);
}

TEST_F(Button, IdleStaysIdleWhileUp)
{
    for (int second = 0; second < 100; second++)
        EXPECT_EQ(sample(0), nothing);
}

TEST_F(Button, IdleBecomesHeldWhenPressed)
{
    EXPECT_EQ(sample(4), pressed);
    EXPECT_EQ(sample(4), nothing);
}

TEST_F(Button, IdleBecomesHeldOnANegativeSample)
{
    EXPECT_EQ(sample(-1), pressed);
    EXPECT_EQ(sample(INT_MIN), nothing);
}

TEST_F(Button, IdleRestoresAtOnceOnALongHold)
{
    EXPECT_EQ(sample(5), pressed + restored);
    expectFinished();
}

TEST_F(Button, HeldStaysHeldBelowTheLimit)
{
    hold();
    for (const int value : {1, 2, 3, 4, 1, -7, 4})
        EXPECT_EQ(sample(value), nothing);
}

TEST_F(Button, HeldRestoresAtTheLimit)
{
    hold();
    EXPECT_EQ(sample(2) + sample(3) + sample(4), nothing + nothing + nothing);
    EXPECT_EQ(sample(5), nothing + restored);
    expectFinished();
}

TEST_F(Button, HeldRestoresAboveTheLimit)
{
    hold();
    EXPECT_EQ(sample(INT_MAX), nothing + restored);
    expectFinished();
}

TEST_F(Button, HeldRebootsWhenLetGo)
{
    hold();
    EXPECT_EQ(sample(0), nothing + rebooted);
    expectFinished();
}

TEST_F(Button, LetGoAfterANegativeSampleReboots)
{
    EXPECT_EQ(sample(-5), pressed);
    EXPECT_EQ(sample(0), nothing + rebooted);
    expectFinished();
}

TEST_F(Button, PressBetweenTwoSamplesIsNotSeen)
{
    eventLoop().run(200ms);
    board().resetButton = 1;
    eventLoop().run(600ms);
    board().resetButton = 0;
    eventLoop().run(200ms);
    EXPECT_EQ(journal().take(), nothing);
}

TEST_F(Button, FailedForkOfARebootIsNotMadeUpFor)
{
    hold();
    process().forkResult = -1;
    EXPECT_EQ(sample(0), nothing + rebooted);
    expectFinished();
}

TEST_F(Button, FailedForkOfARestoreIsNotMadeUpFor)
{
    process().forkResult = -1;
    EXPECT_EQ(sample(9), pressed + restored);
    expectFinished();
}

TEST_F(Button, IgnoresTheArgumentsOfItsCallback)
{
    board().resetButton = 3;
    eventLoop().find(-1)->callback(5, 0x7f, nullptr);
    EXPECT_EQ(journal().take(), pressed);
}

} // namespace
