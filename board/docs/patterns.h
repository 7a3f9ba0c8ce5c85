/// The daemon's LED patterns as they are recorded from it: by ticks, not by times, so that the same
/// daemon gives the same patterns on any machine.

#pragma once

#include <string>
#include <vector>

namespace kelo::docs {

struct Pattern {
    std::string group; ///< heading under which it stands
    std::string title;
    int tick = 0; ///< ms between two drawings, to the nearest 50; 0 when it is drawn once
    std::vector<std::string> phases; ///< flags of GPIO 6, 7, 8, 2, 3, 4, over and over
    int ticks = 0;                   ///< after which the mode ends by itself; 0 for never
};

/// Plays all nine display modes on boards of their own. Throws std::runtime_error when the daemon
/// does something that is no pattern.
std::vector<Pattern> recordPatterns();

/// The patterns as a picture and as a text.
std::string drawPatterns(const std::vector<Pattern> &patterns);
std::string listPatterns(const std::vector<Pattern> &patterns);

} // namespace kelo::docs
