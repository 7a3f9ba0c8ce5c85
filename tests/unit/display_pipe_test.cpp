/// The start of the display and its command pipe.

#include "display_test.h"

#include "fakes/files.h"

#include <cerrno>
#include <climits>

namespace {

using namespace panel;
using fakes::files;

const std::string pipePath = "/var/run/kelo-monitord.display";
const int pipeFd = fakes::firstDescriptor;

const Lines opened = {"open " + pipePath + " 0x800", "event_set fd=1000 flags=0x12",
                      "event_add fd=1000"};

class Pipe : public Display {
protected:
    Pipe()
    {
        display_register();
        eventLoop().runActive();
        takePatterns();
        journal().take();
    }

    /// One chunk arrives. Returns the log, cut down to what follows the first record, which tells
    /// of the call.
    static Lines receive(const std::string &chunk)
    {
        files().chunks.push_back(chunk);
        return wake();
    }

    static Lines wake()
    {
        eventLoop().readable(pipeFd);
        Lines lines = journal().take({"log"});
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], called(EV_READ));
        lines.erase(lines.begin());
        return lines;
    }

    static std::string called(int events)
    {
        char text[100];
        snprintf(text, sizeof text, "readDisplayMode called with fd: %d, event: %d, arg: %p\n",
                 pipeFd, events, static_cast<void *>(eventLoop().find(pipeFd)->address));
        return logged("readDisplayMode", text);
    }

    static std::string received(const std::string &text)
    {
        return logged("readDisplayMode", "received \"" + text + "\"\n");
    }

    static std::string receivedLength(int length)
    {
        return logged("readDisplayMode", "received len: " + std::to_string(length) + "\n");
    }
};

TEST_F(Display, RegistrationReplacesAnOldFile)
{
    files().content[pipePath] = "old";
    display_register();
    EXPECT_EQ(files().content[pipePath], "");
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Display, RunsOnWithoutAPipeThatCannotBeCreated)
{
    files().content[pipePath] = "a directory";
    files().fileErrors[pipePath] = EISDIR;
    display_register();
    const Lines steps = journal().take({"unlink", "mkfifo", "open", "log"});
    EXPECT_EQ(steps,
              (Lines{switched(0, 1), "unlink " + pipePath, "mkfifo " + pipePath + " 0600",
                     logged("display_register", "Failed to create fifo \"" + pipePath + "\"\n")}));
    EXPECT_EQ(eventLoop().pendingCount(), 1U);
    eventLoop().run(1s);
    EXPECT_EQ(takePatterns(), Patterns(3, strongest));
}

TEST_F(Display, RunsOnWithoutAPipeThatCannotBeOpened)
{
    files().openErrors[pipePath] = EACCES;
    display_register();
    EXPECT_EQ(
        journal().take({"open", "close", "log"}),
        (Lines{switched(0, 1), "open " + pipePath + " 0x800",
               logged("openDisplayModeFifo", "Failed to open socket \"" + pipePath + "\"\n")}));
    EXPECT_EQ(eventLoop().pendingCount(), 1U);
    eventLoop().run(1s);
    EXPECT_EQ(takePatterns(), Patterns(3, strongest));
}

TEST_F(Display, TakesDescriptor0ForThePipeLikeAnyOther)
{
    files().nextDescriptor = 0;
    display_register();
    journal().take();
    eventLoop().readable(0); // the writer has closed it
    EXPECT_EQ(
        journal().take({"event_del", "close", "open", "event_add"}),
        (Lines{"event_del fd=0", "close 0", "open " + pipePath + " 0x800", "event_add fd=0"}));
}

struct Command {
    std::string chunk;
    int mode; ///< -1 where none is chosen
};

void PrintTo(const Command &command, std::ostream *out)
{
    *out << testing::PrintToString(command.chunk);
}

class PipeCommand : public Pipe, public testing::WithParamInterface<Command> {};

TEST_P(PipeCommand, ChoosesTheModeOfTheFirstKeywordThatItBeginsWith)
{
    display_setMode(42); // no keyword's
    journal().take();
    const Lines expected = GetParam().mode < 0
                               ? Lines{received(GetParam().chunk)}
                               : Lines({received(GetParam().chunk), switched(42, GetParam().mode)});
    EXPECT_EQ(receive(GetParam().chunk), expected);
}

INSTANTIATE_TEST_SUITE_P(Keyword, PipeCommand,
                         testing::Values(Command{"none", 0}, Command{"signal", 1},
                                         Command{"reboot", 2}, Command{"restore", 3},
                                         Command{"errora12", 4}, Command{"locateme", 5},
                                         Command{"ledtest", 6}, Command{"facttest", 7},
                                         Command{"facttesterr", 8}));

INSTANTIATE_TEST_SUITE_P(KeywordAndMore, PipeCommand,
                         testing::Values(Command{"reboot\n", 2}, Command{"signalling", 1},
                                         Command{"none of these", 0}, Command{"reboot signal", 2},
                                         Command{"facttester", 7}, Command{"facttest err", 7},
                                         Command{"facttesterX", 7}, Command{"facttesterror", 8},
                                         Command{"errora123", 4}, Command{"restored\r\n", 3},
                                         Command{"ledtests", 6}, Command{"locatemenow", 5}));

