// Start, detaching and end of the daemon.

#include "board_test.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Startup : public BoardTest {
protected:
    mode_t modeOf(const std::string &boardPath)
    {
        struct stat status = {};
        EXPECT_EQ(0, stat(board.path(boardPath).c_str(), &status)) << boardPath;
        return status.st_mode & 07777;
    }

    std::string proc(const std::string &file)
    {
        return "/proc/" + std::to_string(board.daemon().value()) + "/" + file;
    }

    std::string descriptor(int fd)
    {
        std::error_code none;
        return std::filesystem::read_symlink(proc("fd/" + std::to_string(fd)), none);
    }

    /// A field of /proc/PID/status.
    std::string statusField(const std::string &name)
    {
        std::istringstream status(board.daemonFile("status"));
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
    ASSERT_TRUE(sees(
        EventKind::Snapshot, [](const std::string &) { return true; }, "a snapshot"));
    ASSERT_TRUE(board.signalDaemon(GetParam()));
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    EXPECT_TRUE(isFifo("/var/run/kelo-monitord.display"));
    EXPECT_TRUE(std::filesystem::exists(board.path("/var/run/kelo-monitord.netinfo")));
    EXPECT_EQ("110000", frames().back());
}

INSTANTIATE_TEST_SUITE_P(Each, EndingSignal, testing::Values(SIGHUP, SIGINT, SIGQUIT, SIGTERM),
                         [](const auto &test) { return sigabbrev_np(test.param); });

TEST_F(Startup, OtherSignalsKeepTheirDefault)
{
    start();
    ASSERT_TRUE(board.signalDaemon(SIGUSR1));
    const int number = board.isMachine() ? 16 : SIGUSR1; // as MIPS numbers it
    EXPECT_TRUE(sees(
        EventKind::Exit,
        [=](const std::string &text) {
            return text.starts_with(std::string("signal ") + sigabbrev_np(number));
        },
        "its end"));
}

TEST_F(Startup, StaysInTheForegroundWithTheCallersUmaskFolderAndDescriptors)
{
    SKIP_ON_MACHINE("the daemon's process is looked into from outside");
    fromNow();
    board.startBy({"/bin/sh", "-c", "cd /tmp && umask 027 && exec /usr/sbin/kelo-monitord"});
    ASSERT_TRUE(draws(2));
    EXPECT_EQ("0027", statusField("Umask"));
    EXPECT_TRUE(std::filesystem::read_symlink(proc("cwd")).string().ends_with("/tmp"));
    EXPECT_EQ("/dev/null", descriptor(0));
    EXPECT_TRUE(descriptor(1).starts_with("pipe:"));
    EXPECT_TRUE(descriptor(2).starts_with("pipe:"));
    ASSERT_TRUE(sees(
        EventKind::Snapshot, [](const std::string &) { return true; }, "a snapshot"));
    EXPECT_EQ(0640U, modeOf("/var/run/kelo-monitord.netinfo"));
    EXPECT_EQ(0600U, modeOf("/var/run/kelo-monitord.display"));
    EXPECT_NE(board.daemon().value(), getsid(board.daemon().value()));
}

TEST_F(Startup, DetachesWithItsOwnSessionRootFolderClearedUmaskAndClosedDescriptors)
{
    SKIP_ON_MACHINE("the daemon's process is looked into from outside");
    start({"-d"});
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    const pid_t daemon = board.daemon().value();
    EXPECT_EQ(daemon, getsid(daemon));
    EXPECT_EQ("0000", statusField("Umask"));
    EXPECT_TRUE(std::filesystem::equivalent(proc("cwd"), board.path("/")));
    ASSERT_TRUE(sees(
        EventKind::Snapshot, [](const std::string &) { return true; }, "a snapshot"));
    EXPECT_EQ(0666U, modeOf("/var/run/kelo-monitord.netinfo"));
    EXPECT_EQ(0600U, modeOf("/var/run/kelo-monitord.display"));
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
    const pid_t daemon = board.daemon().value();
    ASSERT_TRUE(board.signalDaemon(SIGTERM));
    const auto end = kelo::Clock::now() + deadline;
    while (board.daemon() == daemon && kelo::Clock::now() < end)
        usleep(5000);
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
    EXPECT_TRUE(logs("x"));
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
