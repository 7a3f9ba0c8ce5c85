/// What is finite, tried whole: every float, every value of a tick counter, every command of two
/// bytes, every length of a log record; and of the port counters every pair of values at an edge.

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

// The modules whole: their counters are within reach, and what they call can be inlined. Records
// and LED writes come here instead of leaving the process.
namespace {

std::string record;
unsigned panel; // the flags last written, GPIO 6, 7, 8, 2, 3 and 4 from left to right
uint64_t ledWrites;

int keepRecord(const char *text, FILE *)
{
    record = text;
    return 0;
}

int showLed(unsigned gpio, unsigned on)
{
    constexpr unsigned order[] = {6, 7, 8, 2, 3, 4};
    if (gpio != order[ledWrites++ % 6] || on > 1)
        abort();
    panel = (panel << 1 | on) & 0b111111;
    return 0;
}

} // namespace

// NOLINTBEGIN(bugprone-suspicious-include)
#include "platform.cpp"

#define platform_ledSet showLed
#include "display.cpp"
#undef platform_ledSet

#define main daemonMain
#define fputs keepRecord
#include "kelo-monitord.cpp"
#undef fputs
#undef main

#include "netinfo.cpp"
// NOLINTEND(bugprone-suspicious-include)

namespace {

bool gponUp = true;
unsigned readings;
float nextReading = -20.0F;
unsigned long long portIn;
unsigned long long portOut;

} // namespace

extern "C" {

int syscfg_getGponState()
{
    return gponUp ? 5 : 1;
}

int syscfg_getLaserInfo(float *power, void *, void *, void *, void *)
{
    readings++;
    *power = nextReading;
    return 1;
}

int syscfg_getPortBytes(int, unsigned long long *in, unsigned long long *out)
{
    *in = portIn;
    *out = portOut;
    return 1;
}

// Never called here.
int tcapiSet(const char *, const char *, const char *)
{
    abort();
}

int tcapiSetUint32(const char *, const char *, unsigned)
{
    abort();
}

void ipinfo_register() {}

int input_register()
{
    return 0;
}
}

