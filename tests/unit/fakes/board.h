/// Board access without a board: what the display draws, a button, a link and a power level that a
/// test chooses, and the two hooks, which note all of their arguments.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fakes {

struct Board {
    int resetButton = 0;
    uint8_t gponUp = 1;
    int level = 4;
    std::vector<float> classified; ///< the powers whose level was asked for
};

Board &board();

/// What the front panel was made to show since the last call: one text of six flags, GPIO 6, 7, 8,
/// 2, 3 and 4 from left to right, for each time that all six were written in this order. Another
/// order is misuse. The journal has each pattern as one line.
std::vector<std::string> takePatterns();

/// The bytes of an address as hexadecimal digits: 4 for AF_INET, otherwise 16; "null" for none.
std::string addressDigits(uint8_t family, const void *address);

} // namespace fakes
