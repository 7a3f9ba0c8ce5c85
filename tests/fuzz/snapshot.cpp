/// The counter snapshot: any counters, ports that cannot be read, files that cannot be opened.

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fuzz.h"
#include "netinfo.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>

using fuzz::did;
using fuzz::due;
using Counter = unsigned long long;

namespace {

struct Reading {
    Counter in;
    Counter out;
};

constexpr const char *names[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
constexpr size_t ports = 7;

std::array<std::optional<Reading>, ports> readings;
bool openFails;
bool writeFails;
int renameResult;

ssize_t write(void *, const char *bytes, size_t size)
{
    did("write");
    fuzz::done().append(bytes, size);
    return writeFails ? 0 : static_cast<ssize_t>(size);
}

int close(void *)
{
    did("close");
    return writeFails ? EOF : 0;
}

/// The difference in the documented form: low words, signed, widened.
Counter delta(Counter current, Counter previous)
{
    const Counter low = (current - previous) % (1ULL << 32);
    return low < (1ULL << 31) ? low : low - (1ULL << 32);
}

void expectSnapshot(std::array<Reading, ports> &previous)
{
    due("open /var/run/kelo-monitord.netinfo.tmp w");
    if (openFails) {
        due("log dumpNetwork: Failed to open file /var/run/kelo-monitord.netinfo.tmp\n");
        return;
    }
    std::string lines;
    for (size_t i = 0; i < ports; i++) {
        due("port %d", static_cast<int>(i + 1));
        if (!readings[i])
            continue;
        const Reading &now = *readings[i];
        lines += std::string("port=") + names[i] +
                 ",in=" + std::to_string(delta(now.in, previous[i].in)) +
                 ",out=" + std::to_string(delta(now.out, previous[i].out)) +
                 ",counterIn=" + std::to_string(now.in) + ",counterOut=" + std::to_string(now.out) +
                 "\n";
        previous[i] = now;
    }
    if (!lines.empty()) {
        due("write");
        fuzz::expected() += lines;
    }
    due("close");
    due("rename /var/run/kelo-monitord.netinfo.tmp /var/run/kelo-monitord.netinfo");
}

Counter nextCounter(fuzz::Input &input, Counter before)
{
    const uint8_t how = input.byte();
    switch (how % 6) {
    case 0:
        return before;
    case 1:
        return before + input.byte();
    case 2:
        return before - input.byte();
    case 3:
        return before + (1ULL << (how / 6)) + input.byte() - 128;
    case 4:
        return before + input.take<uint32_t>();
    default:
        return input.take<uint64_t>();
    }
}

} // namespace

extern "C" {

FILE *fuzz_fopen(const char *path, const char *mode)
{
    did("open %s %s", path, mode);
    if (openFails) {
        errno = EACCES;
        return nullptr;
    }
    return fopencookie(nullptr, mode, {nullptr, write, nullptr, close});
}

int fuzz_rename(const char *from, const char *to)
{
    did("rename %s %s", from, to);
    return renameResult;
}

int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out)
{
    did("port %d", port);
    if (*in != 0 || *out != 0)
        fuzz::wrong("the counters are not 0 before they are read");
    const auto &reading = readings.at(static_cast<size_t>(port - 1));
    // A library that fails may have stored something all the same.
    *in = reading ? reading->in : 1;
    *out = reading ? reading->out : 2;
    return reading ? -1 : 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restoreModule();
    fakes::journal().recording = false;
    fakes::eventLoop() = {};
    event_init();
    if (netinfo_register() != 0)
        fuzz::wrong("the timer was not added");
    readings = {};
    std::array<Reading, ports> previous = {};
    while (!input.empty()) {
        const uint8_t failures = input.byte();
        openFails = failures % 8 == 1;
        writeFails = failures % 8 == 2;
        renameResult = failures % 8 == 3 ? -1 : 0;
        for (uint8_t changes = failures / 8 % 8; changes > 0; changes--) {
            const uint8_t which = input.byte();
            auto &reading = readings[which % ports];
            if (which / ports % 4 == 0) {
                reading.reset();
                continue;
            }
            const Reading before = reading.value_or(Reading{});
            reading = Reading{nextCounter(input, before.in), nextCounter(input, before.out)};
        }
        expectSnapshot(previous);
        fakes::eventLoop().run(std::chrono::seconds(1));
        fuzz::compare();
    }
    return 0;
}
}
