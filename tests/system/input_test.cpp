// The reset button, by the board's button file.

#include "board_test.h"

#include <filesystem>

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
        const std::string zombie = ") Z " + std::to_string(board.daemon().value()) + " ";
        size_t result = 0;
        const auto look = [&](const std::string &stats) {
            for (size_t at = 0; (at = stats.find(zombie, at)) != std::string::npos; at++)
                result++;
        };
        if (board.isMachine()) {
            look(board.exec({"sh", "-c", "cat /proc/[0-9]*/stat"}).output);
        } else {
            for (const auto &entry : std::filesystem::directory_iterator("/proc"))
                look(kelo::readFile(entry.path() / "stat"));
        }
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
    SKIP_ON_MACHINE("a driver's file cannot be removed");
    press(2);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    std::filesystem::remove(board.path("/proc/tc3162/reset_button"));
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
    ASSERT_TRUE(sees(
        EventKind::Snapshot, [](const std::string &) { return true; }, "a snapshot"));
    EXPECT_EQ(0U, count(EventKind::Mode));
    board.setButton(0);
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
}

} // namespace
