/// Every call that can fail, failed: the whole daemon on the fakes and a virtual clock, a start and
/// two minutes of everything it does. Each call of a kind fails at each of its occurrences, one at
/// a time, and then calls of all kinds in random pairs. What the daemon does afterwards is compared
/// with what it does undisturbed: the failure is reported or passed over as documented, only what
/// the call served may differ, and all else goes on.
///
/// A run forks at each call that is to fail. The copy goes on with the failure to the end and
/// judges itself; the original goes on without it.

#include "ipinfo.h"

#include "../unit/datagram.h"
#include "fakes/event_loop.h"
#include "fakes/faults.h"
#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/memory.h"
#include "fakes/netlink.h"
#include "fakes/process.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" int daemon_main(int argc, char **argv);

namespace {

using namespace std::chrono_literals;
using fakes::eventLoop;
using fakes::files;
using fakes::journal;
using fakes::memory;
using fakes::netlink;
using fakes::note;
using fakes::process;
using fakes::vendor;
using ::operator+;

constexpr int netlinkFd = 7;
constexpr int pipeFd = fakes::firstDescriptor;
constexpr char gpioPath[] = "/proc/tc3162/gpio_output";
constexpr char buttonPath[] = "/proc/tc3162/reset_button";
constexpr char pipePath[] = "/var/run/kelo-monitord.display";
constexpr char snapshotPath[] = "/var/run/kelo-monitord.netinfo";

// What the daemon is asked for, by the second.

constexpr int pressAt = 90;
constexpr int releaseAt = 93;
constexpr int endAt = 120;

const std::map<int, const char *> keywords = {
    {5, "reboot\n"},    {8, "restore\n"},      {10, "errora12\n"}, {12, "ledtest\n"},
    {20, "facttest\n"}, {23, "facttesterr\n"}, {26, "none"},       {28, "nonsense\n"},
    {30, "signal\n"},   {50, "locateme\n"},    {100, "restore\n"}, {102, "none\n"},
};

Bytes addressMessage(bool add, uint32_t ifindex, const std::string &text)
{
    const AddressHeader header{.ifindex = ifindex,
                               .family = text.find(':') == std::string::npos ? uint8_t{AF_INET}
                                                                             : uint8_t{AF_INET6}};
    return message(add ? RTM_NEWADDR : RTM_DELADDR,
                   Bytes(header) + attribute(IFA_ADDRESS, address(text)));
}

Bytes routeMessage(bool add, uint32_t ifindex, const std::string &gateway,
                   const std::string &destination = "")
{
    Bytes payload = RouteHeader{.dst_len = destination.empty() ? uint8_t{0} : uint8_t{48}};
    payload = payload + attribute(RTA_GATEWAY, address(gateway)) + attribute(RTA_OIF, ifindex);
    if (!destination.empty())
        payload = payload + attribute(RTA_DST, address(destination));
    return message(add ? RTM_NEWROUTE : RTM_DELROUTE, payload);
}

void announce(int second)
{
    auto &queue = netlink().receptions;
    switch (second) {
    case 2:
        queue.push_back({addressMessage(true, 3, "2001:db8::1")});
        break;
    case 3:
        queue.push_back(
            {addressMessage(true, 5, "2001:db8::2") + addressMessage(true, 7, "2001:db8::3")});
        queue.push_back({addressMessage(true, 9, "192.0.2.1")});
        break;
    case 4:
        queue.push_back({routeMessage(true, 5, "fe80::1")});
        queue.push_back({routeMessage(true, 7, "fe80::2", "2001:db8:f::")});
        break;
    case 48:
        queue.push_back({addressMessage(true, 3, "2001:db8::1")}); // known already
        queue.push_back({addressMessage(false, 5, "2001:db8::2")});
        queue.push_back({routeMessage(false, 5, "fe80::1")});
        break;
    case 84:
        queue.push_back({message(RTM_DELLINK, linkHeader(7))});
        break;
    case 86:
        queue.push_back({addressMessage(true, 5, "2001:db8::9"), MSG_TRUNC});
        queue.push_back({{}, 0, ENOBUFS});
        queue.push_back({message(NLMSG_ERROR, {})});
        break;
    case 105:
        queue.push_back({addressMessage(true, 5, "2001:db8::4")});
        queue.push_back({addressMessage(false, 3, "2001:db8::1")});
        break;
    default:
        break;
    }
}

void turnHardware(int second, bool longHold)
{
    for (size_t port = 1; port <= 7; port++) {
        const auto seconds = static_cast<unsigned long long>(second);
        vendor().ports[port] = {seconds * 1000 * port, (1ULL << 32) - 5000 + seconds * 100 * port};
    }
    if (second == 82)
        vendor().ports[3].reset();
    vendor().gponState = second >= 33 && second < 36 ? 1 : 5;
    vendor().laserResult = second < 40 || second >= 45;
    const bool down = second >= pressAt && (longHold || second < releaseAt);
    files().content[buttonPath] = (down ? std::to_string(second - pressAt + 1) : "0") + "\n";
}

/// Hands over what waits in the pipe and on the socket, as far as anything listens there.
void deliver()
{
    for (;;) {
        if (!files().chunks.empty() && eventLoop().isPending(pipeFd))
            eventLoop().readable(pipeFd);
        else if (!netlink().receptions.empty() && eventLoop().isPending(netlinkFd))
            eventLoop().readable(netlinkFd);
        else
            return;
        eventLoop().runActive();
    }
}

// What is seen of the daemon from outside, in separate strands.

enum Strand : unsigned {
    Leds = 1,
    Display = 2, ///< its log
    Tracker = 4, ///< log, configuration store, omci
    Snapshot = 8,
    Button = 16,
    End = 32,
    Failures = 64, ///< log records that tell of a failure
    All = 63,
};

unsigned strandOf(const std::string &line)
{
    const auto has = [&](const char *text) { return line.find(text) != std::string::npos; };
    const auto begins = [&](const char *text) { return line.starts_with(text); };
    if (begins("stderr")) {
        if (has("Failed") || has("Invalid") || has("Netlink") || has("received len: -1"))
            return Failures;
        return has("[ipinfo.cpp") ? Tracker : has("[input.cpp") ? Button : Display;
    }
    if (begins("write /proc/tc3162"))
        return Leds;
    if (begins("tcapi") || begins("system"))
        return Tracker;
    if (begins("fork"))
        return Button;
    if (begins("snapshot"))
        return Snapshot;
    return begins("exit") || begins("killed") ? End : 0U;
}

struct Seen {
    int second;
    unsigned strand;
    std::string line;

