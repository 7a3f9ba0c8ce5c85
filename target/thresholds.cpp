// Floating point goes wrong silently where a tool chain mixes its ABIs: the power is read from text
// as the board's library does, then sorted into its level as the daemon does.

#include "platform.h"

#include <cstdio>

namespace {

struct Reading {
    const char *dbm;
    int level;
};

// Both sides of each threshold, to the last bit of a float.
constexpr Reading readings[] = {
    {"-7.9999995", 4}, {"-8", 4},         {"-8.000001", 3}, {"-10.999999", 3}, {"-11", 3},
    {"-11.000001", 2}, {"-24.999998", 2}, {"-25", 2},       {"-25.000002", 1}, {"-27.999998", 1},
    {"-28", 1},        {"-28.000002", 0}, {"-39.5", 0},     {"22.49", 4},      {"nan", 0},
    {"inf", 4},        {"-inf", 0},
};

} // namespace

int main()
{
    int failures = 0;
    for (const Reading &reading : readings) {
        float dbm = 0.0F;
        const int count = sscanf(reading.dbm, "%f", &dbm);
        const int level = platform_getLaserRxPowerLevel(dbm);
        if (count != 1 || level != reading.level) {
            printf("%s dBm, read as %f: level %d, not %d\n", reading.dbm, static_cast<double>(dbm),
                   level, reading.level);
            failures++;
        }
    }
    printf("%d of %d wrong\n", failures, static_cast<int>(sizeof readings / sizeof *readings));
    return failures != 0;
}
