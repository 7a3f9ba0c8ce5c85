#include "journal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace fakes {

Lines operator+(Lines left, const Lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void Journal::add(std::string line)
{
    lines_.push_back(std::move(line));
}

Lines Journal::take()
{
    return std::exchange(lines_, {});
}

Lines Journal::take(const std::vector<std::string> &words)
{
    Lines chosen;
    for (std::string &line : take()) {
        const std::string first = line.substr(0, line.find(' '));
        for (const std::string &word : words) {
            if (first == word) {
                chosen.push_back(std::move(line));
                break;
            }
        }
    }
    return chosen;
}

Journal &journal()
{
    static Journal &instance = *new Journal; // outlives every other static object
    return instance;
}

void note(const char *format, ...)
{
    if (!journal().recording)
        return;
    char line[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    journal().add(line);
}

void misuse(const char *what)
{
    fprintf(stderr, "misuse: %s\n", what);
    abort();
}

} // namespace fakes