    bool operator==(const Seen &) const = default;
};

using Outcome = std::vector<Seen>;

/// One run of the daemon.
struct DaemonRun {
    explicit DaemonRun(bool hold) : longHold(hold) {}

    bool longHold;
    int second = 0;
    std::vector<std::string> failable; ///< the calls that could have failed, by name
    Outcome outcome;

    void collect()
    {
        for (std::string &line : journal().take()) {
            if (const unsigned strand = strandOf(line))
                outcome.push_back({second, strand, std::move(line)});
        }
    }

    void twoMinutes()
    {
        collect();
        process().forkResult = 4711;
        for (second = 1; second < endAt; second++) {
            turnHardware(second, longHold);
            announce(second);
            if (const auto found = keywords.find(second); found != keywords.end())
                files().chunks.insert(files().chunks.end(), {found->second, ""});
            deliver();
            eventLoop().run(1s);
            note("snapshot %s", files().content[snapshotPath].c_str());
            collect();
        }
        if (!eventLoop().isPending(SIGTERM)) {
            note("killed"); // the default disposition
            throw fakes::Exit{128 + SIGTERM};
        }
        eventLoop().raise(SIGTERM);
    }

    void play()
    {
        netlink().names = {{3, "br0"}, {5, "nas0_0"}, {7, "ppp0"}, {9, "eth0"}};
        netlink().socketResult = netlinkFd;
        files().content[gpioPath] = "";
        files().content[pipePath] = "left from the last time";
        turnHardware(0, false);
        process().forkResult = 0; // it is the child that goes on
        eventLoop().duringDispatch = [this] { twoMinutes(); };
        char name[] = "kelo-monitord";
        char option[] = "-d";
        char *arguments[] = {name, option, nullptr};
        try {
            daemon_main(2, arguments);
        } catch (const fakes::Exit &) {
        }
        collect();
    }
};

// The documented reactions.

constexpr int anyNumber = -1;
constexpr int never = 1000;

struct Reaction {
    const char *call;
    const char *object;   ///< how it begins
    const char *record;   ///< the one log record that tells of it; null for silence
    unsigned strands = 0; ///< what may differ
    int recovers = 0;     ///< seconds after which it does no longer
    int lost = 0;         ///< lines that are not seen
    int gained = 0;       ///< lines that are seen in their stead
};

constexpr char noPipe[] = "Failed to create fifo \"/var/run/kelo-monitord.display\"\n";

// The first that fits counts.
constexpr Reaction reactions[] = {
    // An LED keeps its state until the next tick; without /proc no word is said.
    {"fopen", gpioPath, nullptr, Leds, 1, 1},
    {"fwrite", gpioPath, nullptr, Leds, 1, 1},
    {"open", pipePath, "Failed to open socket \"/var/run/kelo-monitord.display\"\n", Display | Leds,
     never, anyNumber, anyNumber},
    // The pipe is opened again and what waits in it read then.
    {"read", pipePath, "received len: -1\n", Display, 1, 0, 1},
    {"close", "", nullptr},
    {"unlink", pipePath, noPipe, Display | Leds, never, anyNumber, anyNumber},
    {"mkfifo", pipePath, noPipe, Display | Leds, never, anyNumber, anyNumber},
    // The old snapshot stays, and the next one shows the difference over the gap.
    {"fopen", snapshotPath, "Failed to open file /var/run/kelo-monitord.netinfo.tmp\n", Snapshot, 3,
     anyNumber, anyNumber},
    {"fwrite", snapshotPath, nullptr, Snapshot, 1, 1, 1},
    {"rename", snapshotPath, nullptr, Snapshot, 1, 1, 1},
    {"fclose", "", nullptr},
    {"syscfg_getPortBytes", "", nullptr, Snapshot, 3, anyNumber, anyNumber},
    {"syscfg_getGponState", "", nullptr, Leds, 1, anyNumber, anyNumber},
    // Until the next reading, which waits while another mode is shown.
    {"syscfg_getLaserInfo", "", nullptr, Leds, 60, anyNumber, anyNumber},
    {"tcapiSet", "", nullptr, Tracker, 1, 1},
    {"tcapiSetUint32", "", nullptr, Tracker, 1, 1},
    {"system", "", nullptr, Tracker, 1, 1},
    {"socket", "", "Failed to open netlink socket", Tracker, never, anyNumber},
    {"setsockopt", "", "Failed to set netlink socket options", Tracker, never, anyNumber},
    {"bind", "", "Failed to bind netlink socket", Tracker, never, anyNumber},
    // The datagram waits for the next call.
    {"getsockname", "", "Failed to get netlink addr"},
    {"recvmsg", "", "Failed to receive netlink msg (-1)"},
    // A record without a name, or none at all, and its removal then goes unnoticed.
    {"if_indextoname", "", nullptr, Tracker, never, anyNumber, anyNumber},
    {"calloc", "", "Failed to allocate memory", Tracker, never, anyNumber, anyNumber},
    {"fork", "", nullptr, Button, 1, 1},
    {"fputs", "", nullptr, All | Failures, 1, 1},
    {"event_add", "fd=15", nullptr, End, never, anyNumber, anyNumber},
    {"event_add", "fd=1000", nullptr, Display | Leds, never, anyNumber, anyNumber},
    {"event_add", "fd=7", nullptr, Tracker, never, anyNumber},
    {"event_add", "fd=-1 every 1000000us", nullptr, Snapshot, never, anyNumber, anyNumber},
    // The mode's first tick comes all the same, and the next mode as ever, but for the phases that
    // this one has not gone on to.
    {"event_add", "fd=-1 every 250000us", nullptr, Leds | Display, 50, anyNumber, anyNumber},
    {"event_add", "fd=-1", nullptr, Leds, 30, anyNumber, anyNumber},
    {"event_add", "fd=", nullptr},
};

/// A call that was made to fail.
struct Failure {
    std::string call;
    std::string object;
    int second;
    int occurrence; ///< of this call on this object, from 1
    bool started;   ///< the event loop runs already
};

bool detaches(const Failure &failure)
{
    return !failure.started &&
           (failure.call == "fork" || failure.call == "setsid" || failure.call == "chdir");
}

Reaction reactionTo(const Failure &failure, bool longHold)
{
    // A button that cannot be read counts as let go.
    if (failure.object == buttonPath && failure.call != "fclose") {
        const bool held = failure.second >= pressAt && failure.second < (longHold ? 95 : releaseAt);
        if (!held)
            return {"", "", nullptr};
        return {"", "", nullptr, Button | Display | Leds, never, anyNumber, anyNumber};
    }
    // The second timer of a second is the button's.
    if (failure.call == "event_add" && failure.object == "fd=-1 every 1000000us" &&
        failure.occurrence == 2)
        return {"", "", nullptr, Button | Display | Leds, never, anyNumber, anyNumber};
    for (const Reaction &reaction : reactions) {
        if (failure.call == reaction.call && failure.object.starts_with(reaction.object))
            return reaction;
    }
    ADD_FAILURE() << "no reaction is known to a failed " << failure.call << " " << failure.object;
    return {};
}

Outcome only(const Outcome &outcome, unsigned strands, int from = 0)
{
    Outcome chosen;
    for (const Seen &seen : outcome) {
        if ((seen.strand & strands) && seen.second >= from)
            chosen.push_back(seen);
    }
    return chosen;
}

/// How many lines of one outcome the other does not have.
int missing(const Outcome &outcome, const Outcome &from)
{
    std::map<std::pair<int, std::string>, int> counts;
    for (const Seen &seen : from)
        counts[{seen.second, seen.line}]++;
    int result = 0;
    for (const Seen &seen : outcome)
        result += counts[{seen.second, seen.line}]-- <= 0;
    return result;
}

/// Where two outcomes part.
std::string parting(const Outcome &expected, const Outcome &actual)
{
    const auto text = [](const Outcome &outcome, auto position) {
        return position == outcome.end()
                   ? std::string("nothing more")
                   : std::to_string(position->second) + " s: " + position->line;
    };
    const auto [left, right] =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    return "expected " + text(expected, left) + "\n  seen     " + text(actual, right);
}

void forgetPhases(Outcome &outcome)
{
    for (Seen &seen : outcome) {
        if (seen.strand == Leds)
            seen.line.resize(seen.line.rfind(' '));
    }
}

class Judge {
public:
    Judge(const DaemonRun &run, const Outcome &undisturbed) : run_(run), undisturbed_(undisturbed)
    {
    }

