// Platform libraries that make no system call: what is measured is the daemon's own. A good signal,
// the link up, counters that move.

#include "kelosyscfg.h"
#include "tcapi.h"

int syscfg_getGponState()
{
    return 5;
}

int syscfg_getLaserInfo(float *rxPower, void *, void *, void *, void *)
{
    *rxPower = -18.5F;
    return 1;
}

int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out)
{
    static unsigned long long reading;
    reading++;
    *in = reading * 1000 * static_cast<unsigned>(port);
    *out = reading * 300 * static_cast<unsigned>(port);
    return 1;
}

int syscfg_reboot()
{
    return 0;
}

int syscfg_restoreDefaultBg()
{
    return 0;
}

int tcapiSet(const char *, const char *, const char *)
{
    return 0;
}

int tcapiSetUint32(const char *, const char *, unsigned int)
{
    return 0;
}
