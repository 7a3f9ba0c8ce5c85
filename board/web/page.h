/// A record of a board as one web page that plays the front panel back. It needs no network and no
/// other file.

#pragma once

#include "recording.h"

#include <istream>
#include <string>

namespace kelo {

/// What a note begins with that tells of an expectation that did not come true.
constexpr char failedNote[] = "failed: ";

/// Returns the page. What only repeats what held before is left out, and so is the daemon's polling
/// of the platform. A live page goes on with what its server sends, and has controls.
std::string makePage(const Record &record, bool isLive = false);

/// Reads a saved record: a recording (VCD), which has no log and no ports, or the lines that
/// `kelo-board events --json` prints. Throws std::runtime_error that says what is wrong with it.
Record readRecord(std::istream &in);

} // namespace kelo
