/// The port counter snapshot: /var/run/kelo-monitord.netinfo, replaced once a second, with one line
/// for every port that can be read, and the difference to the port's previous reading.

#pragma once

/// Starts the snapshots, the first in one second. Returns the result of event_add: 0, or -1 on
/// failure.
extern "C" int netinfo_register();
