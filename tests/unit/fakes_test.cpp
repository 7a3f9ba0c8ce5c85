/// The fake event loop itself: its clock and order are libevent's, and no misuse goes unnoticed.

#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/journal.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/types.h>

extern "C" {
int fake_open(const char *path, int flags, ...);
ssize_t fake_read(int fd, void *buffer, size_t size);
int fake_close(int fd);
}

namespace {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::Lines;
using fakes::note;

constexpr timeval second = {1, 0};
constexpr timeval halfSecond = {0, 500000};

event timer;
event other;

/// The calls of the callbacks, without those of the loop.
Lines takeCalls()
{
    return fakes::journal().take({"called"});
}

void called(int fd, short what, void *argument)
{
    note("called fd=%d what=0x%x %s at %ldms", fd, static_cast<unsigned>(what),
         static_cast<const char *>(argument), static_cast<long>(eventLoop().now() / 1ms));
}

char first[] = "first";
char another[] = "another";

class Loop : public testing::Test {
protected:
    Loop() { event_init(); }
};

using LoopDeathTest = Loop;

TEST_F(Loop, RunsAPersistentTimerEveryInterval)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_add(&timer, &second);
    eventLoop().run(999ms);
    EXPECT_EQ(takeCalls(), Lines{});
    eventLoop().run(1001ms);
    EXPECT_EQ(takeCalls(), (Lines{"called fd=-1 what=0x1 first at 1000ms",
                                  "called fd=-1 what=0x1 first at 2000ms"}));
}

TEST_F(Loop, RunsTimersInTheOrderInWhichTheyComeDue)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_set(&other, -1, EV_PERSIST, called, another);
    event_add(&timer, &second);
    event_add(&other, &halfSecond);
    eventLoop().run(1s);
    EXPECT_EQ(takeCalls(), (Lines{"called fd=-1 what=0x1 another at 500ms",
                                  "called fd=-1 what=0x1 first at 1000ms",
                                  "called fd=-1 what=0x1 another at 1000ms"}));
}

TEST_F(Loop, RunsAnActivatedTimerAtOnceAndThenOneIntervalLater)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_add(&timer, &second);
    eventLoop().run(300ms);
    event_active(&timer, 0, 0);
    eventLoop().run(1s);
    EXPECT_EQ(takeCalls(), (Lines{"called fd=-1 what=0x0 first at 300ms",
                                  "called fd=-1 what=0x1 first at 1300ms"}));
}

TEST_F(Loop, RunsNothingThatWasDeleted)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_add(&timer, &second);
    event_active(&timer, 0, 0);
    event_del(&timer);
    eventLoop().run(5s);
    EXPECT_EQ(takeCalls(), Lines{});
}

TEST_F(Loop, KnowsOfEventsOnceTheyAreSet)
{
    EXPECT_EQ(event_initialized(&timer), 0);
    event_set(&timer, -1, 0, called, first);
    EXPECT_NE(event_initialized(&timer), 0);
}

TEST_F(LoopDeathTest, EndsOnEventsThatWereNotSet)
{
    EXPECT_DEATH(event_add(&timer, &second), "before event_set");
    EXPECT_DEATH(event_del(&timer), "before event_set");
    EXPECT_DEATH(event_active(&timer, 0, 0), "before event_set");
}

TEST(LoopWithoutBaseDeathTest, EndsOnAnEventSetBeforeTheBase)
{
    EXPECT_DEATH(event_set(&timer, -1, 0, called, first), "before event_init");
}

TEST_F(LoopDeathTest, EndsOnASecondBase)
{
    EXPECT_DEATH(event_init(), "twice");
}

TEST_F(LoopDeathTest, EndsOnAnEventSetWhilePending)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_add(&timer, &second);
    EXPECT_DEATH(event_set(&timer, -1, EV_PERSIST, called, first), "pending");
    event_del(&timer);
    event_set(&timer, -1, EV_PERSIST, called, first);
}

TEST_F(LoopDeathTest, EndsOnADescriptorThatDoesNotFit)
{
    EXPECT_DEATH(event_set(&timer, 3, EV_PERSIST, called, first), "do not fit");
    EXPECT_DEATH(event_set(&timer, -1, EV_READ, called, first), "do not fit");
    EXPECT_DEATH(event_set(&timer, 0, EV_SIGNAL, called, first), "do not fit");
    EXPECT_DEATH(event_set(&timer, 1, EV_SIGNAL | EV_READ, called, first), "do not fit");
    EXPECT_DEATH(event_set(&timer, 1, EV_WRITE, called, first), "do not fit");
    EXPECT_DEATH(event_set(&timer, -1, EV_PERSIST, nullptr, first), "do not fit");
}

TEST_F(LoopDeathTest, EndsOnAnEventChangedBehindItsBack)
{
    event_set(&timer, -1, EV_PERSIST, called, first);
    event_add(&timer, &second);
    timer = {};
    EXPECT_DEATH(eventLoop().run(1s), "without event_set");
}

TEST_F(LoopDeathTest, EndsOnAnotherBase)
{
    EXPECT_DEATH(event_base_dispatch(nullptr), "another base");
    EXPECT_DEATH(event_base_loopexit(nullptr, nullptr), "another base");
}

TEST_F(LoopDeathTest, EndsWhereNobodyWaits)
{
    EXPECT_DEATH(eventLoop().readable(5), "no event waits");
    EXPECT_DEATH(eventLoop().raise(15), "no event waits");
}

TEST(FilesDeathTest, EndOnAClosedDescriptor)
{
    fakes::files().content["/var/run/kelo-monitord.display"] = "";
    const int fd = fake_open("/var/run/kelo-monitord.display", O_RDONLY);
    EXPECT_EQ(fd, fakes::firstDescriptor);
    fake_close(fd);
    char byte = 0;
    EXPECT_DEATH(fake_close(fd), "closed descriptor");
    EXPECT_DEATH(static_cast<void>(fake_read(fd, &byte, 1)), "closed descriptor");
}

} // namespace
