// LED patterns and the command pipe, by the LED writes that the board's GPIO file got.

#include "board_test.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace {

class Display : public BoardTest {};

TEST_F(Display, StartsDarkAndThenShowsTheSignal)
{
    start();
    EXPECT_EQ("000000", frames()[0]);
    EXPECT_EQ("110000", frames()[1]);
}

struct Power {
    const char *name;
    const char *dbm;
    const char *leds;
};

class SignalBar : public Display, public testing::WithParamInterface<Power> {};

TEST_P(SignalBar, ShowsTheReceivedPower)
{
    board.setLaser(GetParam().dbm);
    start();
    EXPECT_EQ(GetParam().leds, frames()[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Each, SignalBar,
    testing::Values(Power{"Level4", "-8.0", "110001"}, Power{"Level3", "-8.01", "111000"},
                    Power{"Level2", "-11.01", "110000"}, Power{"Level1", "-25.01", "100000"},
                    Power{"Level0", "-28.01", "000100"}, Power{"JustAboveNone", "-39.9", "000100"},
                    Power{"NoneAtMinus40", "-40", "000111"}, Power{"NoneAtZero", "0", "000111"},
                    Power{"NoneWithoutReading", "", "000111"}, Power{"Positive", "3", "110001"},
                    Power{"NotANumber", "nan", "000100"}),
    [](const auto &test) { return std::string(test.param.name); });

TEST_F(Display, SignalFollowsThePowerWithinSixTicks)
{
    start();
    board.setLaser("-9");
    ASSERT_TRUE(plays({"110000", "111000"}));
    EXPECT_LE(frames().size(), 2U + 6U);
}

TEST_F(Display, LinkDownAlternatesWithTheBar)
{
    board.setGpon(4);
    start();
    EXPECT_TRUE(plays({"010101", "110000", "010101", "110000"}));
    board.setGpon(5);
    EXPECT_TRUE(plays({"110000", "110000", "110000"}));
}

TEST_F(Display, LinkDownWithoutSignalDoesNotBlink)
{
    board.setGpon(0);
    board.setLaser("");
    start();
    ASSERT_TRUE(draws(6));
    const std::vector<std::string> drawn = frames();
    EXPECT_EQ(5, std::count(drawn.begin() + 1, drawn.begin() + 6, "000111"));
}

struct Shown {
    const char *keyword;
    int mode;
    std::vector<std::string> frames;
    kelo::Clock::duration interval; // 0: drawn once
};

class Pattern : public Display, public testing::WithParamInterface<Shown> {};

TEST_P(Pattern, IsPlayedAtItsPace)
{
    start();
    send(GetParam().keyword);
    ASSERT_TRUE(sees(EventKind::Mode, std::to_string(GetParam().mode)));
    std::vector<std::string> twice = GetParam().frames;
    if (GetParam().interval == 0s) {
        ASSERT_TRUE(plays(twice));
        return;
    }
    twice.insert(twice.end(), GetParam().frames.begin(), GetParam().frames.end());
    ASSERT_TRUE(plays(twice));
    const auto median = interval(GetParam().interval > 1s ? 3 : 8);
    EXPECT_GT(median, GetParam().interval * 8 / 10);
    EXPECT_LT(median, GetParam().interval * 15 / 10);
}

INSTANTIATE_TEST_SUITE_P(
    Each, Pattern,
    testing::Values(Shown{"none", 0, {"000000"}, 0s},
                    Shown{"reboot", 2, {"000111", "000000"}, 250ms},
                    Shown{"restore", 3, {"000100", "000110", "000111", "000000"}, 100ms},
                    Shown{"errora12", 4, {"010000"}, 0s},
                    Shown{"locateme", 5, {"111000", "000000", "000111", "000000"}, 250ms},
                    Shown{"ledtest", 6, {"111111", "000000"}, 3s},
                    Shown{"facttest", 7, {"001000", "010000", "100000", "010000"}, 500ms},
                    Shown{"facttesterr", 8, {"001110", "010101", "100011", "010101"}, 500ms}),
    [](const auto &test) { return std::string(test.param.keyword); });

TEST_F(Display, StaticModesDrawOnceAndNoMore)
{
    start();
    send("errora12");
    ASSERT_TRUE(plays({"010000"}));
    const size_t drawn = frames().size();
    // Two more seconds, by the snapshots.
    for (int second = 0; second < 2; second++) {
        const size_t snapshots = count(EventKind::Snapshot);
        ASSERT_TRUE(board.waitUntil([&](const auto &) { return false; }, 1100ms) == false);
        EXPECT_GT(count(EventKind::Snapshot), snapshots);
    }
    EXPECT_EQ(drawn, frames().size());
}

TEST_F(Display, LocateMeReturnsToSignalAfterHalfAMinute)
{
    start();
    send("locateme");
    ASSERT_TRUE(draws(60)); // the run takes longer than one deadline
    ASSERT_TRUE(plays({"110000"}));
    const std::vector<std::string> drawn = frames();
    EXPECT_EQ(120, std::find(drawn.begin(), drawn.end(), "110000") - drawn.begin());
    EXPECT_TRUE(logs("switch display mode 5 -> 1\n"));
}

TEST_F(Display, KeywordIsAPrefixOfTheChunkAndOnlyTheFirstCounts)
{
    start();
    send("reboot signal\n");
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    send("signalling");
    EXPECT_TRUE(sees(EventKind::Mode, "1"));
    send("facttesterX");
    EXPECT_TRUE(sees(EventKind::Mode, "7"));
    send("facttesterrX");
    EXPECT_TRUE(sees(EventKind::Mode, "8"));
}

TEST_F(Display, UnknownAndCurrentKeywordsAreOnlyReported)
{
    start();
    for (const char *keyword : {"Reboot", " reboot", "non", "signal\n"}) {
        send(keyword);
        EXPECT_EQ(1U, count(EventKind::Log, "received \"" + std::string(keyword) + "\"\n"));
        EXPECT_EQ(0U, count(EventKind::Mode));
    }
}

TEST_F(Display, PipeServesOneWriterAfterTheOther)
{
    start();
    send("reboot\n");
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    send("restore\n");
    EXPECT_TRUE(sees(EventKind::Mode, "3"));
}

TEST_F(Display, ShellCanWriteIntoThePipe)
{
    start();
    std::vector<std::string> shell{"/bin/sh", "-c",
                                   "echo errora12 > /var/run/kelo-monitord.display"};
    if (!board.isMachine())
        shell.insert(shell.begin(), {"chroot", board.place().root});
    ASSERT_EQ(0, board.exec(shell).status);
    EXPECT_TRUE(sees(EventKind::Mode, "4"));
}

TEST_F(Display, LongChunkIsCutAt127BytesAndItsRestIsACommandOfItsOwn)
{
    start();
    send(std::string(127, 'x') + "ledtest");
    EXPECT_TRUE(sees(EventKind::Mode, "6"));
    EXPECT_TRUE(logs("received \"ledtest\"\n"));
}

TEST_F(Display, OldFileAtThePipesPathIsReplaced)
{
    std::ofstream(board.path("/var/run/kelo-monitord.display")) << "old";
    start();
    EXPECT_TRUE(isFifo("/var/run/kelo-monitord.display"));
    send("reboot");
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
}

TEST_F(Display, WithoutAPipeTheDisplayGoesOn)
{
    std::filesystem::create_directory(board.path("/var/run/kelo-monitord.display"));
    start();
    EXPECT_TRUE(logs("Failed to create fifo \"/var/run/kelo-monitord.display\"\n"));
    EXPECT_TRUE(draws(4));
    EXPECT_EQ(0U, count(EventKind::Log, "Failed to open socket"));
}

TEST_F(Display, PipeThatCannotBeOpenedAgainStaysClosed)
{
    SKIP_ON_MACHINE("the pipe is reached through the daemon's descriptors");
    start();
    std::filesystem::remove(board.path("/var/run/kelo-monitord.display"));
    fromNow();
    // The daemon still holds the old pipe: reach it through its descriptor table.
    const std::string fds = "/proc/" + std::to_string(board.daemon().value()) + "/fd/";
    std::string pipe;
    for (const auto &entry : std::filesystem::directory_iterator(fds)) {
        if (std::filesystem::is_fifo(entry) &&
            std::filesystem::read_symlink(entry).string().find("display") != std::string::npos)
            pipe = entry.path();
    }
    ASSERT_NE("", pipe);
    std::ofstream(pipe) << "reboot";
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    EXPECT_TRUE(logs("Failed to open socket \"/var/run/kelo-monitord.display\"\n"));
    EXPECT_TRUE(plays({"000111", "000000", "000111", "000000"}));
}

TEST_F(Display, MissingLedFileIsNoReasonToStop)
{
    SKIP_ON_MACHINE("a driver's file cannot be removed");
    // The daemon makes a file of that name where none is, as fopen(3) would.
    std::filesystem::remove(board.path("/proc/tc3162/gpio_output"));
    fromNow();
    board.startDaemon();
    EXPECT_TRUE(sees(
        EventKind::Snapshot, [](const std::string &) { return true; }, "a snapshot"));
    EXPECT_EQ("active 4 1\n", kelo::readFile(board.path("/proc/tc3162/gpio_output")));
}

} // namespace
