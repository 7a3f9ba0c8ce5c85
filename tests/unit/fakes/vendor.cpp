#include "vendor.h"

#include "faults.h"
#include "journal.h"
#include "kelosyscfg.h"
#include "tcapi.h"

using fakes::misuse;
using fakes::note;
using fakes::vendor;

fakes::Vendor &fakes::vendor()
{
    static Vendor &instance = *new Vendor; // outlives every other static object
    return instance;
}

int syscfg_getGponState()
{
    note("syscfg_getGponState");
    return fakes::fails("syscfg_getGponState") ? -1 : vendor().gponState;
}

int syscfg_getLaserInfo(float *rxPower, void *reading2, void *reading3, void *reading4,
                        void *reading5)
{
    note("syscfg_getLaserInfo");
    if (!rxPower || reading2 || reading3 || reading4 || reading5)
        misuse("syscfg_getLaserInfo is asked for the power, and for it alone");
    if (fakes::fails("syscfg_getLaserInfo"))
        return 0;
    *rxPower = vendor().laserPower;
    return vendor().laserResult;
}

int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out)
{
    note("syscfg_getPortBytes %d", port);
    if (port < 1 || port > 7 || *in != 0 || *out != 0)
        misuse("syscfg_getPortBytes takes ports 1 to 7 and counters of 0");
    const auto &bytes = vendor().ports[static_cast<size_t>(port)];
    if (fakes::fails("syscfg_getPortBytes", std::to_string(port)) || !bytes) {
        *in = 1; // a library that fails may have stored something all the same
        *out = 2;
        return 0;
    }
    *in = bytes->in;
    *out = bytes->out;
    return vendor().portResult;
}

int syscfg_reboot()
{
    note("syscfg_reboot");
    return -1; // nobody looks at it
}

int syscfg_restoreDefaultBg()
{
    note("syscfg_restoreDefaultBg");
    return -1; // nobody looks at it
}

int tcapiSet(const char *node, const char *attribute, const char *value)
{
    if (fakes::fails("tcapiSet", attribute))
        return -1;
    note("tcapiSet %s %s \"%s\"", node, attribute, value);
    return vendor().storeResult;
}

int tcapiSetUint32(const char *node, const char *attribute, unsigned int value)
{
    if (fakes::fails("tcapiSetUint32", attribute))
        return -1;
    note("tcapiSetUint32 %s %s %u", node, attribute, value);
    return vendor().storeResult;
}
