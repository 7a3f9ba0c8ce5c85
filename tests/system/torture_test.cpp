// What a person would do wrong to a board, at random: no command waits for good, `down` ends the
// board within five seconds whatever its state, and nothing is left. KELO_SECONDS says for how
// long, KELO_SEED which deeds.

#include "process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <pty.h>
#include <random>
#include <sstream>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

std::vector<pid_t> childrenOf(pid_t pid)
{
    const std::string number = std::to_string(pid);
    std::istringstream children(
        kelo::readFile("/proc/" + number + "/task/" + number + "/children"));
    std::vector<pid_t> result;
    for (pid_t child; children >> child;)
        result.push_back(child);
    return result;
}

class Torture : public testing::Test {
protected:
    struct Done {
        int status;
        double seconds;
        std::string output;
    };

    struct Process {
        const char *name;
        pid_t pid;
        kelo::Descriptor end;
    };

    /// Runs a command; one that takes too long is killed, and its status is -1.
    static Done command(const Words &words, std::chrono::milliseconds limit)
    {
        const auto start = Clock::now();
        kelo::Pipe pipe = kelo::makePipe(O_NONBLOCK);
        const pid_t child = kelo::spawnApart(words, {-1, pipe.write.get(), pipe.write.get()});
        pipe.write.reset();
        const kelo::Descriptor end = kelo::endOf(child);
        pollfd source{end.get(), POLLIN, 0};
        const bool inTime = poll(&source, 1, static_cast<int>(limit.count())) > 0;
        if (!inTime)
            kill(child, SIGKILL);
        const int status = kelo::waitFor(child);
        return {inTime ? status : -1, std::chrono::duration<double>(Clock::now() - start).count(),
                kelo::readAll(pipe.read.get())};
    }

    Done kb(Words words, std::chrono::milliseconds limit = 30s) const
    {
        words.insert(words.begin(), {KELO_BOARD_PROGRAM, "--board", name});
        return command(words, limit);
    }

    static bool hasEnded(const Process &process)
    {
        pollfd source{process.end.get(), POLLIN, 0};
        return !process.end || poll(&source, 1, 0) > 0;
    }

    /// The program that runs the board, the holder of its namespaces, its agent, and the daemon.
    std::vector<Process> processes() const
    {
        const std::string list = kb({"list"}).output;
        const size_t line = list.find("\n" + name + " ");
        const pid_t host =
            line == std::string::npos ? 0 : atoi(list.c_str() + line + 1 + name.size());
        std::vector<Process> result;
        pid_t pid = host;
        for (const char *which : {"host", "holder", "agent", "daemon"}) {
            if (pid > 0)
                result.push_back({which, pid, kelo::endOf(pid)});
            const std::vector<pid_t> children = childrenOf(pid);
            pid = children.empty() ? 0 : children.front();
        }
        return result;
    }

    /// Starts the board by a panel in a terminal with a shell's job control.
    void openPanel()
    {
        int master;
        const pid_t shell = forkpty(&master, nullptr, nullptr, nullptr);
        if (shell == 0) {
            setenv("TERM", "xterm", 1);
            execlp("sh", "sh", "-mc", "\"$0\" panel \"$1\"; exec sleep 1000", KELO_BOARD_PROGRAM,
                   name.c_str(), nullptr);
            _exit(127);
        }
        ASSERT_GT(shell, 0);
        panel.shell = shell;
        panel.terminal = kelo::Descriptor(master);
        fcntl(master, F_SETFL, O_NONBLOCK);
        const auto end = Clock::now() + 20s;
        while (kb({"expect", "leds", "110000"}).status != 0) {
            kelo::readAll(master); // or the panel waits for room
            ASSERT_LT(Clock::now(), end) << "the panel starts no daemon";
        }
    }

    void closePanel()
    {
        if (panel.shell > 0) {
            kill(panel.shell, SIGKILL);
            kelo::waitFor(panel.shell);
        }
        panel = {};
    }

    size_t pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(dice); }

    void round()
    {
        SCOPED_TRACE("board " + name);
        std::string story;
        if (pick(4) == 0) {
            story += "\n  panel";
            openPanel();
        } else {
            const Done up = kb({"up", "--detach", name});
            ASSERT_EQ(0, up.status) << up.output;
        }
        const std::vector<Process> all = processes();
        ASSERT_EQ(4U, all.size());
        for (size_t deeds = pick(4) + 1; deeds > 0; deeds--) {
            if (pick(2) == 0) {
                constexpr int signals[] = {SIGSTOP, SIGCONT, SIGKILL, SIGSEGV, SIGTERM};
                const Process &victim = all[pick(all.size())];
                const int number = signals[pick(std::size(signals))];
                story += std::string("\n  ") + sigabbrev_np(number) + " to the " + victim.name;
                if (!hasEnded(victim))
                    kill(victim.pid, number);
                continue;
            }
            if (panel.terminal && pick(2) == 0) {
                story += "\n  Ctrl-Z";
                EXPECT_EQ(1, write(panel.terminal.get(), "\x1a", 1)) << story;
                continue;
            }
            static const std::vector<Words> commands = {{"mode", "restore"},
                                                        {"set", "laser", "-9"},
                                                        {"leds"},
                                                        {"signal", "STOP"},
                                                        {"signal", "SEGV"},
                                                        {"hold"},
                                                        {"fault", "run-full"},
                                                        {"stop"},
                                                        {"start"},
                                                        {"restart"},
                                                        {"list"},
                                                        {"store"},
                                                        {"ip", "link", "del", "ppp0"},
                                                        {"events"},
                                                        {"fault", "led-missing"}};
            const Words &words = commands[pick(commands.size())];
            story += "\n ";
            for (const std::string &word : words)
                story += " " + word;
            const Done done = kb(words);
            EXPECT_GE(done.status, 0) << words[0] << " still waits after" << story;
            EXPECT_LE(done.status, 1) << done.output << story;
        }
        const Done down = kb({"down", name});
        closePanel();
        EXPECT_LE(down.seconds, 5.0) << story;
        EXPECT_TRUE(down.status == 0 || down.status == 1) << down.status << story;
        const Done again = kb({"down", name});
        EXPECT_EQ(1, again.status) << again.output << story;
        EXPECT_LE(again.seconds, 1.0) << story;
        for (const Process &process : all) {
            pollfd source{process.end.get(), POLLIN, 0};
            EXPECT_EQ(1, poll(&source, 1, 2000)) << "the " << process.name << " is left" << story;
        }
        EXPECT_EQ(std::string::npos, kb({"list"}).output.find("\n" + name + " ")) << story;
    }

    const std::string name = "torture-" + std::to_string(getpid());
    struct {
        pid_t shell = -1;
        kelo::Descriptor terminal;
    } panel; ///< of this round, if the board has one
    std::mt19937 dice;
};

TEST_F(Torture, LeavesNothingAndNothingWaits)
{
    const char *const seconds = getenv("KELO_SECONDS");
    const char *const given = getenv("KELO_SEED");
    const auto seed = given ? static_cast<unsigned>(atoi(given)) : std::random_device()();
    printf("KELO_SEED=%u\n", seed);
    fflush(stdout);
    dice.seed(seed);
    const std::string mounts = kelo::readFile("/proc/self/mounts");
    const auto end = Clock::now() + std::chrono::seconds(seconds ? atoi(seconds) : 15);
    int rounds = 0;
    for (; Clock::now() < end && !HasFailure(); rounds++)
        round();
    printf("%d boards\n", rounds);
    EXPECT_GT(rounds, 0);
    EXPECT_EQ(mounts, kelo::readFile("/proc/self/mounts"));
}

} // namespace
