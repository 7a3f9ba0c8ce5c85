/// The front panel: a board in the terminal.

#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelo::panel {

/// Shows a running board and takes keys until somebody ends it. With arguments for the daemon the
/// board is the panel's own: the daemon is started once the panel is to be seen, and the board is
/// said to end with the panel. Throws std::runtime_error where the terminal is not up to it.
void run(const std::string &name, const std::optional<std::vector<std::string>> &daemonArguments);

} // namespace kelo::panel
