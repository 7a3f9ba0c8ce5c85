/// The subsystems that main registers; what they return does not matter to it.

#include "display.h"
#include "input.h"
#include "ipinfo.h"
#include "journal.h"
#include "netinfo.h"

using fakes::note;

int netinfo_register()
{
    note("netinfo_register");
    return -1;
}

void ipinfo_register()
{
    note("ipinfo_register");
}

void display_register()
{
    note("display_register");
}

int input_register()
{
    note("input_register");
    return -1;
}
