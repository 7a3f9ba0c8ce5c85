#include "input.h"

#include "display.h"
#include "kelo-monitord.h"
#include "kelosyscfg.h"
#include "platform.h"

#include <cstdlib>
#include <unistd.h>

#include <event.h>

namespace {

/// The button value from which on a press is a long hold.
constexpr int RESET_HOLD_LIMIT = 5;

constexpr timeval pollInterval = {1, 0};

event resetButtonTimer;

int lastButtonValue; // the last sample while pressed; 0 until the first press

void stopResetButtonPoll()
{
    event_del(&resetButtonTimer);
}

// The library works in a child that is deliberately never waited for, so that the pattern plays on
// meanwhile. A failed fork is deliberately not made up for.

int doReboot()
{
    KELO_LOG("rebooting...\n");
    stopResetButtonPoll();
    display_setMode(Reboot);
    const pid_t child = fork();
    if (child == 0) {
        syscfg_reboot();
        exit(0);
    }
    return child;
}

int doDefault()
{
    KELO_LOG("resetting to defaults...\n");
    stopResetButtonPoll();
    display_setMode(Restore);
    const pid_t child = fork();
    if (child == 0) {
        syscfg_restoreDefaultBg();
        exit(0);
    }
    return child;
}

void pollResetButton(int, short, void *)
{
    const int sample = platform_getResetButton();
    if (sample != 0) {
        if (lastButtonValue == 0)
            display_setMode(Reboot);
        lastButtonValue = sample;
        if (lastButtonValue >= RESET_HOLD_LIMIT)
            doDefault();
    } else if (lastButtonValue != 0) {
        doReboot();
    }
}

} // namespace

int input_register()
{
    event_set(&resetButtonTimer, -1, EV_PERSIST, pollResetButton, &resetButtonTimer);
    return event_add(&resetButtonTimer, &pollInterval);
}
