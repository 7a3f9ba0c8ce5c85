// The reset button, by the board's button file.

#include "board_test.h"

#include "device.h"

namespace {

class ResetButton : public BoardTest {
protected:
    void SetUp() override { start(); }

    void press(int value)
    {
        fromNow();
        board.setButton(value);
    }

    /// The daemon's children that ended and were not waited for.
    size_t zombies()
    {
        const kelo::Words daemon = board.ask({"daemon"});
        const std::string processes = daemon.at(1).substr(0, daemon.at(1).rfind('/') + 1);
        size_t result = 0;
        for (const std::string &name : board.list(processes))
            result += board.read(processes + name + "/stat")
                          .value_or("")
                          .find(") Z " + daemon.at(0) + " ") != std::string::npos;
        return result;
    }
};

TEST_F(ResetButton, ShortPressRebootsOnceAtTheRelease)
{
    press(1);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    EXPECT_EQ(0U, count(EventKind::Call, "syscfg_reboot"));
    board.setButton(0);
    ASSERT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
    EXPECT_TRUE(logs("kelo-monitord: rebooting...\n ["));
    // Sampling has ended: another press does nothing.
    board.setButton(9);
    EXPECT_TRUE(plays({"000111", "000000", "000111", "000000", "000111", "000000", "000111",
                       "000000", "000111", "000000", "000111", "000000"}));
    EXPECT_EQ(1U, count(EventKind::Call, "syscfg_reboot"));
    EXPECT_EQ(0U, count(EventKind::Call, "syscfg_restoreDefaultBg"));
    EXPECT_EQ(1U, zombies());
}

TEST_F(ResetButton, LongHoldRestoresWhileTheButtonIsDown)
{
    press(4);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    board.setButton(5);
    ASSERT_TRUE(sees(EventKind::Call, "syscfg_restoreDefaultBg"));
    EXPECT_TRUE(logs("kelo-monitord: resetting to defaults...\n ["));
    EXPECT_TRUE(sees(EventKind::Mode, "3"));
    EXPECT_TRUE(plays({"000100", "000110", "000111", "000000"}));
    EXPECT_EQ(0U, count(EventKind::Call, "syscfg_reboot"));
}

TEST_F(ResetButton, FirstSampleOfALongHoldPassesThroughTheRebootMode)
{
    press(7);
    ASSERT_TRUE(sees(EventKind::Call, "syscfg_restoreDefaultBg"));
    EXPECT_TRUE(logs("switch display mode 1 -> 2\n"));
    EXPECT_TRUE(logs("switch display mode 2 -> 3\n"));
}

TEST_F(ResetButton, NegativeSampleIsAPressButNoLongHold)
{
    press(-9);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    board.setButton(0);
    EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
}

TEST_F(ResetButton, UnreadableButtonDuringAHoldCountsAsRelease)
{
    NEEDS(FileFaults);
    press(2);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    board.remove(kelo::device::buttonPath);
    EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
}

TEST_F(ResetButton, ModeChosenDuringAHoldStaysUntilTheRelease)
{
    press(1);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    board.writeKeyword("ledtest");
    ASSERT_TRUE(sees(EventKind::Mode, "6"));
    board.setButton(3);
    fromNow();
    // The hold is sampled on, which the counters' polls tell, and the mode stays.
    ASSERT_TRUE(seesSnapshot());
    EXPECT_EQ(0U, count(EventKind::Mode));
    board.setButton(0);
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
}

} // namespace