namespace {

constexpr uint64_t all32 = 1ULL << 32;

/// The documented level of a power, from the bits of the float alone.
int levelOf(uint32_t bits)
{
    constexpr uint32_t infinity = 0x7f800000;
    const uint32_t magnitude = bits & 0x7fffffff;
    const bool negative = bits != magnitude;
    if (magnitude > infinity)
        return 0;                             // not a number
    if (!negative || magnitude <= 0x41000000) // -8
        return 4;
    if (magnitude <= 0x41300000) // -11
        return 3;
    if (magnitude <= 0x41c80000) // -25
        return 2;
    return magnitude <= 0x41e00000 ? 1 : 0; // -28
}

TEST(Exhaustive, EveryPowerHasItsLevel)
{
    for (uint64_t bits = 0; bits < all32; bits++) {
        const auto power = std::bit_cast<float>(static_cast<uint32_t>(bits));
        if (platform_getLaserRxPowerLevel(power) != levelOf(static_cast<uint32_t>(bits)))
            FAIL() << std::hex << bits << ", " << power << " dBm";
    }
}

TEST(Exhaustive, EveryPowerHasItsBar)
{
    constexpr unsigned bars[] = {0b000100, 0b100000, 0b110000, 0b111000, 0b110001};
    constexpr unsigned noSignal = 0b000111;
    for (uint64_t bits = 0; bits < all32; bits++) {
        const auto magnitude = static_cast<uint32_t>(bits & 0x7fffffff);
        // -40 and everything below, to minus infinity; and both zeros.
        const bool dark = (bits >> 31 != 0 && magnitude >= 0x42200000 && magnitude <= 0x7f800000) ||
                          magnitude == 0;
        rxPower = std::bit_cast<float>(static_cast<uint32_t>(bits));
        signalCount = 1; // no reading at this tick
        signalTick(-1, 0, nullptr);
        if (panel != (dark ? noSignal : bars[levelOf(static_cast<uint32_t>(bits))]))
            FAIL() << std::hex << bits << ", " << rxPower << " dBm shows " << panel;
    }
    EXPECT_EQ(readings, 0U);
}

/// Runs a tick handler once at every value of its counter, and on from each value to the next.
/// Only multiples of the number of phases draw anything below 0.
void tryEveryCount(int32_t &counter, event_callback_fn tick, uintptr_t argument,
                   const std::vector<unsigned> &phases)
{
    const auto mask = static_cast<int64_t>(phases.size() - 1); // 1 or 3
    counter = INT_MIN;
    for (int64_t count = INT_MIN; count <= INT_MAX; count++) {
        const auto phase = static_cast<size_t>(count & mask);
        const bool drawn = count >= 0 || phase == 0;
        const uint64_t before = ledWrites;
        tick(-1, 0, reinterpret_cast<void *>(argument));
        if (ledWrites - before != (drawn ? 6U : 0U) || (drawn && panel != phases[phase]))
            FAIL() << "at " << count;
        if (counter != (count == INT_MAX ? INT_MIN : static_cast<int32_t>(count + 1)))
            FAIL() << count << " is followed by " << counter;
    }
}

TEST(Exhaustive, EveryCountOfReboot)
{
    tryEveryCount(rebootCount, rebootTick, 0, {0b000111, 0b000000});
}

TEST(Exhaustive, EveryCountOfRestore)
{
    tryEveryCount(restoreCount, restoreTick, 0, {0b000100, 0b000110, 0b000111, 0b000000});
}

TEST(Exhaustive, EveryCountOfLedTest)
{
    tryEveryCount(ledTestCount, ledTestTick, 0, {0b111111, 0b000000});
}

TEST(Exhaustive, EveryCountOfFactTest)
{
    tryEveryCount(factTestCount, factTestTick, 0, {0b001000, 0b010000, 0b100000, 0b010000});
}

TEST(Exhaustive, EveryCountOfFactTestErr)
{
    tryEveryCount(factTestCount, factTestTick, 1, {0b001110, 0b010101, 0b100011, 0b010101});
}

TEST(Exhaustive, EveryCountOfLocateMe)
{
    constexpr unsigned phases[] = {0b111000, 0b000000, 0b000111, 0b000000};
    currentMode = Signal; // the end is then no switch, which would take its time
    for (int64_t count = INT_MIN; count <= INT_MAX; count++) {
        const auto phase = static_cast<size_t>(count & 3);
        const bool drawn = count >= 0 || phase == 0;
        const uint64_t before = ledWrites;
        locateCount = static_cast<int32_t>(count);
        locateTick(-1, 0, nullptr);
        if (ledWrites - before != (drawn ? 6U : 0U) || (drawn && panel != phases[phase]))
            FAIL() << "at " << count;
        const int64_t next = count == INT_MAX ? INT_MIN : count + 1;
        if (locateCount != (next < 120 ? next : 0))
            FAIL() << count << " is followed by " << locateCount;
    }
}

TEST(Exhaustive, LocateMeIsLeftFrom120TicksOn)
{
    event_init();
    for (int64_t count = -1000; count < 1000000; count++) {
        currentMode = LocateMe;
        locateCount = static_cast<int32_t>(count);
        locateTick(-1, 0, nullptr);
        if (currentMode != (count + 1 < 120 ? LocateMe : Signal))
            FAIL() << "at " << count;
    }
}

TEST(Exhaustive, EveryCountOfSignal)
{
    constexpr unsigned bar = 0b111000;
    constexpr unsigned linkDown = 0b010101;
    nextReading = -9.0F;
    gponUp = false;
    rxPower = nextReading;
    signalCount = INT_MIN;
    int64_t reading = -2147483646; // the lowest multiple of 6
    for (int64_t count = INT_MIN; count <= INT_MAX; count++) {
        const unsigned before = readings;
        signalTick(-1, 0, nullptr);
        if (panel != ((count & 1) == 0 ? linkDown : bar))
            FAIL() << "at " << count;
        if (readings - before != (count == reading ? 1U : 0U))
            FAIL() << "reads, or not, at " << count;
        if (count == reading)
            reading += 6;
        if (signalCount != (count == INT_MAX ? INT_MIN : count + 1))
            FAIL() << count << " is followed by " << signalCount;
    }
}

struct Command {
    std::string keyword;
    int mode;
};

const std::array<Command, 9> commands = {{
    {"none", 0},
    {"signal", 1},
    {"reboot", 2},
    {"restore", 3},
    {"errora12", 4},
    {"locateme", 5},
    {"ledtest", 6},
    {"facttesterr", 8},
    {"facttest", 7},
}};

constexpr int noMode = -1;

int modeOf(const std::string &text)
{
    for (const Command &command : commands) {
        if (text.starts_with(command.keyword))
            return command.mode;
    }
    return noMode;
}

/// Every command of one and two bytes, alone and behind every beginning of every keyword.
TEST(Exhaustive, EveryCommandWithinTwoBytesOfAKeyword)
{
    event_init();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto give = [&](const std::string &text) {
        currentMode = noMode;
        ASSERT_EQ(write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
        readDisplayMode(ends[0], EV_READ, nullptr);
        ASSERT_EQ(currentMode, modeOf(text)) << text;
    };
    for (const Command &command : commands) {
        for (size_t length = 0; length <= command.keyword.size(); length++) {
            std::string text = command.keyword.substr(0, length);
            for (unsigned first = 0; first < 256; first++) {
                text.resize(length);
                text += static_cast<char>(first);
                give(text);
                text += ' ';
                for (unsigned second = 0; second < 256; second++) {
                    text.back() = static_cast<char>(second);
                    give(text);
                    if (HasFatalFailure())
                        return;
                }
            }
        }
    }
}

/// The difference of two counters as the snapshot shows it.
uint64_t shownDelta(uint64_t current, uint64_t previous)
{
    const uint64_t low = (current % all32 + all32 - previous % all32) % all32;
    return low < all32 / 2 ? low : low - all32; // from 2^31 on: close to 2^64
}

TEST(Exhaustive, EveryPairOfLowWordsAtTheEdges)
{
    std::vector<uint32_t> edges;
    for (uint64_t middle = 0; middle < all32; middle += 1 << 20) {
        for (const int offset : {-1, 0, 1})
            edges.push_back(static_cast<uint32_t>(middle) + static_cast<uint32_t>(offset));
    }
    for (const uint64_t previous : edges) {
        for (const uint64_t current : edges) {
            // What stands above the low words does not count.
            const uint64_t wholePrevious = previous | current << 33;
            const uint64_t wholeCurrent = current | previous << 34;
            if (widen(counterDelta(wholeCurrent, wholePrevious)) != shownDelta(current, previous))
                FAIL() << wholePrevious << " to " << wholeCurrent;
        }
    }
}

TEST(Exhaustive, EveryPairOfCountersAtAPowerOfTwo)
{
    std::vector<uint64_t> edges;
    for (int bit = 0; bit < 64; bit++) {
        for (const uint64_t offset : {~0ULL, 0ULL, 1ULL})
            edges.push_back((1ULL << bit) + offset);
    }
    for (const uint64_t previous : edges) {
        for (const uint64_t current : edges) {
            // There and back: what goes out runs the other way.
            lastBytesIn[7] = portOut = previous;
            lastBytesOut[7] = portIn = current;
            char line[256] = {};
            FILE *const file = fmemopen(line, sizeof line, "w");
            dumpPort(file, "wifi5", 7);
            fclose(file);
            ASSERT_EQ(line, "port=wifi5,in=" + std::to_string(shownDelta(current, previous)) +
                                ",out=" + std::to_string(shownDelta(portOut, portIn)) +
                                ",counterIn=" + std::to_string(current) +
                                ",counterOut=" + std::to_string(previous) + "\n");
            ASSERT_EQ(lastBytesIn[7], current);
            ASSERT_EQ(lastBytesOut[7], previous);
        }
    }
}

/// The record of a message and a suffix, row by row of the documented table.
std::string recordOf(const std::string &message, const std::string &suffix)
{
    const std::string text = "kelo-monitord: " + message;
    const size_t position = text.size() % 256;
    if (position < 128)
        return text.substr(0, position) + suffix.substr(0, 1023 - position);
    const size_t before = 256 - position;
    return suffix.size() < before ? text.substr(0, 1023) : suffix.substr(before, 1023);
}

TEST(Exhaustive, EveryLengthOfMessageAndSuffix)
{
    const auto textOf = [](size_t length) {
        std::string text(length, ' ');
        for (size_t i = 0; i < length; i++)
            text[i] = static_cast<char>('0' + i % 79);
        return text;
    };
    for (size_t length = 0; length <= 1200; length++) {
        const std::string message = textOf(length);
        for (size_t fileLength = 0; fileLength <= 1200; fileLength++) {
            const std::string file = textOf(fileLength);
            kelo_log(file.c_str(), 7, "f", "%s", message.c_str());
            if (record != recordOf(message, " [" + file + ":7 f]\n"))
                FAIL() << "message of " << length << ", file name of " << fileLength;
        }
    }
}

} // namespace
