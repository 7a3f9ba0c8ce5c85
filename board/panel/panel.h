/// The front panel: a board in the terminal.

#pragma once

#include "host.h"

#include <string>
#include <vector>

namespace kelo::panel {

/// Shows a board and takes keys until somebody ends it. Starts the daemon, with these arguments,
/// once the panel is to be seen. Throws std::runtime_error where the terminal is not up to it.
void run(Host &host, const std::string &name, const std::vector<std::string> &daemonArguments);

} // namespace kelo::panel
