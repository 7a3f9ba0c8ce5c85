// libkelosyscfg of the simulated board.

#include "kelosyscfg.h"

#include "hardware.h"

#include <sys/reboot.h>
#include <unistd.h>

namespace {

using namespace kelo::device;

/// Reads the values of a hardware file; returns how many were there, 0 without the file.
[[gnu::format(scanf, 2, 3)]] int readValues(const char *path, const char *format, ...)
{
    FILE *const file = fopen(path, "r");
    if (!file)
        return 0;
    va_list arguments;
    va_start(arguments, format);
    const int count = vfscanf(file, format, arguments);
    va_end(arguments);
    fclose(file);
    return count;
}

} // namespace

int syscfg_getGponState()
{
    noteCall("syscfg_getGponState\n");
    int state = -1;
    return readValues(gponPath, "%d", &state) == 1 ? state : -1;
}

int syscfg_getLaserInfo(float *rxPower, void *, void *, void *, void *)
{
    noteCall("syscfg_getLaserInfo\n");
    float reading;
    if (readValues(laserPath, "%f", &reading) != 1)
        return 0;
    *rxPower = reading;
    return 1;
}

int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out)
{
    noteCall("syscfg_getPortBytes %d\n", port);
    char path[32];
    snprintf(path, sizeof path, "%s%d", portsFolder, port);
    return readValues(path, "%llu %llu", in, out) == 2;
}

int syscfg_reboot()
{
    noteCall("syscfg_reboot\n");
    // A board that is a whole machine asks for it.
    if (access("/board/reboots", F_OK) == 0)
        reboot(RB_AUTOBOOT);
    return 0;
}

int syscfg_restoreDefaultBg()
{
    noteCall("syscfg_restoreDefaultBg\n");
    return 0;
}
