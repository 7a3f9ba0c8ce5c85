/// One list of everything that the fakes see, in order: a line for each call into a fake and for
/// each log record. Tests of an order compare a stretch of it; fuzz targets switch it off.

#pragma once

#include <string>
#include <vector>

namespace fakes {

using Lines = std::vector<std::string>;

/// One stretch after the other.
Lines operator+(Lines left, const Lines &right);

class Journal {
public:
    void add(std::string line);
    /// What was noted since the last take, or since the start.
    Lines take();
    /// As take, but only the lines that begin with one of the given words.
    Lines take(const std::vector<std::string> &words);

    bool recording = true;

private:
    Lines lines_;
};

Journal &journal();

/// Adds a line, made as by printf(3).
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Ends the test program: the code under test did what no caller may do.
[[noreturn]] void misuse(const char *what);

} // namespace fakes
