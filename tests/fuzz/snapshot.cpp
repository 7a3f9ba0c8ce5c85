/// The counter snapshot: any counters, ports that cannot be read, files that cannot be opened.

#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/vendor.h"
#include "fuzz.h"
#include "netinfo.h"

#include <array>
#include <cerrno>

using fakes::files;
using fakes::PortBytes;
using fakes::vendor;
using fuzz::due;
using Counter = unsigned long long;

namespace {

constexpr const char *names[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
constexpr size_t ports = 7;
const std::string path = "/var/run/kelo-monitord.netinfo";
const std::string temporary = path + ".tmp";

/// The difference in the documented form: low words, signed, widened.
Counter delta(Counter current, Counter previous)
{
    const Counter low = (current - previous) % (1ULL << 32);
    return low < (1ULL << 31) ? low : low - (1ULL << 32);
}

void expectSnapshot(std::array<PortBytes, ports> &previous)
{
    due("fopen %s w", temporary.c_str());
    if (!files().openErrors.empty()) {
        due("log netinfo.cpp dumpNetwork: Failed to open file %s\n", temporary.c_str());
        return;
    }
    std::string lines;
    for (size_t i = 0; i < ports; i++) {
        due("syscfg_getPortBytes %zu", i + 1);
        if (!vendor().ports[i + 1])
            continue;
        const PortBytes &now = *vendor().ports[i + 1];
        lines += std::string("port=") + names[i] +
                 ",in=" + std::to_string(delta(now.in, previous[i].in)) +
                 ",out=" + std::to_string(delta(now.out, previous[i].out)) +
                 ",counterIn=" + std::to_string(now.in) + ",counterOut=" + std::to_string(now.out) +
                 "\n";
        previous[i] = now;
    }
    if (!lines.empty())
        due("write %s: %s", temporary.c_str(), lines.c_str());
    due("close %s", temporary.c_str());
    due("rename %s %s", temporary.c_str(), path.c_str());
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restart();
    event_init();
    if (netinfo_register() != 0)
        fuzz::wrong("the timer was not added");
    fakes::journal().take();
    std::array<PortBytes, ports> previous = {};
    while (!input.empty()) {
        const uint8_t failures = input.byte();
        files().openErrors.clear();
        if (failures % 8 == 1)
            files().openErrors[temporary] = EACCES;
        files().writesFail = files().closeFails = failures % 8 == 2;
        files().fileErrors[temporary] = failures % 8 == 3 ? EACCES : 0;
        for (uint8_t changes = failures / 8 % 8; changes > 0; changes--) {
            const uint8_t which = input.byte();
            auto &reading = vendor().ports[which % ports + 1];
            if (which / ports % 4 == 0) {
                reading.reset();
                continue;
            }
            const PortBytes before = reading.value_or(PortBytes{});
            reading = PortBytes{nextCounter(input, before.in), nextCounter(input, before.out)};
        }
        expectSnapshot(previous);
        fakes::eventLoop().run(std::chrono::seconds(1));
        fuzz::compare();
    }
    return 0;
}
