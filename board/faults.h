/// Faults that a board can have, and that can be mended again while it runs.

#pragma once

#include "access.h"

#include <set>
#include <string>
#include <vector>

namespace kelo {

struct Fault {
    const char *name;
    const char *description;
    Ability needs;
    const char *on;  ///< shell commands in the board's root folder
    const char *off; ///< shell commands that undo them
};

extern const std::vector<Fault> faults;

/// The fault of this name; null when there is none.
const Fault *findFault(const std::string &name);

/// The names of the faults that a board has, sorted.
std::set<std::string> faultsOf(const Access &board);
/// The request behind that, and what its answer's text means.
extern const Words faultsRequest;
std::set<std::string> toFaults(const std::string &text);

/// Brings a fault about, in place of another of the same thing, or mends it; nothing happens when
/// it is so already. Throws std::runtime_error when the board cannot have it.
void setFault(const Access &board, const Fault &fault, bool on);

/// Stops the daemon, lets far more addresses come and go than its netlink socket holds, and lets it
/// go on. Throws std::runtime_error.
void overrunNetlink(const Access &board, int changes);

} // namespace kelo
