// LED patterns and the command pipe, by the LED writes that the board's GPIO file got.

#include "board_test.h"

#include "device.h"

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
    fromNow();
    ASSERT_TRUE(happens({{EventKind::Snapshot, ""}, {EventKind::Snapshot, ""}})); // two seconds
    EXPECT_EQ(0U, frames().size());
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
    board.ask({"run", "sh", "-c", std::string("echo errora12 > ") + kelo::device::displayPath});
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
    board.put(kelo::device::displayPath, "old");
    start();
    EXPECT_TRUE(isFifo("/var/run/kelo-monitord.display"));
    send("reboot");
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
}

TEST_F(Display, WithoutAPipeTheDisplayGoesOn)
{
    board.makeFolder(kelo::device::displayPath);
    start();
    EXPECT_TRUE(logs("Failed to create fifo \"/var/run/kelo-monitord.display\"\n"));
    EXPECT_TRUE(draws(4));
    EXPECT_EQ(0U, count(EventKind::Log, "Failed to open socket"));
}

TEST_F(Display, PipeThatCannotBeOpenedAgainStaysClosed)
{
    start();
    board.remove(kelo::device::displayPath);
    fromNow();
    // The daemon still holds the old pipe: reach it through its descriptor table.
    const std::string fds = board.daemonFolder() + "/fd/";
    std::string pipe;
    for (const std::string &fd : board.list(fds)) {
        if (board.linkOf(fds + fd).find("display") != std::string::npos)
            pipe = fds + fd;
    }
    ASSERT_NE("", pipe);
    board.ask({"run", "sh", "-c", "echo reboot > " + pipe});
    EXPECT_TRUE(sees(EventKind::Mode, "2"));
    EXPECT_TRUE(logs("Failed to open socket \"/var/run/kelo-monitord.display\"\n"));
    EXPECT_TRUE(plays({"000111", "000000", "000111", "000000"}));
}

TEST_F(Display, MissingLedFileIsNoReasonToStop)
{
    NEEDS(FileFaults);
    // The daemon makes a file of that name where none is, as fopen(3) would.
    board.remove(kelo::device::ledPath);
    fromNow();
    board.startDaemon();
    EXPECT_TRUE(seesSnapshot());
    EXPECT_EQ("active 4 1\n", board.read(kelo::device::ledPath));
}

} // namespace
