// The port counter snapshot, by the file that other programs read.

#include "board_test.h"

#include "device.h"

#include <sstream>

namespace {

class Snapshot : public BoardTest {
protected:
    testing::AssertionResult snapshotWith(const std::string &line)
    {
        return sees(
            EventKind::Snapshot,
            [&](const std::string &text) {
                return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
            },
            "a snapshot with " + line);
    }

    std::vector<std::string> portsOf(const std::string &text)
    {
        std::vector<std::string> result;
        std::istringstream lines(text);
        std::string line;
        while (std::getline(lines, line))
            result.push_back(line.substr(5, line.find(',') - 5));
        return result;
    }
};

TEST_F(Snapshot, HasALineForEveryPortInOrder)
{
    start();
    ASSERT_TRUE(sees(
        EventKind::Snapshot,
        [&](const std::string &text) {
            return portsOf(text) == std::vector<std::string>{"lan1", "lan2",  "lan3", "lan4",
                                                             "wan",  "wifi2", "wifi5"};
        },
        "seven ports"));
}

TEST_F(Snapshot, FirstComesASecondAfterTheStart)
{
    start();
    ASSERT_TRUE(seesSnapshot());
    kelo::Clock::time_point began;
    for (const Event &event : board.events(from)) {
        if (event.kind == EventKind::Mode)
            began = event.time;
        if (event.kind == EventKind::Snapshot) {
            EXPECT_GT(event.time - began, 500ms); // not at once; the mode may be seen late
            break;
        }
    }
}

TEST_F(Snapshot, ShowsTheDifferenceToTheReadingBefore)
{
    board.setPort(1, 750, 608);
    start();
    ASSERT_TRUE(snapshotWith("port=lan1,in=750,out=608,counterIn=750,counterOut=608"));
    board.setPort(1, 900, 640);
    EXPECT_TRUE(snapshotWith("port=lan1,in=150,out=32,counterIn=900,counterOut=640"));
    EXPECT_TRUE(snapshotWith("port=lan1,in=0,out=0,counterIn=900,counterOut=640"));
}

TEST_F(Snapshot, DifferencesAre32BitAndSigned)
{
    board.setPort(5, 4294967296ULL + 1000, 2147483648ULL + 1000);
    start();
    ASSERT_TRUE(snapshotWith("port=wan,in=1000,out=18446744071562068968,counterIn=4294968296,"
                             "counterOut=2147484648"));
    board.setPort(5, 4294967296ULL + 400, 4294967296ULL + 256);
    EXPECT_TRUE(snapshotWith("port=wan,in=18446744073709551016,out=2147482904,"
                             "counterIn=4294967696,counterOut=4294967552"));
}

TEST_F(Snapshot, UnreadablePortIsLeftOutAndCatchesUpLater)
{
    board.setPort(3, 100, 100);
    start();
    ASSERT_TRUE(snapshotWith("port=lan3,in=100,out=100,counterIn=100,counterOut=100"));
    board.removePort(3);
    ASSERT_TRUE(sees(
        EventKind::Snapshot,
        [&](const std::string &text) {
            return portsOf(text) ==
                   std::vector<std::string>{"lan1", "lan2", "lan4", "wan", "wifi2", "wifi5"};
        },
        "a snapshot without lan3"));
    board.setPort(3, 175, 130);
    EXPECT_TRUE(snapshotWith("port=lan3,in=75,out=30,counterIn=175,counterOut=130"));
}

TEST_F(Snapshot, IsEmptyWhenNoPortCanBeRead)
{
    start();
    ASSERT_TRUE(seesSnapshot());
    for (int port = 1; port <= 7; port++)
        board.removePort(port);
    EXPECT_TRUE(sees(EventKind::Snapshot, ""));
}

TEST_F(Snapshot, UnwritableFolderIsReportedEverySecondAndCountersWait)
{
    board.setPort(1, 10, 20);
    start();
    ASSERT_TRUE(snapshotWith("port=lan1,in=10,out=20,counterIn=10,counterOut=20"));
    const std::string temporary = std::string(kelo::device::snapshotPath) + ".tmp";
    board.makeFolder(temporary);
    board.setPort(1, 60, 90);
    fromNow();
    ASSERT_TRUE(sees(
        [](Events events) {
            return countIn(events, EventKind::Log,
                           "kelo-monitord: Failed to open file "
                           "/var/run/kelo-monitord.netinfo.tmp\n [") >= 2;
        },
        "two complaints"));
    EXPECT_EQ(0U, count(EventKind::Call, "syscfg_getPortBytes"));
    board.remove(temporary);
    EXPECT_TRUE(snapshotWith("port=lan1,in=50,out=70,counterIn=60,counterOut=90"));
}

TEST_F(Snapshot, ReaderNeverFindsAHalfWrittenOne)
{
    start();
    ASSERT_TRUE(seesSnapshot());
    const size_t snapshots = count(EventKind::Snapshot);
    while (count(EventKind::Snapshot) < snapshots + 2) {
        const std::string text = board.read(kelo::device::snapshotPath).value_or("");
        ASSERT_EQ(7U, portsOf(text).size()) << text;
        ASSERT_EQ('\n', text.back());
    }
}

} // namespace
