// What years bring: uptimes past every edge, a wall clock that is set, and each of libevent's ways
// to wait. None of it may be seen from outside.

#include "board_test.h"
#include "device.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <elf.h>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <unistd.h>

namespace {

class Years : public BoardTest {
protected:
    /// Starts the daemon in an environment.
    void startIn(const std::vector<std::string> &variables)
    {
        std::vector<std::string> command{"/bin/busybox", "env"};
        command.insert(command.end(), variables.begin(), variables.end());
        command.emplace_back(kelo::device::daemonPath);
        fromNow();
        board.startBy(command);
        ASSERT_TRUE(draws(2));
    }

    /// Whether the board's kernel is not this machine's, and nobody else's either.
    bool isOwnKernel() const
    {
        return !board.form().lacks(kelo::Ability::Files).empty() &&
               board.form().lacks(kelo::Ability::Network).empty();
    }

    /// Expects of what happens from now on that one kind of event came at its pace: as many as the
    /// time asks for, none of them early.
    static void expectPace(EventKind kind, kelo::Clock::duration pace,
                           const std::vector<Event> &events)
    {
        std::vector<kelo::Clock::time_point> times;
        for (const Event &event : events) {
            if (event.kind == kind)
                times.push_back(event.time);
        }
        ASSERT_GE(times.size(), 2U) << kindName(kind);
        const double steps = (times.back() - times.front()) / std::chrono::duration<double>(pace);
        EXPECT_NEAR(steps, static_cast<double>(times.size() - 1), 0.6) << kindName(kind);
        for (size_t i = 1; i < times.size(); i++)
            EXPECT_GT(times[i] - times[i - 1], pace / 2) << kindName(kind) << " " << i;
    }

    /// Lets the daemon go on while `change` happens a second and a half from now, and expects that
    /// the LEDs and the snapshots go on as ever.
    void expectPaces(const std::function<void()> &change)
    {
        fromNow();
        ASSERT_TRUE(draws(4));
        change();
        ASSERT_TRUE(draws(12));
        const std::vector<Event> events = board.events(from);
        expectPace(EventKind::Leds, 500ms, events);
        expectPace(EventKind::Snapshot, 1s, events);
    }
};

/// What is started from here on has been up for so long, as far as it can tell.
class Uptime {
protected:
    explicit Uptime(long long seconds)
    {
        timespec now{};
        clock_gettime(CLOCK_BOOTTIME, &now);
        const std::string offset = " " + std::to_string(seconds - now.tv_sec) + " 0\n";
        const std::string offsets = "monotonic" + offset + "boottime" + offset;
        if (unshare(CLONE_NEWTIME) < 0) {
            refusal = std::string("no time namespace: ") + strerror(errno);
            return;
        }
        const kelo::Descriptor file(open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC));
        if (write(file.get(), offsets.data(), offsets.size()) < 0)
            refusal = std::string("no such uptime: ") + strerror(errno);
    }

    std::string refusal; ///< why there is none
};

struct Edge {
    const char *name;
    long long seconds;
};

void PrintTo(const Edge &edge, std::ostream *stream)
{
    *stream << edge.name;
}

class UptimeEdge : public testing::WithParamInterface<Edge>, Uptime, public Years {
protected:
    // Time for the start, less than is waited for afterwards.
    UptimeEdge() : Uptime(GetParam().seconds - 3) {}

    void SetUp() override
    {
        if (!refusal.empty())
            GTEST_SKIP() << refusal;
        NEEDS(Files); // elsewhere the kernel is another
        const std::string program = board.read(kelo::device::daemonPath).value();
        if (program[EI_CLASS] == ELFCLASS32 && GetParam().seconds >= 1LL << 31)
            GTEST_SKIP() << "a time_t of 32 bits ends at an uptime of 68 years";
    }

    /// For how long the machine has been up, by what is started from here.
    static double uptime() { return std::stod(kelo::run({"cat", "/proc/uptime"}).output); }
};

TEST_P(UptimeEdge, IsPassedWithoutATickEarlyLateOrLost)
{
    start();
    const std::string daemon = "/proc/" + std::to_string(board.daemon().value());
    ASSERT_EQ(std::filesystem::read_symlink("/proc/self/ns/time_for_children"),
              std::filesystem::read_symlink(daemon + "/ns/time"));
    const auto edge = static_cast<double>(GetParam().seconds);
    ASSERT_LT(uptime(), edge);
    expectPaces([] {});
    ASSERT_GT(uptime(), edge);
}

INSTANTIATE_TEST_SUITE_P(Each, UptimeEdge,
                         testing::Values(Edge{"SignedMilliseconds", (1LL << 31) / 1000},
                                         Edge{"UnsignedMilliseconds", (1LL << 32) / 1000},
                                         Edge{"SignedSeconds", 1LL << 31},
                                         Edge{"UnsignedSeconds", 1LL << 32}),
                         [](const auto &test) { return std::string(test.param.name); });

