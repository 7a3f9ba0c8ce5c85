/// The front panel: six LEDs that play the pattern of one display mode at a time, and the named
/// pipe /var/run/kelo-monitord.display through which other programs choose the mode by a keyword.

#pragma once

#include <cstdint>

enum DisplayMode : int32_t {
    None,        ///< all LEDs off
    Signal,      ///< received optical power as a bar, link down blinking
    Reboot,      ///< the device is about to reboot
    Restore,     ///< factory defaults are being restored
    ErrorA12,    ///< steady error light
    LocateMe,    ///< blinks for 30 s, then back to Signal
    LedTest,     ///< all on, all off
    FactTest,    ///< factory test running
    FactTestErr, ///< factory test failed
};

extern "C" {

/// Switches the display to a mode, a DisplayMode value, and logs it; the mode already shown is
/// left undisturbed. Any other value is recorded too: it stops the pattern and leaves the LEDs as
/// they are.
void display_setMode(int32_t mode);

/// Darkens the LEDs, enters Signal and creates the pipe, mode 0600 less the umask. A pipe that
/// cannot be created or opened is logged, and the display goes on without it.
void display_register();
}