    /// What holds whatever fails: nothing leaks, and all that no failure touches goes on.
    void judgeAlways(const std::vector<Failure> &failures)
    {
        size_t records = 0;
        for (const ipaddr_entry *entry = ipList.lh_first; entry; entry = entry->entries.le_next)
            records++;
        for (const route_entry *entry = routeList.lh_first; entry; entry = entry->entries.le_next)
            records++;
        expect(memory().live.size() == records, "a record leaked");
        if (std::any_of(failures.begin(), failures.end(), detaches))
            return;
        unsigned touched = Failures;
        size_t pipes = 1;
        for (const Failure &failure : failures) {
            touched |= reactionTo(failure, run_.longHold).strands;
            if (failure.object == pipePath &&
                (failure.call == "open" || failure.call == "mkfifo" || failure.call == "unlink"))
                pipes = 0;
        }
        expect(files().openCount == pipes, "a descriptor or stream was left open");
        const Outcome expected = only(undisturbed_, All & ~touched);
        const Outcome actual = only(run_.outcome, All & ~touched);
        if (expected != actual)
            complain("something else was disturbed: " + parting(expected, actual));
    }

    void judgeOne(const Failure &failure)
    {
        if (detaches(failure)) {
            Outcome expected{undisturbed_[0]}; // the announcement
            if (failure.call != "fork")
                expected.push_back(undisturbed_[1]);
            expected.push_back({0, End, "exit 1"});
            expect(run_.outcome == expected, "it did not just end with status 1");
            return;
        }
        const Reaction reaction = reactionTo(failure, run_.longHold);
        judgeRecords(reaction);
        const unsigned strands = reaction.strands & ~(reaction.record ? unsigned{Failures} : 0U);
        const Outcome expected = only(undisturbed_, strands);
        const Outcome actual = only(run_.outcome, strands);
        const int lost = missing(expected, actual);
        const int gained = missing(actual, expected);
        if (reaction.lost != anyNumber)
            expect(lost == reaction.lost, std::to_string(lost) + " lines were lost");
        if (reaction.gained != anyNumber)
            expect(gained == reaction.gained, std::to_string(gained) + " lines were gained");
        const int recovered = failure.second + reaction.recovers;
        Outcome expectedLater = only(undisturbed_, strands, recovered);
        Outcome actualLater = only(run_.outcome, strands, recovered);
        if (failure.call == "event_add") {
            forgetPhases(expectedLater);
            forgetPhases(actualLater);
        }
        if (expectedLater != actualLater)
            complain("it did not recover: " + parting(expectedLater, actualLater));
    }

