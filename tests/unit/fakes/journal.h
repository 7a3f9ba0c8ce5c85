/// One list of everything that the fakes see, in order: a line for each call into a fake and for
/// each log record. Tests of an order compare a stretch of it.

#pragma once

#include <cstdarg>
#include <string>
#include <vector>

namespace fakes {

using Lines = std::vector<std::string>;

/// One stretch after the other.
Lines operator+(Lines left, const Lines &right);

class Journal {
public:
    void add(std::string line);
    const Lines &lines() const { return lines_; }
    void clear() { lines_.clear(); }
    /// What was noted since the last take, or since the start.
    Lines take();
    /// As take, but only the lines that begin with one of the given words.
    Lines take(const std::vector<std::string> &words);

    /// Whether also calls are noted that have no effect of their own, and every argument.
    bool detailed = false;

private:
    Lines lines_;
};

Journal &journal();

/// Text as printf(3) makes it, of numbers and texts. The sanitizers check each call of the real one
/// at length.
std::string textOf(const char *format, va_list arguments);
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Adds a line, made as by printf(3).
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Adds a line where the journal is detailed.
void detail(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Ends the test program: the code under test did what no caller may do.
[[noreturn]] void misuse(const char *what);

} // namespace fakes
