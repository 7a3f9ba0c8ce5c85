/// The reset button, sampled once a second: a short press reboots the device, a long hold restores
/// the factory defaults. Either ends the sampling for good.

#pragma once

/// Starts the sampling, the first in one second. Returns the result of event_add: 0, or -1 on
/// failure.
extern "C" int input_register();
