/// The LEDs over time as text, for a person who wants to know what went wrong.

#pragma once

#include "board.h"

#include <string>
#include <vector>

namespace kelo {

/// A lane for every LED from one time to another, and what else happened meanwhile, with times
/// since `start`.
std::string waveform(const std::vector<Event> &events, Clock::time_point start,
                     Clock::time_point from, Clock::time_point to);

} // namespace kelo
