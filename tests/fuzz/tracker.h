/// The IP information tracker on the fakes, beside the model of its tables.

#pragma once

#include "fakes/netlink.h"
#include "fuzz.h"
#include "tables.h"

namespace fuzz {

constexpr int netlinkFd = 7;

/// Starts the tracker with empty tables and interfaces that have names.
void startTracker();

/// Starts it in vain: one of the three steps of opening its socket fails.
void startTrackerInVain(int step);

/// Lets it receive once, a datagram or a failure.
void receive(fakes::Reception reception);

} // namespace fuzz
