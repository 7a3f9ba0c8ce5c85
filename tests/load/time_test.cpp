// Days of the daemon, with a clock that jumps where the daemon would wait: not one tick is lost,
// and it takes no more memory, descriptors or processes at the end than at the start.

#include "board_test.h"
#include "device.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int stepSeconds = 600;

struct Mode {
    const char *keyword;
    int frames; ///< in one step, from the command that chose the mode
};

// What ticks draws at once and then every interval; locating draws 120 times, until the tick at
// 29.75 s, and leaves the rest to the signal.
constexpr Mode modes[] = {
    {"signal", stepSeconds * 2},
    {"ledtest", stepSeconds / 3},
    {"locateme", 120 + 1141},
    {"errora12", 1},
    {"reboot", stepSeconds * 4},
    {"facttest", stepSeconds * 2},
    {"none", 1},
    {"restore", stepSeconds * 10},
    {"facttesterr", stepSeconds * 2},
};

class Days : public BoardTest {
protected:
    kelo::Descriptor leds;
    kelo::Descriptor stopped;
    kelo::Descriptor go;
    kelo::Descriptor renames;
    std::string text;
    int frames = 0;
    int snapshots = 0;
    int disorder = 0;

    kelo::Descriptor fifo(const std::string &boardPath)
    {
        const std::string path = board.path(boardPath);
        EXPECT_EQ(0, mkfifo((path + ".new").c_str(), 0666));
        EXPECT_EQ(0, rename((path + ".new").c_str(), path.c_str()));
        return kelo::Descriptor(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }

    /// The board records what it sees, event by event; for days this test looks for itself.
    void SetUp() override
    {
        std::filesystem::copy(KELO_CLOCK, board.path("/usr/lib/clock.so"));
        stopped = fifo("/board/clock.stopped");
        go = fifo("/board/clock.go");
        leds = fifo("/proc/tc3162/gpio_output");
        constexpr int room = 1 << 20; // for every LED write of a step
        static_assert(sizeof "active 6 0" * 6 * 10 * stepSeconds < room);
        ASSERT_EQ(room, fcntl(leds.get(), F_SETPIPE_SZ, room));
        std::filesystem::remove(board.path(kelo::device::channelPath));
        std::filesystem::create_symlink("/dev/null", board.path(kelo::device::channelPath));
        std::filesystem::rename(board.path("/var/run"), board.path("/var/run.recorded"));
        std::filesystem::create_directory(board.path("/var/run"));
        renames = kelo::Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        // Both ends of a rename: equal events in a row would be reported as one.
        inotify_add_watch(renames.get(), board.path("/var/run").c_str(), IN_MOVE);
        board.startBy({"/bin/busybox", "env", "LD_PRELOAD=/usr/lib/clock.so",
                       "KELO_CLOCK=/board/clock", "/usr/sbin/kelo-monitord"});
        ASSERT_TRUE(waitForStop());
        frames = 0; // but for the ones of the start
    }

    /// Waits until the daemon's clock stops and takes in what it did.
    bool waitForStop()
    {
        pollfd source{stopped.get(), POLLIN, 0};
        char byte;
        if (poll(&source, 1, 60000) <= 0 || read(stopped.get(), &byte, 1) != 1)
            return false;
        takeLeds();
        takeRenames();
        return true;
    }

    void takeLeds()
    {
        static const std::string gpios = "678234";
        text += kelo::readAll(leds.get());
        size_t position = 0;
        // "active 6 0\n" and so on, always all six.
        constexpr size_t line = 11;
        for (; text.size() - position >= line * 6; position += line * 6) {
            for (size_t i = 0; i < 6; i++)
                disorder += text[position + line * i + 7] != gpios[i];
            frames++;
        }
        text.erase(0, position);
    }

    void takeRenames()
    {
        alignas(inotify_event) char buffer[4096];
        ssize_t length;
        while ((length = read(renames.get(), buffer, sizeof buffer)) > 0) {
            for (const char *position = buffer; position < buffer + length;) {
                const auto *const event = reinterpret_cast<const inotify_event *>(position);
                position += sizeof(inotify_event) + event->len;
                snapshots += event->len && event->name == std::string("kelo-monitord.netinfo");
            }
        }
    }

    /// Lets the daemon's clock go on for a while.
    bool pass(int64_t microseconds)
    {
        return write(go.get(), &microseconds, sizeof microseconds) == sizeof microseconds &&
               waitForStop();
    }

    struct Cost {
        size_t memoryKiB = 0;
        size_t descriptors = 0;
        std::string children;

        bool operator==(const Cost &) const = default;
    };

    Cost cost()
    {
        Cost result;
        const std::string proc = "/proc/" + std::to_string(board.daemon().value());
        std::ifstream status(proc + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.starts_with("RssAnon:"))
                result.memoryKiB = std::stoul(line.substr(line.find_first_of("0123456789")));
        }
        for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(proc + "/fd"))
            result.descriptors++;
        const std::string task = proc + "/task/" + std::to_string(board.daemon().value());
        result.children = kelo::readFile(task + "/children");
        return result;
    }

    /// How the snapshot shows the difference of a counter to its last reading.
    static std::string delta(unsigned long long difference)
    {
        const unsigned long long low = difference % (1ULL << 32);
        return std::to_string(low < (1ULL << 31) ? low : low - (1ULL << 32));
    }

    void live(int hours)
    {
        constexpr unsigned long long steps[] = {0, 3000000007ULL, 2000000011ULL};
        unsigned long long counters[] = {0, 0,
                                         0ULL - 40 * steps[2]}; // passes 2^64 within seven hours
        unsigned long long previous[3] = {};
        const int count = hours * 3600 / stepSeconds;
        Cost early;
        for (int step = 0; step < count; step++) {
            const Mode &mode = modes[static_cast<size_t>(step) % std::size(modes)];
            for (size_t port : {1U, 2U}) {
                previous[port] = step == 0 ? 0 : counters[port];
                counters[port] += steps[port];
                board.setPort(static_cast<int>(port), counters[port], counters[port]);
            }
            board.setLaser(std::to_string(-5 - step % 30));
            board.setGpon(step % 4 ? 5 : 1);
            fromNow();
            ip(std::string("-6 addr ") + (step % 2 ? "del" : "add") +
               " 2001:db8::1/64 dev nas0_0 nodad");
            board.writeKeyword(mode.keyword);
            frames = 0;
            snapshots = 0;
            // The first snapshot comes a second after the start, later ones as the clock goes on.
            const int64_t begin = step == 0 ? 1500000 : 500000;
            ASSERT_TRUE(pass(begin));
            ASSERT_TRUE(logs(std::string(step % 2 ? "Removed" : "New") + " IPv6 address"));
            std::string expected;
            for (size_t port : {1U, 2U}) {
                const std::string value = std::to_string(counters[port]);
                const std::string difference = delta(counters[port] - previous[port]);
                expected += "port=lan" + std::to_string(port) + ",in=" + difference +
                            ",out=" + difference + ",counterIn=" + value + ",counterOut=" + value +
                            "\n";
            }
            const std::string snapshot =
                kelo::readFile(board.path("/var/run/kelo-monitord.netinfo"));
            ASSERT_EQ(expected, snapshot.substr(0, expected.size())) << "step " << step;
            ASSERT_TRUE(pass(stepSeconds * 1000000LL - begin));
            ASSERT_EQ(mode.frames, frames) << mode.keyword << ", step " << step;
            ASSERT_EQ(step == 0 ? stepSeconds - 1 : stepSeconds, snapshots) << "step " << step;
            ASSERT_EQ(0, disorder) << "step " << step;
            if (step == 17) // every mode twice
                early = cost();
        }
        const Cost late = cost();
        EXPECT_EQ(early.memoryKiB, late.memoryKiB);
        EXPECT_EQ(early.descriptors, late.descriptors);
        EXPECT_EQ("", early.children);
        EXPECT_EQ("", late.children);
        fromNow();
        ASSERT_TRUE(board.signalDaemon(SIGTERM));
        constexpr int64_t forever = int64_t{1} << 60;
        ASSERT_EQ(ssize_t(sizeof forever), write(go.get(), &forever, sizeof forever));
        EXPECT_TRUE(sees(EventKind::Exit, "status 0"));
    }
};

TEST_F(Days, HalfOfOneLosesNoTickAndCostsNoMore)
{
    live(12);
}

TEST_F(Days, SevenLoseNoTickAndCostNoMore)
{
    live(7 * 24);
}

} // namespace
