/// Pictures of a terminal's screen.

#pragma once

#include <string>

namespace kelo::docs {

/// Draws a screen as `tmux capture-pane -e -p` gives it: rows of UTF-8 text with colours.
std::string drawTerminal(const std::string &capture, int columns);

} // namespace kelo::docs
