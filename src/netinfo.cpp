#include "netinfo.h"

#include "kelo-monitord.h"
#include "kelosyscfg.h"

#include <cstdint>
#include <cstdio>

// Last, because it may turn on 64-bit file offsets for what is included after it.
#include <event.h>

// A macro, because the log message below embeds it.
#define TEMPORARY_PATH "/var/run/kelo-monitord.netinfo.tmp"

namespace {

constexpr char snapshotPath[] = "/var/run/kelo-monitord.netinfo";
constexpr timeval snapshotInterval = {1, 0};

constexpr const char *portNames[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
constexpr int portCount = sizeof portNames / sizeof *portNames;

// More than the seven longest possible lines, so that a snapshot is one write(2).
constexpr int SNAPSHOT_MAX = 1024;

// By port number, which counts from 1; the counters of the last reading that succeeded.
unsigned long long lastBytesIn[portCount + 1];
unsigned long long lastBytesOut[portCount + 1];

event snapshotTimer;

/// Deliberately the low words only and signed: readers rely on a backward step, or one of 2^31 and
/// more, showing as a number near 2^64 once it is widened.
int32_t counterDelta(unsigned long long current, unsigned long long previous)
{
    return static_cast<int32_t>(static_cast<uint32_t>(current) - static_cast<uint32_t>(previous));
}

unsigned long long widen(int32_t delta)
{
    return static_cast<unsigned long long>(static_cast<long long>(delta));
}

void dumpPort(FILE *file, const char *name, int port)
{
    unsigned long long in = 0;
    unsigned long long out = 0;
    if (!syscfg_getPortBytes(port, &in, &out))
        return;
    const int32_t inDelta = counterDelta(in, lastBytesIn[port]);
    const int32_t outDelta = counterDelta(out, lastBytesOut[port]);
    lastBytesIn[port] = in;
    lastBytesOut[port] = out;
    fprintf(file, "port=%s,in=%llu,out=%llu,counterIn=%llu,counterOut=%llu\n", name, widen(inDelta),
            widen(outDelta), in, out);
}

void dumpNetwork(int, short, void *)
{
    FILE *const file = fopen(TEMPORARY_PATH, "w");
    if (!file) {
        KELO_LOG("Failed to open file " TEMPORARY_PATH "\n");
        return;
    }
    char buffer[SNAPSHOT_MAX]; // a buffer of our own spares stdio an fstat and an allocation
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    for (int port = 1; port <= portCount; port++)
        dumpPort(file, portNames[port - 1], port);
    fclose(file);
    rename(TEMPORARY_PATH, snapshotPath);
}

} // namespace

int netinfo_register()
{
    event_set(&snapshotTimer, -1, EV_PERSIST, dumpNetwork, &snapshotTimer);
    return event_add(&snapshotTimer, &snapshotInterval);
}
