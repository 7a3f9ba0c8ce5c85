// Start, detaching and end of the daemon.

#include "board_test.h"

#include "device.h"

#include <csignal>
#include <cstring>
#include <sstream>

namespace {

class Startup : public BoardTest {
protected:
    std::string descriptor(int fd)
    {
        return board.linkOf(board.daemonFolder() + "/fd/" + std::to_string(fd));
    }

    /// The daemon's session, as the board numbers it.
    std::string session()
    {
        std::istringstream fields(board.read(board.daemonFolder() + "/stat").value_or(""));
        std::string field;
        for (int i = 0; i < 6; i++)
            fields >> field;
        return field;
    }

    /// A field of /proc/PID/status.
    std::string statusField(const std::string &name)
    {
        std::istringstream status(board.read(board.daemonFolder() + "/status").value_or(""));
        std::string line;
        while (std::getline(status, line)) {
            if (line.starts_with(name + ":"))
                return line.substr(line.find_first_not_of("\t ", name.size() + 1));
        }
        return "";
    }
};

class EndingSignal : public Startup, public testing::WithParamInterface<int> {};

TEST_P(EndingSignal, EndsTheDaemonWithStatusZeroAndLeavesItsFiles)
{
    start();
    ASSERT_TRUE(seesSnapshot());
    ASSERT_TRUE(board.signalDaemon(GetParam()));
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    EXPECT_TRUE(isFifo("/var/run/kelo-monitord.display"));
    EXPECT_EQ("f 644", board.statusOf(kelo::device::snapshotPath));
    EXPECT_EQ("110000", frames().back());
}

INSTANTIATE_TEST_SUITE_P(Each, EndingSignal, testing::Values(SIGHUP, SIGINT, SIGQUIT, SIGTERM),
                         [](const auto &test) { return sigabbrev_np(test.param); });

TEST_F(Startup, OtherSignalsKeepTheirDefault)
{
    start();
    ASSERT_TRUE(board.signalDaemon(SIGUSR1));
    EXPECT_TRUE(sees(EventKind::Exit, "signal USR1"));
}

TEST_F(Startup, StaysInTheForegroundWithTheCallersUmaskFolderAndDescriptors)
{
    fromNow();
    board.startBy({"/bin/sh", "-c", "cd /tmp && umask 027 && exec /usr/sbin/kelo-monitord"});
    ASSERT_TRUE(draws(2));
    EXPECT_EQ("0027", statusField("Umask"));
    EXPECT_EQ("/tmp", board.linkOf(board.daemonFolder() + "/cwd"));
    EXPECT_EQ("/dev/null", descriptor(0));
    EXPECT_NE("", descriptor(1));
    EXPECT_EQ(descriptor(1), descriptor(2));
    ASSERT_TRUE(seesSnapshot());
    EXPECT_EQ("f 640", board.statusOf(kelo::device::snapshotPath));
    EXPECT_EQ("p 600", board.statusOf(kelo::device::displayPath));
    EXPECT_NE(board.ask({"daemon"}).at(0), session());
}

TEST_F(Startup, DetachesWithItsOwnSessionRootFolderClearedUmaskAndClosedDescriptors)
{
    start({"-d"});
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    EXPECT_EQ(board.ask({"daemon"}).at(0), session());
    EXPECT_EQ("0000", statusField("Umask"));
    EXPECT_EQ("/", board.linkOf(board.daemonFolder() + "/cwd"));
    ASSERT_TRUE(seesSnapshot());
    EXPECT_EQ("f 666", board.statusOf(kelo::device::snapshotPath));
    EXPECT_EQ("p 600", board.statusOf(kelo::device::displayPath));
    // What the daemon opened first took the three descriptors; nothing stands in for them.
    for (int fd = 0; fd <= 2; fd++) {
        EXPECT_NE("/dev/null", descriptor(fd)) << fd;
        EXPECT_NE("", descriptor(fd)) << fd;
    }
    EXPECT_EQ("anon_inode:[eventpoll]", descriptor(0));
    EXPECT_EQ(0U, count(EventKind::Log, "switch display mode"));
}

TEST_F(Startup, DetachedDaemonPlaysModesAndEndsOnASignal)
{
    start({"-d"});
    board.writeKeyword("reboot");
    EXPECT_TRUE(plays({"000111", "000000", "000111", "000000"}));
    fromNow();
    ASSERT_TRUE(board.signalDaemon(SIGTERM));
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    EXPECT_FALSE(board.daemon());
}

TEST_F(Startup, EveryDaemonOptionIsAnnouncedToTheLauncherAndOneDaemonStays)
{
    start({"-d", "-d"});
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    EXPECT_EQ(2U, count(EventKind::Log, "kelo-monitord: Launching as daemon...\n ["));
    EXPECT_TRUE(board.daemon());
}

TEST_F(Startup, UnknownOptionIsComplainedAboutAndIgnored)
{
    start({"-x", "word"});
    // C libraries differ in their words, and in how many pieces they write them.
    std::string complaint;
    for (const Event &event : board.events(from)) {
        if (event.text.starts_with("kelo-monitord: switch"))
            break;
        if (event.kind == EventKind::Log)
            complaint += event.text;
    }
    EXPECT_NE(std::string::npos, complaint.find('x', complaint.find(" option"))) << complaint;
    EXPECT_EQ(0U, count(EventKind::Log, "Launching"));
    EXPECT_TRUE(logs("switch display mode 0 -> 1\n"));
    EXPECT_EQ(0U, count(EventKind::Exit));
}

TEST_F(Startup, LogRecordNamesFileLineAndFunction)
{
    start();
    EXPECT_TRUE(sees(
        EventKind::Log,
        [](const std::string &record) {
            int line = 0;
            char end = 0;
            return sscanf(record.c_str(),
                          "kelo-monitord: switch display mode 0 -> 1\n"
                          " [display.cpp:%d display_setMode]%c",
                          &line, &end) == 2 &&
                   line > 0 && end == '\n';
        },
        "the whole record of the first switch"));
}

} // namespace