/// The count of ticks of a 32-bit kernel. It overflows after 497 days at 100 Hz; kernels start it
/// 300 s before that.
class Jiffies : public Years {
protected:
    void SetUp() override
    {
        if (!isOwnKernel())
            GTEST_SKIP() << "this machine was started long ago";
    }

    double uptime() const { return std::stod(board.read("/proc/uptime").value()); }

    unsigned long long count() const
    {
        const std::string timers = board.read("/proc/timer_list").value();
        const std::string name = "\njiffies: ";
        return std::stoull(timers.substr(timers.find(name) + name.size()));
    }
};

TEST_F(Jiffies, OverflowWithoutATickEarlyLateOrLost)
{
    start();
    ASSERT_TRUE(comes([&](Events) { return uptime() > 300 - 4; }, 6min));
    const unsigned long long before = count();
    expectPaces([] {});
    EXPECT_GT(before, count());
}

struct Jump {
    const char *name;
    const char *before;
    const char *after; ///< empty: the clock gets there by itself
};

void PrintTo(const Jump &jump, std::ostream *stream)
{
    *stream << jump.name;
}

class WallClock : public Years, public testing::WithParamInterface<Jump> {
protected:
    static constexpr char library[] = "/usr/lib/libfaketime.so.1";

    /// Sets the daemon's wall clock, in UTC.
    void set(const std::string &time)
    {
        if (isOwnKernel()) {
            const kelo::Result result = board.exec({"/bin/busybox", "date", "-u", "-s", time});
            ASSERT_EQ(0, result.status) << result.output;
        } else {
            board.put("/tmp/wall", "@" + time);
        }
    }
};

TEST_P(WallClock, IsSetWithoutATickEarlyLateOrLost)
{
    if (!isOwnKernel()) {
        NEEDS(Files);
    }
    if (!isOwnKernel() && board.statusOf(library).empty())
        GTEST_SKIP() << "the wall clock of this form is this machine's";
    set(GetParam().before);
    if (isOwnKernel()) {
        start();
    } else {
        startIn({std::string("LD_PRELOAD=") + library, "DONT_FAKE_MONOTONIC=1",
                 "FAKETIME_NO_CACHE=1", "FAKETIME_TIMESTAMP_FILE=/tmp/wall", "TZ=UTC"});
        const std::string daemon = "/proc/" + std::to_string(board.daemon().value());
        ASSERT_NE(std::string::npos, kelo::readFile(daemon + "/maps").find("libfaketime"));
    }
    expectPaces([&] {
        if (*GetParam().after)
            set(GetParam().after);
    });
}

INSTANTIATE_TEST_SUITE_P(
    Each, WallClock,
    testing::Values(Jump{"FromTheEpochToNow", "1970-01-01 00:00:10", "2026-11-21 12:00:00"},
                    Jump{"BackAnHour", "2026-11-21 12:00:00", "2026-11-21 11:00:00"},
                    Jump{"Past31Bits", "2038-01-19 03:14:04", ""}),
    [](const auto &test) { return std::string(test.param.name); });

struct Method {
    const char *name;
    std::vector<std::string> variables;
    const char *used;
};

void PrintTo(const Method &method, std::ostream *stream)
{
    *stream << method.name;
}

class WaitMethod : public Years, public testing::WithParamInterface<Method> {};

TEST_P(WaitMethod, BehavesLikeEveryOther)
{
    NEEDS(Network);
    std::vector<std::string> variables = GetParam().variables;
    variables.emplace_back("EVENT_SHOW_METHOD=1");
    board.setButton(0);
    startIn(variables);
    EXPECT_TRUE(logs(std::string("libevent using: ") + GetParam().used));
    expectPaces([] {});
    board.writeKeyword("facttest");
    EXPECT_TRUE(plays({"001000", "010000", "100000", "010000"}));
    ip("-6 addr add 2001:db8::1/64 dev nas0_0 nodad");
    EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
    EXPECT_EQ("2001:db8::1", stored("wanAddress"));
    board.setButton(1);
    ASSERT_TRUE(plays({"000111", "000000"}));
    board.setButton(0);
    EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
    ASSERT_TRUE(board.signalDaemon(SIGTERM));
    EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
}

INSTANTIATE_TEST_SUITE_P(
    Each, WaitMethod,
    testing::Values(Method{"Epoll", {}, "epoll"},
                    Method{"EpollWithChangelist", {"EVENT_EPOLL_USE_CHANGELIST=1"}, "epoll"},
                    Method{"PreciseTimer", {"EVENT_PRECISE_TIMER=1"}, "epoll"},
                    Method{"Poll", {"EVENT_NOEPOLL=1"}, "poll"},
                    Method{"Select", {"EVENT_NOEPOLL=1", "EVENT_NOPOLL=1"}, "select"}),
    [](const auto &test) { return std::string(test.param.name); });

} // namespace