INSTANTIATE_TEST_SUITE_P(
    NoKeyword, PipeCommand,
    testing::Values(Command{"Signal", -1}, Command{"sIGNAL", -1}, Command{" signal", -1},
                    Command{"\nsignal", -1}, Command{"non", -1}, Command{"signa", -1},
                    Command{"reboo", -1}, Command{"restor", -1}, Command{"errora1", -1},
                    Command{"errora", -1}, Command{"locatem", -1}, Command{"ledtes", -1},
                    Command{"facttes", -1}, Command{"x", -1}, Command{"1", -1}, Command{"\n", -1},
                    Command{"re", -1}, Command{"ebootsignal", -1}));

TEST_F(Pipe, KeywordOfTheCurrentModeIsOnlyLogged)
{
    EXPECT_EQ(receive("signal\n"), Lines{received("signal\n")});
    eventLoop().run(500ms);
    EXPECT_EQ(takePatterns(), Patterns{strongest});
}

TEST_F(Pipe, TextEndsAtAZeroByte)
{
    EXPECT_EQ(receive(std::string("reboot\0signal", 13)),
              (Lines{received("reboot"), switched(1, 2)}));
    EXPECT_EQ(receive(std::string("\0signal", 7)), Lines{received("")});
}

TEST_F(Pipe, ReadsAtMost127BytesAndTheRestAsAnotherCommand)
{
    const std::string first = "reboot" + std::string(121, '.');
    EXPECT_EQ(receive(first + "signal"), (Lines{received(first), switched(1, 2)}));
    EXPECT_EQ(wake(), (Lines{received("signal"), switched(2, 1)}));
}

TEST_F(Pipe, KeywordCutBy127BytesChoosesNothing)
{
    const std::string first = std::string(123, '.') + "sign";
    EXPECT_EQ(receive(first + "al"), Lines{received(first)});
    EXPECT_EQ(wake(), Lines{received("al")});
}

TEST_F(Pipe, CommandDoesNotSeeTheOneBefore)
{
    receive("facttesterr");
    EXPECT_EQ(receive("facttest"), (Lines{received("facttest"), switched(8, 7)}));
    EXPECT_EQ(receive("n"), Lines{received("n")});
}

TEST_F(Pipe, IsOpenedAnewWhenTheWriterHasClosedIt)
{
    receive("reboot\n");
    eventLoop().readable(pipeFd);
    EXPECT_EQ(journal().take(), Lines({called(EV_READ), "read fd=1000 size=127", receivedLength(0),
                                       "event_del fd=1000", "close 1000"}) +
                                    opened);
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
    EXPECT_EQ(files().openCount, 1U);
    EXPECT_EQ(receive("signal\n"), (Lines{received("signal\n"), switched(2, 1)}));
}

TEST_F(Pipe, IsOpenedAnewWhenAReadFails)
{
    for (const int error : {EAGAIN, EIO, EINTR}) {
        files().readError = error;
        eventLoop().readable(pipeFd);
        EXPECT_EQ(journal().take(), Lines({called(EV_READ), "read fd=1000 size=127",
                                           receivedLength(-1), "event_del fd=1000", "close 1000"}) +
                                        opened);
    }
}

TEST_F(Pipe, StaysClosedWhenItCannotBeOpenedAnew)
{
    files().openErrors[pipePath] = ENOENT;
    EXPECT_EQ(wake(),
              (Lines{receivedLength(0), logged("openDisplayModeFifo",
                                               "Failed to open socket \"" + pipePath + "\"\n")}));
    EXPECT_FALSE(eventLoop().isPending(pipeFd));
    EXPECT_EQ(files().openCount, 0U);
    files().openErrors.clear();
    journal().take();
    eventLoop().run(60s);
    EXPECT_EQ(journal().take({"open", "log"}), Lines{}); // no retry
}

TEST_F(Pipe, ClosesNothingOnceItIsClosed)
{
    files().openErrors[pipePath] = ENOENT;
    wake();
    files().openErrors.clear();
    // Registering once more is the only way to open it again.
    files().content.clear();
    display_register();
    EXPECT_EQ(journal().take({"open", "close"}), Lines{"open " + pipePath + " 0x800"});
}

TEST_F(Pipe, IgnoresAFailedClose)
{
    files().closeFails = true;
    EXPECT_EQ(wake(), Lines{receivedLength(0)});
    EXPECT_TRUE(eventLoop().isPending(pipeFd));
}

TEST_F(Pipe, LogsTheEventFlagsAsASignedShort)
{
    const auto *const watch = eventLoop().find(pipeFd);
    files().chunks = {"x", "x"};
    watch->callback(watch->fd, -1, watch->argument);
    EXPECT_EQ(journal().take({"log"})[0], called(-1));
    watch->callback(watch->fd, SHRT_MIN, watch->argument);
    EXPECT_EQ(journal().take({"log"})[0], called(SHRT_MIN));
}

} // namespace