    const std::string &complaints() const { return complaints_; }

private:
    void judgeRecords(const Reaction &reaction)
    {
        if (reaction.strands & Failures)
            return;
        Outcome records = only(run_.outcome, Failures);
        for (const Seen &usual : only(undisturbed_, Failures)) {
            const auto found = std::find(records.begin(), records.end(), usual);
            if (found == records.end())
                continue; // of a strand that differs, or the next check tells
            records.erase(found);
        }
        if (!reaction.record) {
            expect(records.empty(), "it was not silent");
            return;
        }
        const std::string begin = std::string("stderr kelo-monitord: ") + reaction.record;
        expect(records.size() == 1 && records[0].line.starts_with(begin),
               std::to_string(records.size()) + " records tell of it, not just " + reaction.record);
    }

    void expect(bool condition, const std::string &what)
    {
        if (!condition)
            complain(what);
    }

    void complain(const std::string &what) { complaints_ += "\n  " + what; }

    const DaemonRun &run_;
    const Outcome &undisturbed_;
    std::string complaints_;
};

/// Plays the undisturbed run in a copy of this process and brings its outcome back.
DaemonRun undisturbed(bool longHold)
{
    constexpr size_t room = 16 << 20;
    void *const shared =
        mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (fork() == 0) {
        DaemonRun run(longHold);
        fakes::chooseFailure() = [&](const std::string &call, const std::string &) {
            run.failable.push_back(call);
            return false;
        };
        run.play();
        auto *position = static_cast<char *>(shared);
        const auto put = [&](const std::string &text) {
            memcpy(position, text.c_str(), text.size() + 1);
            position += text.size() + 1;
        };
        for (const std::string &call : run.failable)
            put(call);
        put("");
        for (const Seen &seen : run.outcome) {
            put(std::to_string(seen.second) + ' ' + std::to_string(seen.strand));
            put(seen.line);
        }
        _exit(run.outcome.back().line == "exit 0" ? 0 : 1);
    }
    int status = -1;
    wait(&status);
    EXPECT_EQ(0, status);
    DaemonRun run(longHold);
    const auto *position = static_cast<const char *>(shared);
    const auto get = [&] {
        const std::string text = position;
        position += text.size() + 1;
        return text;
    };
    for (std::string call = get(); !call.empty(); call = get())
        run.failable.push_back(call);
    Seen seen;
    while (sscanf(get().c_str(), "%d %u", &seen.second, &seen.strand) == 2) {
        seen.line = get();
        run.outcome.push_back(seen);
    }
    munmap(shared, room);
    return run;
}

/// Waits for a copy and counts it as failed unless it ended well.
void await(pid_t copy, const std::string &what)
{
    int status = -1;
    waitpid(copy, &status, 0);
    EXPECT_EQ(0, status) << what << ": the run failed or crashed (wait status " << status << ")";
}

std::string describe(const Failure &failure)
{
    return failure.call + " " + failure.object + ", occurrence " +
           std::to_string(failure.occurrence) + ", at " + std::to_string(failure.second) + " s";
}

[[noreturn]] void conclude(const Judge &judge, const std::vector<Failure> &failures)
{
    if (judge.complaints().empty())
        _exit(0);
    std::string what;
    for (const Failure &failure : failures)
        what += (what.empty() ? "failed " : "\n   and ") + describe(failure);
    fprintf(stderr, "%s%s\n", what.c_str(), judge.complaints().c_str());
    _exit(1);
}

// With a sanitizer, where a copy is dear, every seventh of the calls that come again and again has
// to do: each LED comes round, in every phase of a pattern.
#ifdef __SANITIZE_ADDRESS__
constexpr int stride = 7;
constexpr int pairs = 150;
#else
constexpr int stride = 1;
constexpr int pairs = 400;
#endif

bool passedOver(const Failure &failure)
{
    constexpr int firstOnes = 20;
    const bool pressed = failure.second >= pressAt && failure.second <= releaseAt + 2;
    return failure.occurrence > firstOnes && failure.occurrence % stride != 0 &&
           !(pressed && failure.object != gpioPath);
}

/// Fails the calls of a kind in turn, from a second on. Returns how many there were.
int failInTurn(const std::string &call, bool longHold, int from)
{
    const Outcome expected = undisturbed(longHold).outcome;
    DaemonRun run(longHold);
    int copies = 0;
    bool inCopy = false;
    std::vector<Failure> failures;
    std::map<std::string, int> occurrences;
    fakes::chooseFailure() = [&](const std::string &name, const std::string &object) {
        if (inCopy || name != call)
            return false;
        const Failure failure{name, object, run.second, ++occurrences[object], run.second > 0};
        if (run.second < from || passedOver(failure))
            return false;
        fflush(nullptr);
        const pid_t copy = fork();
        inCopy = copy == 0;
        if (inCopy) {
            alarm(60);
            failures = {failure};
            return true;
        }
        copies++;
        await(copy, describe(failure));
        return false;
    };
    run.play();
    if (inCopy) {
        Judge judge(run, expected);
        judge.judgeAlways(failures);
        judge.judgeOne(failures[0]);
        conclude(judge, failures);
    }
    EXPECT_EQ(expected, run.outcome);
    return copies;
}

class EveryCall : public testing::TestWithParam<const char *> {};

TEST_P(EveryCall, FailsInTurnAndAllElseGoesOn)
{
    EXPECT_GT(failInTurn(GetParam(), false, 0), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, EveryCall,
                         testing::Values("open", "read", "close", "rename", "mkfifo", "unlink",
                                         "fopen", "fread", "fwrite", "fclose", "fork", "setsid",
                                         "chdir", "socket", "setsockopt", "bind", "recvmsg",
                                         "getsockname", "if_indextoname", "calloc", "event_add",
                                         "fputs", "system", "syscfg_getGponState",
                                         "syscfg_getLaserInfo", "syscfg_getPortBytes", "tcapiSet",
                                         "tcapiSetUint32"),
                         [](const auto &test) { return std::string(test.param); });

class EveryCallOfALongHold : public testing::TestWithParam<const char *> {};

TEST_P(EveryCallOfALongHold, FailsInTurnAndAllElseGoesOn)
{
    EXPECT_GT(failInTurn(GetParam(), true, pressAt), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, EveryCallOfALongHold,
                         testing::Values("fopen", "fread", "fwrite", "fclose", "fork", "event_add",
                                         "fputs"),
                         [](const auto &test) { return std::string(test.param); });

TEST(RandomPairs, OfFailuresLeaveAllElseGoing)
{
    const DaemonRun expected = undisturbed(false);
    // By kind first: the calls that are made seldom matter as much as those of every tick.
    std::map<std::string, std::vector<size_t>> ordinals;
    for (size_t i = 0; i < expected.failable.size(); i++)
        ordinals[expected.failable[i]].push_back(i);
    std::mt19937 random(20240229);
    const auto pick = [&](const auto &from) {
        auto position = from.begin();
        std::advance(position, random() % from.size());
        return *position;
    };
    for (int i = 0; i < pairs; i++) {
        const size_t first = pick(pick(ordinals).second);
        const size_t second = pick(pick(ordinals).second);
        fflush(nullptr);
        const pid_t copy = fork();
        if (copy != 0) {
            await(copy, "calls " + std::to_string(first) + " and " + std::to_string(second));
            continue;
        }
        alarm(60);
        DaemonRun run(false);
        std::vector<Failure> failures;
        std::map<std::string, int> occurrences;
        size_t ordinal = 0;
        fakes::chooseFailure() = [&](const std::string &call, const std::string &object) {
            const Failure failure{call, object, run.second, ++occurrences[call + ' ' + object],
                                  run.second > 0};
            const bool fails = ordinal == first || ordinal == second;
            ordinal++;
            if (fails)
                failures.push_back(failure);
            return fails;
        };
        run.play();
        Judge judge(run, expected.outcome);
        judge.judgeAlways(failures);
        conclude(judge, failures);
    }
}

} // namespace
