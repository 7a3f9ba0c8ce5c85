/// What the panel looks like.

#pragma once

#include "controls.h"
#include "screen.h"
#include "state.h"

#include <optional>
#include <string>
#include <vector>

namespace kelo::panel {

constexpr int MIN_COLUMNS = 80;
constexpr int MIN_ROWS = 24;

/// A line of the help screen.
struct Help {
    const char *keys;
    const char *text;
};

/// What is to be seen beside the board itself.
struct View {
    std::string board;
    bool isOwn = true;       ///< it ends with the panel
    Clock::time_point start; ///< from which the log counts its times
    Clock::time_point now{};
    Look look{};
    bool traffic = false;
    bool largeLog = false;
    int scroll = 0; ///< rows that the log is scrolled back
    std::optional<Message> message{};
    std::optional<std::string> prompt{};
    const std::vector<Help> *help = nullptr; ///< when the help screen is asked for
    bool faults = false;                     ///< when the page of faults is
};

void draw(Screen &screen, const State &state, const View &view);

/// How many rows of the log a line takes.
int logRows(const LogLine &line, int columns);
/// How many rows the log has to itself.
int logHeight(const Screen &screen, bool largeLog);

} // namespace kelo::panel
