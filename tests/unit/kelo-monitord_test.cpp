/// main and kelo_log: start-up in its documented order, detaching and each of its failures, the
/// end by a signal, and the shape of a log record for every length of message.

#include "kelo-monitord.h"

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fakes/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int daemon_main(int argc, char **argv);

namespace {

using fakes::eventLoop;
using fakes::journal;
using fakes::Lines;
using fakes::operator+;
using fakes::process;

// Written without reference to how the log does it: the documented table, row by row.
std::string documentedRecord(const std::string &message, const std::string &suffix)
{
    const std::string whole = "kelo-monitord: " + message;
    std::string text = whole.substr(0, 1023); // the message is cut to 1008 characters
    const size_t position = whole.size() % 256;
    if (position < 128)
        return text.substr(0, position) + suffix.substr(0, 1023 - position);
    const size_t before = 256 - position;
    if (suffix.size() + 1 <= before)
        return text;
    return suffix.substr(0, before + 1023).substr(before);
}

std::string messageOf(size_t length)
{
    std::string message(length, ' ');
    for (size_t i = 0; i < length; i++)
        message[i] = static_cast<char>('!' + i % 89); // no '%' is interpreted: it is an argument
    return message;
}

/// The record that was written to standard error, without the journal's word for it.
std::string takeRecord()
{
    const Lines lines = journal().take();
    if (lines.size() != 1 || lines[0].rfind("stderr ", 0) != 0)
        return "not one record";
    return lines[0].substr(7);
}

std::string recordOf(const std::string &message)
{
    kelo_log("file.cpp", 42, "function", "%s", message.c_str());
    return takeRecord();
}

class LogSuffix : public testing::TestWithParam<size_t> {};

TEST_P(LogSuffix, FollowsTheTableForEveryMessageLength)
{
    // " [FILE:7 f]\n": 8 characters beside the file name.
    const std::string file = messageOf(GetParam() - 8);
    const std::string suffix = " [" + file + ":7 f]\n";
    ASSERT_EQ(suffix.size(), GetParam());
    for (size_t length = 0; length <= 3000; length++) {
        const std::string message = messageOf(length);
        kelo_log(file.c_str(), 7, "f", "%s", message.c_str());
        ASSERT_EQ(takeRecord(), documentedRecord(message, suffix)) << "message of " << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Length, LogSuffix,
                         testing::Values(8, 25, 40, 64, 126, 127, 128, 129, 130, 200, 255, 256, 895,
                                         896, 1022, 1023, 1024, 1150, 1151, 1152, 2000),
                         testing::PrintToStringParamName());

TEST(Log, WritesPrefixMessageAndLocation)
{
    EXPECT_EQ(recordOf("Failed to allocate memory"),
              "kelo-monitord: Failed to allocate memory [file.cpp:42 function]\n");
}

TEST(Log, PutsTheLocationOfAMessageWithLineFeedOnALineOfItsOwn)
{
    EXPECT_EQ(recordOf("rebooting...\n"), "kelo-monitord: rebooting...\n [file.cpp:42 function]\n");
}

TEST(Log, WritesTheLocationRightAfterThePrefixOfAnEmptyMessage)
{
    EXPECT_EQ(recordOf(""), "kelo-monitord:  [file.cpp:42 function]\n");
}

TEST(Log, IsWholeUpTo112Characters)
{
    const std::string message = messageOf(112);
    EXPECT_EQ(recordOf(message), "kelo-monitord: " + message + " [file.cpp:42 function]\n");
}

TEST(Log, LosesTheLocationFrom113Characters)
{
    const std::string message = messageOf(113);
    EXPECT_EQ(recordOf(message), "kelo-monitord: " + message);
}

TEST(Log, PutsTheLocationOver300CharactersAt59)
{
    const std::string text = "kelo-monitord: " + messageOf(300);
    EXPECT_EQ(recordOf(messageOf(300)), text.substr(0, 59) + " [file.cpp:42 function]\n");
}

TEST(Log, FormatsItsArguments)
{
    kelo_log("a.cpp", -3, "b", "%s %d %c %x", "text", -1, 'c', 255U);
    EXPECT_EQ(takeRecord(), "kelo-monitord: text -1 c ff [a.cpp:-3 b]\n");
    kelo_log("a.cpp", INT_MAX, "b", "100%%");
    EXPECT_EQ(takeRecord(), "kelo-monitord: 100% [a.cpp:2147483647 b]\n");
}

TEST(Log, ReturnsTheResultOfTheWrite)
{
    process().fputsResult = 17;
    EXPECT_EQ(kelo_log("a", 1, "b", "c"), 17);
    process().fputsResult = EOF;
    EXPECT_EQ(kelo_log("a", 1, "b", "c"), EOF);
}

TEST(Log, MacroFillsInFileLineAndFunction)
{
    KELO_LOG("%d", 1);
    const std::string line = std::to_string(__LINE__ - 1);
    EXPECT_EQ(takeRecord(), "kelo-monitord: 1 [kelo-monitord_test.cpp:" + line + " TestBody]\n");
}

/// Runs the daemon's main until it exits. Returns its exit status.
int runMain(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "kelo-monitord");
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    optind = 0; // getopt starts afresh
    try {
        daemon_main(static_cast<int>(arguments.size()), argv.data());
    } catch (const fakes::Exit &exit) {
        return exit.status;
    }
    return -1; // main returned, which it must not
}

const Lines launching = {"stderr kelo-monitord: Launching as daemon...\n"};
const Lines detaching = {"umask 000", "setsid", "chdir /", "close 0", "close 1", "close 2"};
const Lines running = {
    "event_init",      "event_set fd=1 flags=0x18", "event_add fd=1",  "event_set fd=2 flags=0x18",
    "event_add fd=2",  "event_set fd=3 flags=0x18", "event_add fd=3",  "event_set fd=15 flags=0x18",
    "event_add fd=15", "netinfo_register",          "ipinfo_register", "display_register",
    "input_register",  "event_base_dispatch",       "exit 0",
};

/// What main did, a log record cut down to its first line, which ends with the message.
Lines takeSteps()
{
    Lines steps = journal().take();
    for (std::string &step : steps) {
        if (step.rfind("stderr ", 0) == 0)
            step.erase(step.find('\n') + 1);
    }
    return steps;
}

class Main : public testing::Test {
protected:
    static void asChild() { process().forkResult = 0; }
};

TEST_F(Main, StaysInTheForegroundWithoutOptions)
{
    EXPECT_EQ(runMain({}), 0);
    EXPECT_EQ(takeSteps(), running);
}

TEST_F(Main, IgnoresArgumentsAndTheOptionsAfterADoubleDash)
{
    EXPECT_EQ(runMain({"extra", "--", "-d"}), 0);
    EXPECT_EQ(takeSteps(), running);
}

TEST_F(Main, IgnoresUnknownOptions)
{
    opterr = 0; // the parser's own complaint is the library's
    EXPECT_EQ(runMain({"-x", "-D", "-"}), 0);
    EXPECT_EQ(takeSteps(), running);
}

TEST_F(Main, ComplainsOfAnUnknownOptionInTheParsersWords)
{
    const auto complaint = [](const auto &parse) {
        testing::internal::CaptureStderr();
        parse();
        return testing::internal::GetCapturedStderr();
    };
    char name[] = "kelo-monitord";
    char unknown[] = "-x";
    char *const arguments[] = {name, unknown, nullptr};
    const std::string words = complaint([&] { static_cast<void>(getopt(2, arguments, "d")); });
    EXPECT_FALSE(words.empty());
    EXPECT_EQ(complaint([] { runMain({"-x"}); }), words);
}

TEST_F(Main, DetachesAsDaemonBeforeItMakesTheEventBase)
{
    asChild();
    EXPECT_EQ(runMain({"-d"}), 0);
    EXPECT_EQ(takeSteps(), launching + Lines{"fork"} + detaching + running);
}

TEST_F(Main, DetachesWhereverTheOptionStands)
{
    asChild();
    opterr = 0;
    EXPECT_EQ(runMain({"extra", "-xd"}), 0);
    EXPECT_EQ(takeSteps(), launching + Lines{"fork"} + detaching + running);
}

TEST_F(Main, LogsEveryDaemonOptionAndDetachesOnce)
{
    asChild();
    EXPECT_EQ(runMain({"-d", "-d"}), 0);
    EXPECT_EQ(takeSteps(), launching + launching + Lines{"fork"} + detaching + running);
}

TEST_F(Main, FailedForkEndsItWithStatus1)
{
    process().forkResult = -1;
    EXPECT_EQ(runMain({"-d"}), 1);
    EXPECT_EQ(takeSteps(), launching + Lines({"fork", "exit 1"}));
}

TEST_F(Main, FailedSetsidEndsItWithStatus1)
{
    asChild();
    process().setsidResult = -1;
    EXPECT_EQ(runMain({"-d"}), 1);
    EXPECT_EQ(takeSteps(), launching + Lines({"fork", "umask 000", "setsid", "exit 1"}));
}

TEST_F(Main, OnlyANegativeResultOfSetsidIsAFailure)
{
    asChild();
    process().setsidResult = 0;
    EXPECT_EQ(runMain({"-d"}), 0);
}

TEST_F(Main, DaemonKeepsWhatItInheritedBeyondTheStandardStreams)
{
    asChild();
    ASSERT_EQ(dup2(2, 3), 3);
    EXPECT_EQ(runMain({"-d"}), 0);
    EXPECT_NE(fcntl(3, F_GETFD), -1);
}

TEST_F(Main, FailedChdirEndsItWithStatus1)
{
    asChild();
    process().chdirResult = -1;
    EXPECT_EQ(runMain({"-d"}), 1);
    EXPECT_EQ(takeSteps(), launching + Lines({"fork", "umask 000", "setsid", "chdir /", "exit 1"}));
}

TEST_F(Main, EverySignalEndsTheLoop)
{
    eventLoop().duringDispatch = [] {
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            eventLoop().exitRequested = false;
            eventLoop().raise(signal);
            EXPECT_TRUE(eventLoop().exitRequested) << signal;
        }
        fakes::note("end of loop");
    };
    EXPECT_EQ(runMain({}), 0);
    const Lines steps = takeSteps();
    const Lines end = {"event_base_loopexit now",
                       "event_base_loopexit now",
                       "event_base_loopexit now",
                       "event_base_loopexit now",
                       "end of loop",
                       "exit 0"};
    ASSERT_GE(steps.size(), end.size());
    EXPECT_EQ(Lines(steps.end() - static_cast<long>(end.size()), steps.end()), end);
}

TEST_F(Main, SignalEventsPersist)
{
    eventLoop().duringDispatch = [] {
        eventLoop().raise(SIGTERM);
        eventLoop().raise(SIGTERM);
        EXPECT_EQ(eventLoop().pendingCount(), 4U);
    };
    EXPECT_EQ(runMain({}), 0);
}

TEST_F(Main, SignalIsTheBaseExitWhateverTheDescriptorAndFlags)
{
    eventLoop().duringDispatch = [] {
        const auto *const watch = eventLoop().find(SIGHUP);
        watch->callback(-1, 0, watch->argument);
        EXPECT_TRUE(eventLoop().exitRequested);
    };
    EXPECT_EQ(runMain({}), 0);
}

TEST_F(Main, FailedDispatchEndsItWithSuccess)
{
    eventLoop().dispatchResult = -1;
    EXPECT_EQ(runMain({}), 0);
    EXPECT_EQ(takeSteps(), running);
}

TEST_F(Main, StartsUpWithoutAnEventBase)
{
    eventLoop().initFails = true;
    eventLoop().addResult = -1;
    EXPECT_EQ(runMain({}), 0);
    EXPECT_EQ(takeSteps(), running);
}

} // namespace
