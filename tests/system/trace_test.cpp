// The record against the daemon's own system calls, as strace(1) sees them: every event, in their
// order, and how far its time is from the call's. KELO_SECONDS says for how long.

#include "board_test.h"
#include "device.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

/// One thing that the daemon let out.
struct Let {
    std::string what;
    double time;    ///< seconds of the monotonic clock
    double end = 0; ///< of the call that did it
};

double secondsOf(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// What an argument of strace -xx is: "\x61\x62".
std::string textOf(const std::string &line, size_t from)
{
    std::string result;
    for (size_t at = line.find('"', from) + 1; line.compare(at, 2, "\\x") == 0; at += 4)
        result += static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16));
    return result;
}

std::string firstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

class Trace : public BoardTest {
protected:
    const std::string file =
        std::filesystem::temp_directory_path() / ("kelo-trace-" + std::to_string(getpid()));
    pid_t strace = -1;
    double offset = 0; ///< from the time of day to the monotonic clock

    void SetUp() override
    {
        NEEDS(Files);
        start();
        strace = kelo::spawnApart({"strace", "-f", "-ttt", "-T", "-xx", "-s", "4096", "-e",
                                   "trace=write,rename,renameat,renameat2", "-o", file, "-p",
                                   std::to_string(board.daemon().value())},
                                  {-1, -1, -1, -1});
        const auto end = kelo::Clock::now() + deadline;
        while (!std::filesystem::exists(file) || std::filesystem::file_size(file) == 0) {
            board.turn(10ms);
            ASSERT_LT(kelo::Clock::now(), end) << "strace does not start";
        }
        offset = secondsOf(CLOCK_MONOTONIC) - secondsOf(CLOCK_REALTIME);
    }

    void TearDown() override
    {
        if (strace > 0) {
            kill(strace, SIGTERM);
            kelo::waitFor(strace);
        }
        std::filesystem::remove(file);
        BoardTest::TearDown();
    }

    std::vector<Let> traced()
    {
        std::ifstream lines(file);
        std::vector<Let> result;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            int pid;
            double time;
            std::string call;
            if (!(words >> pid >> time >> call))
                continue;
            time += offset;
            const size_t took = line.rfind('<');
            const double end =
                time + (took == std::string::npos ? 0 : atof(line.c_str() + took + 1));
            if (call.starts_with("rename")) {
                if (textOf(line, line.find(", \"")) == kelo::device::snapshotPath)
                    result.push_back({"snapshot", time, end});
                continue;
            }
            if (!call.starts_with("write("))
                continue;
            const std::string text = textOf(line, 0);
            if (text.starts_with("active "))
                // A frame ends with the last LED.
                text.starts_with("active 4 ") ? result.push_back({"leds", time, end}) : void();
            else if (text.starts_with(kelo::device::noteMark))
                result.push_back({firstLine(text.substr(1)), time, end});
            else if (text.starts_with("kelo-monitord: "))
                result.push_back({firstLine(text), time, end});
        }
        return result;
    }

    std::vector<Let> recorded()
    {
        std::vector<Let> result;
        for (const Event &event : board.events(from)) {
            const double time =
                std::chrono::duration<double>(event.time.time_since_epoch()).count();
            switch (event.kind) {
            case EventKind::Leds:
            case EventKind::Snapshot:
                result.push_back({kindName(event.kind), time});
                break;
            case EventKind::Log:
            case EventKind::Call:
                result.push_back({firstLine(event.text), time});
                break;
            case EventKind::Store:
                result.push_back(
                    {(event.text.find('"') == std::string::npos ? "tcapiSetUint32 " : "tcapiSet ") +
                         event.text,
                     time});
                break;
            case EventKind::Omci:
                result.push_back({"omci " + event.text, time});
                break;
            default:
                break;
            }
        }
        return result;
    }

    static size_t placeOf(const std::vector<Let> &all, const std::string &text)
    {
        const auto found = std::find_if(all.begin(), all.end(), [&](const Let &one) {
            return one.what.find(text) != std::string::npos;
        });
        EXPECT_NE(all.end(), found) << text;
        return static_cast<size_t>(found - all.begin());
    }
};

TEST_F(Trace, RecordHasEveryEventInTheOrderOfTheCallsAndAtTheirTime)
{
    if (testing::Test::IsSkipped())
        return;
    const char *const given = getenv("KELO_SECONDS");
    const auto length = std::chrono::seconds(given ? atoi(given) : 5);
    send("begin");
    const auto begin = kelo::Clock::now();
    constexpr const char *keywords[] = {"restore", "locateme", "facttest", "signal"};
    for (unsigned i = 0; kelo::Clock::now() - begin < length; i++) {
        const std::string number = std::to_string(i % 200 + 1);
        const std::string verb = i % 2 ? "del" : "add";
        const std::string address = std::to_string((i / 2) % 200 + 1);
        board.setLaser(std::to_string(-5 - static_cast<int>(i % 30)));
        board.setPort(1 + static_cast<int>(i % 7), i * 1000ULL, i);
        ip("-6 addr " + verb + " 2001:db8::" + address + "/64 dev nas0_0 nodad");
        ip("-6 route " + verb + " 2001:db8:" + address + "::/48 via fe80::1 dev br0");
        if (i % 4 == 0)
            board.writeKeyword(keywords[i / 4 % std::size(keywords)]);
        if (i % 16 == 8)
            ip("link add ppp9 type veth peer name ppp9_end; ip link set ppp9 up; "
               "ip -6 addr add 2001:db8:9::1/64 dev ppp9 nodad; ip link del ppp9");
        board.turn(50ms);
    }
    board.setButton(1);
    ASSERT_TRUE(sees(EventKind::Mode, "2"));
    board.setButton(0);
    ASSERT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
    const size_t start = from;
    send("end");
    from = start;
    board.turn(200ms);
    board.mark();
    kill(strace, SIGTERM);
    kelo::waitFor(strace);
    strace = -1;

    std::vector<Let> calls = traced();
    std::vector<Let> record = recorded();
    const auto cut = [](std::vector<Let> &all) {
        const size_t first = placeOf(all, "received \"begin\"");
        const size_t last = placeOf(all, "received \"end\"");
        ASSERT_LT(last, all.size());
        all.erase(all.begin() + static_cast<ptrdiff_t>(last), all.end());
        all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(first));
    };
    cut(calls);
    cut(record);
    // A child reboots beside the daemon, in no order.
    const auto isReboot = [](const Let &let) { return let.what == "syscfg_reboot"; };
    EXPECT_EQ(1U, std::erase_if(calls, isReboot));
    EXPECT_EQ(1U, std::erase_if(record, isReboot));
    for (size_t i = 0; i < std::min(calls.size(), record.size()); i++)
        ASSERT_EQ(calls[i].what, record[i].what) << "event " << i << " of " << calls.size();
    ASSERT_EQ(calls.size(), record.size());
    ASSERT_GT(calls.size(), 100U);

    std::vector<double> late;
    for (size_t i = 0; i < calls.size(); i++)
        late.push_back(
            std::max({calls[i].time - record[i].time, record[i].time - calls[i].end, 0.0}) * 1e3);
    std::sort(late.begin(), late.end());
    const double most = late[late.size() * 99 / 100];
    printf("%zu events, half within %.3f ms, 99 of 100 within %.3f ms, all within %.3f ms\n",
           late.size(), late[late.size() / 2], most, late.back());
    // Only root's agent runs at once on a busy machine.
    if (geteuid() == 0) {
        EXPECT_LE(most, 2.0);
    }
}

} // namespace
