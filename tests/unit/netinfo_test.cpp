/// The port counter snapshot: when it is written, what is in it, and what a failure leaves.

#include "netinfo.h"

#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

namespace {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::files;
using fakes::journal;
using fakes::Lines;
using fakes::vendor;
using Counter = unsigned long long;

const std::string snapshot = "/var/run/kelo-monitord.netinfo";
const std::string temporary = snapshot + ".tmp";
constexpr const char *portNames[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
constexpr Counter maximum = ~0ULL;

std::string lineOf(const std::string &name, Counter in, Counter out, Counter counterIn,
                   Counter counterOut)
{
    return "port=" + name + ",in=" + std::to_string(in) + ",out=" + std::to_string(out) +
           ",counterIn=" + std::to_string(counterIn) + ",counterOut=" + std::to_string(counterOut) +
           "\n";
}

class Snapshot : public testing::Test {
protected:
    Snapshot()
    {
        event_init();
        netinfo_register();
        journal().take();
    }

    static void everyPortHas(Counter in, Counter out)
    {
        for (size_t port = 1; port <= 7; port++)
            vendor().ports[port] = {in, out};
    }

    static std::string nextSnapshot()
    {
        eventLoop().run(1s);
        return files().content[snapshot];
    }

    /// The differences that a port shows when its counters go through these values: in counts
    /// them, out keeps still.
    static Counter deltaAfter(Counter previous, Counter current)
    {
        vendor().ports = {};
        vendor().ports[5] = {previous, 0};
        nextSnapshot();
        vendor().ports[5] = {current, 0};
        const std::string line = nextSnapshot();
        const std::string start = "port=wan,in=";
        EXPECT_EQ(line.rfind(start, 0), 0U);
        const Counter delta = std::stoull(line.substr(start.size()));
        EXPECT_EQ(line, lineOf("wan", delta, 0, current, 0));
        return delta;
    }
};

TEST(SnapshotTimer, ReturnsTheResultOfEventAdd)
{
    event_init();
    eventLoop().addResult = -1;
    EXPECT_EQ(netinfo_register(), -1);
    eventLoop().addResult = 0;
    EXPECT_EQ(netinfo_register(), 0);
}

TEST_F(Snapshot, IsFirstWrittenAfterOneSecond)
{
    eventLoop().run(1s - 1us);
    EXPECT_EQ(journal().take(), Lines{});
    eventLoop().run(1us);
    EXPECT_EQ(files().content.count(snapshot), 1U);
}

TEST_F(Snapshot, IsWrittenEverySecond)
{
    eventLoop().run(10s);
    EXPECT_EQ(journal().take({"rename"}).size(), 10U);
    EXPECT_TRUE(eventLoop().isPending(-1));
}

TEST_F(Snapshot, HasALineForEachOfTheSevenPortsInOrder)
{
    std::string expected;
    for (size_t port = 1; port <= 7; port++) {
        const Counter in = 100 * port;
        const Counter out = 7 * port;
        vendor().ports[port] = {in, out};
        expected += lineOf(portNames[port - 1], in, out, in, out);
    }
    EXPECT_EQ(nextSnapshot(), expected);
}

TEST_F(Snapshot, ShowsTheDifferenceToThePreviousReading)
{
    vendor().ports[1] = {750, 608};
    nextSnapshot();
    vendor().ports[1] = {900, 640};
    EXPECT_EQ(nextSnapshot(), "port=lan1,in=150,out=32,counterIn=900,counterOut=640\n");
    EXPECT_EQ(nextSnapshot(), "port=lan1,in=0,out=0,counterIn=900,counterOut=640\n");
}

TEST_F(Snapshot, KeepsThePortsApart)
{
    for (size_t port = 1; port <= 7; port++)
        vendor().ports[port] = {1000 * port, 100 * port};
    nextSnapshot();
    std::string expected;
    for (size_t port = 1; port <= 7; port++) {
        vendor().ports[port] = {1000 * port + port, 100 * port + 2 * port};
        expected += lineOf(portNames[port - 1], port, 2 * port, 1001 * port, 102 * port);
    }
    EXPECT_EQ(nextSnapshot(), expected);
}

TEST_F(Snapshot, IsWrittenUnderATemporaryNameAndMovedOverTheFinalOne)
{
    vendor().ports[1] = {1, 2};
    nextSnapshot();
    EXPECT_EQ(journal().take(),
              (Lines{"fopen " + temporary + " w", "syscfg_getPortBytes 1", "syscfg_getPortBytes 2",
                     "syscfg_getPortBytes 3", "syscfg_getPortBytes 4", "syscfg_getPortBytes 5",
                     "syscfg_getPortBytes 6", "syscfg_getPortBytes 7",
                     "write " + temporary + ": " + lineOf("lan1", 1, 2, 1, 2), "close " + temporary,
                     "rename " + temporary + " " + snapshot}));
    EXPECT_EQ(files().content.count(temporary), 0U);
    EXPECT_EQ(files().openCount, 0U);
}

TEST_F(Snapshot, ReachesTheFileWholeAndAtOnceWhenItIsClosed)
{
    everyPortHas(maximum, maximum);
    nextSnapshot();
    journal().take();
    everyPortHas(maximum - 1, maximum - 1);
    std::string expected;
    for (const char *const name : portNames)
        expected += lineOf(name, maximum, maximum, maximum - 1, maximum - 1);
    EXPECT_EQ(nextSnapshot(), expected); // seven lines of the greatest length
    EXPECT_EQ(journal().take({"write", "close"}),
              (Lines{"write " + temporary + ": " + expected, "close " + temporary}));
}

TEST_F(Snapshot, LeavesOutAPortThatCannotBeRead)
{
    everyPortHas(10, 20);
    nextSnapshot();
    everyPortHas(15, 26);
    vendor().ports[3].reset();
    std::string expected;
    for (const char *const name : {"lan1", "lan2", "lan4", "wan", "wifi2", "wifi5"})
        expected += lineOf(name, 5, 6, 15, 26);
    EXPECT_EQ(nextSnapshot(), expected);
}

TEST_F(Snapshot, TakesEveryNonzeroResultAsReading)
{
    vendor().ports[1] = {1, 2};
    for (const int result : {1, 2, 256, INT_MIN}) {
        vendor().portResult = result;
        EXPECT_NE(nextSnapshot(), "") << result;
    }
}

TEST_F(Snapshot, ShowsTheDifferenceSinceTheLastSuccessfulReading)
{
    vendor().ports[7] = {100, 200};
    nextSnapshot();
    vendor().ports[7].reset();
    EXPECT_EQ(nextSnapshot(), "");
    vendor().ports[7] = {130, 260};
    EXPECT_EQ(nextSnapshot(), lineOf("wifi5", 30, 60, 130, 260));
}

TEST_F(Snapshot, IsEmptyAndStillReplacedWhenNoPortCanBeRead)
{
    vendor().ports[1] = {1, 1};
    nextSnapshot();
    vendor().ports = {};
    EXPECT_EQ(nextSnapshot(), "");
    EXPECT_EQ(files().content.count(snapshot), 1U);
    EXPECT_EQ(files().content.count(temporary), 0U);
}

TEST_F(Snapshot, IsLoggedAndLeftAloneWhileTheTemporaryFileCannotBeOpened)
{
    everyPortHas(100, 200);
    const std::string before = nextSnapshot();
    files().openErrors[temporary] = EACCES;
    everyPortHas(150, 250);
    journal().take();
    for (int second = 0; second < 3; second++) {
        EXPECT_EQ(nextSnapshot(), before);
        EXPECT_EQ(journal().take(), (Lines{"fopen " + temporary + " w",
                                           "log netinfo.cpp dumpNetwork: Failed to open "
                                           "file /var/run/kelo-monitord.netinfo.tmp\n"}));
    }
    files().openErrors.clear();
    everyPortHas(175, 275);
    std::string expected; // covers the gap
    for (const char *const name : portNames)
        expected += lineOf(name, 75, 75, 175, 275);
    EXPECT_EQ(nextSnapshot(), expected);
}

TEST_F(Snapshot, StaysUnchangedWhenTheRenameFails)
{
    vendor().ports[1] = {1, 1};
    const std::string before = nextSnapshot();
    files().fileErrors[temporary] = EACCES;
    vendor().ports[1] = {3, 4};
    EXPECT_EQ(nextSnapshot(), before);
    EXPECT_EQ(files().content[temporary], lineOf("lan1", 2, 3, 3, 4));
    vendor().ports[1] = {4, 6}; // the leftover is emptied first
    nextSnapshot();
    EXPECT_EQ(files().content[temporary], lineOf("lan1", 1, 2, 4, 6));
    EXPECT_EQ(journal().take({"log", "unlink"}), Lines{});
}

TEST_F(Snapshot, IgnoresFailedWriteAndClose)
{
    files().writesFail = true;
    files().closeFails = true;
    everyPortHas(1, 1);
    EXPECT_EQ(nextSnapshot(), "");
    EXPECT_EQ(journal().take({"rename", "log"}), Lines{"rename " + temporary + " " + snapshot});
    EXPECT_EQ(files().openCount, 0U);
}

TEST_F(Snapshot, FirstDifferenceIsTheLowWordOfTheCounter)
{
    const Counter start = (1ULL << 32) + 1000;
    vendor().ports[1] = {start, 5 * (1ULL << 32) + 3};
    EXPECT_EQ(nextSnapshot(), lineOf("lan1", 1000, 3, start, 5 * (1ULL << 32) + 3));
}

TEST_F(Snapshot, FirstDifferenceFrom2To31IsCloseTo2To64)
{
    const Counter start = (1ULL << 31) + 1000;
    vendor().ports[1] = {start, 0};
    EXPECT_EQ(nextSnapshot(), lineOf("lan1", 0 - (1ULL << 31) + 1000, 0, start, 0));
}

TEST_F(Snapshot, DifferenceCrossesMultiplesOf2To32)
{
    EXPECT_EQ(deltaAfter((1ULL << 32) - 256, (1ULL << 32) + 256), 512U);
    EXPECT_EQ(deltaAfter(7 * (1ULL << 32) - 1, 7 * (1ULL << 32)), 1U);
    EXPECT_EQ(deltaAfter(maximum, 0), 1U);
}

TEST_F(Snapshot, DifferenceOfACounterGoingBackwardsIsCloseTo2To64)
{
    EXPECT_EQ(deltaAfter(1000, 400), 0 - 600ULL);
    EXPECT_EQ(deltaAfter(1, 0), maximum);
}

TEST_F(Snapshot, DifferenceFrom2To31To2To32IsCloseTo2To64)
{
    EXPECT_EQ(deltaAfter(10, 10 + (1ULL << 31) - 1), (1ULL << 31) - 1);
    EXPECT_EQ(deltaAfter(10, 10 + (1ULL << 31)), 0 - (1ULL << 31));
    EXPECT_EQ(deltaAfter(10, 10 + (1ULL << 32) - 1), maximum);
}

TEST_F(Snapshot, DifferenceFrom2To32IsReducedModulo2To32)
{
    EXPECT_EQ(deltaAfter(10, 10 + (1ULL << 32)), 0U);
    EXPECT_EQ(deltaAfter(10, 10 + 3 * (1ULL << 32) + 77), 77U);
}

TEST_F(Snapshot, OutDifferenceIsFormedLikeTheInDifference)
{
    vendor().ports[2] = {0, 1000};
    nextSnapshot();
    vendor().ports[2] = {0, 400};
    EXPECT_EQ(nextSnapshot(), lineOf("lan2", 0, 0 - 600ULL, 0, 400));
}

} // namespace
