// More than a terminal ever sees: floods of network changes, crowds of writers and readers, long
// tables. Afterwards the daemon answers as before and takes no more memory than before.

#include "board_test.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace {

class Load : public BoardTest {
protected:
    static constexpr size_t slackKiB = 64; // of the allocator and the C library

    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        start();
    }

    /// Memory of its own that the daemon takes.
    size_t residentKiB()
    {
        std::ifstream status("/proc/" + std::to_string(board.daemon().value()) + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.starts_with("RssAnon:"))
                return std::stoul(line.substr(line.find_first_of("0123456789")));
        }
        ADD_FAILURE() << "no RssAnon";
        return 0;
    }

    std::set<std::string> descriptors()
    {
        std::set<std::string> result;
        for (const auto &entry : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(board.daemon().value()) + "/fd"))
            result.insert(entry.path().filename());
        return result;
    }

    /// Commands that add an address and remove it, again and again.
    static std::string flood(int pairs)
    {
        return "awk 'BEGIN { for (i = 0; i < " + std::to_string(pairs) +
               "; i++) print \"addr add 203.0.113.1/32 dev lan1\\naddr del 203.0.113.1/32 dev "
               "lan1\" }' | ip -batch -";
    }

    /// Writes a command into the pipe as often as it takes to find it open.
    void insist(const std::string &keyword)
    {
        const std::string path = board.path("/var/run/kelo-monitord.display");
        for (;;) {
            const kelo::Descriptor pipe(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            if (pipe &&
                write(pipe.get(), keyword.data(), keyword.size()) == ssize_t(keyword.size()))
                return;
            std::this_thread::yield();
        }
    }

    /// Waits until the pipe is empty and the daemon has seen the end of its last writer.
    void drain()
    {
        const kelo::Descriptor pipe(open(board.path("/var/run/kelo-monitord.display").c_str(),
                                         O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        const auto drained = [&](const std::vector<Event> &events) {
            const auto last = std::find_if(events.rbegin(), events.rend(), [](const Event &event) {
                return event.kind == EventKind::Log;
            });
            int waiting = 0;
            return ioctl(pipe.get(), FIONREAD, &waiting) == 0 && waiting == 0 &&
                   last->text.find("received len: 0\n") != std::string::npos;
        };
        ASSERT_TRUE(board.waitUntil(drained, deadline));
    }

    /// The daemon still does each of its jobs.
    void expectAnswers()
    {
        fromNow();
        settle();
        send("none\n");
        send("errora12\n");
        EXPECT_TRUE(sees(EventKind::Leds, "010000"));
        send("signal\n");
        EXPECT_TRUE(plays({"110000", "110000"}));
        fromNow();
        EXPECT_TRUE(seesSnapshot());
    }
};

TEST_F(Load, HundredThousandNetlinkMessagesOverrunTheSocketAndTheDaemonGoesOn)
{
    ASSERT_EQ(0, board.exec({"sh", "-c", flood(1000)}).status);
    settle();
    const size_t before = residentKiB();
    const auto descriptorsBefore = descriptors();
    fromNow();
    ASSERT_TRUE(board.signalDaemon(SIGSTOP));
    ASSERT_EQ(0, board.exec({"sh", "-c", flood(40000)}).status);
    ASSERT_TRUE(board.signalDaemon(SIGCONT));
    EXPECT_TRUE(logs("Failed to receive netlink msg (-1)"));
    ASSERT_EQ(0, board.exec({"sh", "-c", flood(10000)}).status);
    EXPECT_GT(count(EventKind::Log, "New IPv4 address 203.0.113.1/32 on lan1"), 0U);
    expectAnswers();
    EXPECT_LE(residentKiB(), before + slackKiB);
    EXPECT_EQ(descriptorsBefore, descriptors());
}

TEST_F(Load, TenThousandCommandsOfFiftyWritersAreTakenOneByOne)
{
    const std::vector<std::string> keywords{"none\n",    "signal\n",   "reboot\n",
                                            "restore\n", "errora12\n", "locateme\n",
                                            "ledtest\n", "facttest\n", "facttesterr\n"};
    send("none\n");
    send("signal\n");
    const size_t before = residentKiB();
    const auto descriptorsBefore = descriptors();
    fromNow();
    std::vector<std::thread> writers;
    for (size_t writer = 0; writer < 50; writer++) {
        writers.emplace_back([&, writer] {
            for (size_t i = 0; i < 200; i++)
                insist(keywords[(writer + i) % keywords.size()]);
        });
    }
    for (std::thread &writer : writers)
        writer.join();
    drain();
    const size_t start = from;
    expectAnswers();
    EXPECT_LE(residentKiB(), before + slackKiB);
    EXPECT_EQ(descriptorsBefore, descriptors());

    // Whatever became of each command, the display went from mode to mode without a break.
    from = start;
    EXPECT_GT(count(EventKind::Log, "received \""), 100U);
    int mode = 1;
    for (const Event &event : board.events(from)) {
        int last;
        int next;
        if (event.kind != EventKind::Log ||
            sscanf(event.text.c_str(), "kelo-monitord: switch display mode %d -> %d", &last,
                   &next) != 2)
            continue;
        ASSERT_EQ(mode, last);
        ASSERT_NE(last, next);
        ASSERT_TRUE(next >= 0 && next <= 8) << next;
        mode = next;
    }
}

TEST_F(Load, ReaderSeesAWholeSnapshotAMillionTimes)
{
    ASSERT_TRUE(seesSnapshot());
    std::atomic<bool> done = false;
    std::thread changes([&] {
        while (!done)
            kelo::run(board.inside({"sh", "-c", flood(1000)}));
    });
    std::thread commands([&] {
        for (unsigned i = 0; !done; i++) {
            insist(i % 2 ? "restore\n" : "signal\n");
            const std::string port = board.path("/board/ports/" + std::to_string(1 + i % 7));
            std::ofstream(port + ".new") << i * 1000000007ULL << ' ' << ~0ULL - i << '\n';
            std::filesystem::rename(port + ".new", port);
            std::this_thread::sleep_for(10ms);
        }
    });
    const kelo::Descriptor folder(
        open(board.path("/var/run").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::string known;
    size_t distinct = 0;
    size_t torn = 0;
    for (int i = 0; i < 1000000; i++) {
        char text[4096];
        const kelo::Descriptor file(openat(folder.get(), "kelo-monitord.netinfo", O_RDONLY));
        const ssize_t length = file ? read(file.get(), text, sizeof text) : -1;
        const std::string_view snapshot(text, length > 0 ? static_cast<size_t>(length) : 0);
        if (snapshot == known)
            continue;
        known = snapshot;
        distinct++;
        const bool whole = known.starts_with("port=lan1,") && known.ends_with('\n') &&
                           std::count(known.begin(), known.end(), '\n') == 7;
        torn += !whole;
        EXPECT_TRUE(whole || torn > 3) << "read: " << known;
    }
    done = true;
    changes.join();
    commands.join();
    EXPECT_EQ(0U, torn);
    EXPECT_GE(distinct, 2U);
    expectAnswers();
}

/// A table of addresses and routes that grows in steps that the socket holds.
class Tables : public Load {
protected:
    static constexpr int size = 1500; // of each of the four kinds
    static constexpr int step = 8;

    kelo::Pipe pipe = kelo::makePipe();
    pid_t batch = -1;

    void SetUp() override
    {
        Load::SetUp();
        ip("addr add 198.18.0.1/30 dev nas0_0");
        batch = kelo::spawn(board.inside({"ip", "-batch", "-"}), {pipe.read.get(), -1, -1});
        pipe.read.reset();
    }

    struct Kind {
        const char *command; ///< with %s for add or del, %d and %d for the bytes of a number
        const char *record;  ///< what the log says of it
    };

    static constexpr Kind kinds[] = {
        {"addr %s 10.1.%d.%d/32 dev lan1\n", "IPv4 address 10.1.%d.%d/32 on lan1"},
        {"addr %s 2001:db8:1::%d:%d/128 dev lan1 nodad\n",
         "IPv6 address 2001:db8:1::%d:%d/128 on lan1"},
        {"route %s 10.2.%d.%d/32 via 198.18.0.2 dev nas0_0\n",
         "IPv4 route 10.2.%d.%d/32 via 198.18.0.2 on nas0_0"},
        {"route %s 2001:db8:2::%d:%d/128 via fe80::1 dev nas0_0\n",
         "IPv6 route 2001:db8:2::%d:%d/128 via fe80::1 on nas0_0"},
    };

    /// Adds or removes everything, and waits for each step to be logged.
    void change(const Kind &kind, bool add)
    {
        for (int i = 0; i < size; i++) {
            char line[128];
            // The numbers are told apart from 10 on: no text form shortens them.
            const int high = 10 + i / 200;
            const int low = 10 + i % 200;
            if (i % step == 0)
                fromNow();
            snprintf(line, sizeof line, kind.command, add ? "add" : "del", high, low);
            ASSERT_EQ(ssize_t(strlen(line)), write(pipe.write.get(), line, strlen(line)));
            if ((i + 1) % step != 0 && i + 1 != size)
                continue;
            snprintf(line, sizeof line, kind.record, high, low);
            ASSERT_TRUE(logs((add ? "New " : "Removed ") + std::string(line)));
            ASSERT_EQ(0U, count(EventKind::Log, "Failed to receive"));
        }
    }

    void round()
    {
        for (const Kind &kind : kinds)
            ASSERT_NO_FATAL_FAILURE(change(kind, true));
        // What is known already is found in the longest table, and not reported again.
        fromNow();
        ip("-6 addr change 2001:db8:1::10:10/128 dev lan1 valid_lft 1000 preferred_lft 900");
        settle();
        EXPECT_EQ(0U, count(EventKind::Log, "2001:db8:1::10:10/"));
        for (const Kind &kind : kinds)
            ASSERT_NO_FATAL_FAILURE(change(kind, false));
    }
};

TEST_F(Tables, OfThousandsOfRecordsAreFilledAndEmptiedInTheSameMemoryEveryTime)
{
    ASSERT_NO_FATAL_FAILURE(round());
    const size_t before = residentKiB();
    ASSERT_NO_FATAL_FAILURE(round());
    pipe.write.reset();
    EXPECT_EQ(0, kelo::waitFor(batch));
    expectAnswers();
    EXPECT_LE(residentKiB(), before + slackKiB);
}

} // namespace
