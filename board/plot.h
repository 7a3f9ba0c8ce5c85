/// Recordings as pictures.

#pragma once

#include "recording.h"

#include <string>

namespace kelo {

/// A recording as a timeline: a lane for every LED, the mode, what was turned, what was called, and
/// the time, in seconds. Returns an SVG file.
std::string plot(const Recording &recording, int64_t from, int64_t to);

/// Writes an SVG file as it is, or as a bitmap where the path ends in ".png". Throws
/// std::runtime_error in one line when it cannot.
void savePicture(const std::string &svg, const std::string &path);

} // namespace kelo
