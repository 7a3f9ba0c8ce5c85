#include "journal.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

std::string textOf(const char *format, va_list arguments)
{
    static auto &text = *new std::string; // with room for any line
    text.clear();
    for (; *format != '\0'; format++) {
        const size_t literal = strcspn(format, "%");
        text.append(format, literal);
        format += literal;
        if (*format == '\0')
            break;
        size_t width = 0; // filled up with zeros
        for (format++; *format >= '0' && *format <= '9'; format++)
            width = width * 10 + static_cast<size_t>(*format - '0');
        const bool isLong = *format == 'l' || *format == 'z';
        if (isLong)
            format++;
        const auto append = [&](auto number, int base) {
            char digits[24];
            const char *const end = std::to_chars(digits, std::end(digits), number, base).ptr;
            const auto count = static_cast<size_t>(end - digits);
            text.append(width > count ? width - count : 0, '0').append(digits, count);
        };
        switch (*format) {
        case 'd':
            if (isLong)
                append(va_arg(arguments, long), 10);
            else
                append(va_arg(arguments, int), 10);
            break;
        case 'u':
        case 'x':
        case 'o': {
            const int base = *format == 'x' ? 16 : *format == 'o' ? 8 : 10;
            if (isLong)
                append(va_arg(arguments, unsigned long), base);
            else
                append(va_arg(arguments, unsigned), base);
            break;
        }
        case 'p':
            text += "0x";
            append(reinterpret_cast<uintptr_t>(va_arg(arguments, void *)), 16);
            break;
        case '%':
            text += '%';
            break;
        case 's':
            text += va_arg(arguments, const char *);
            break;
        default:
            misuse("a format that the journal does not know");
        }
    }
    return text;
}

std::string text(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string result = textOf(format, arguments);
    va_end(arguments);
    return result;
}

void note(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    journal().add(textOf(format, arguments));
    va_end(arguments);
}

void detail(const char *format, ...)
{
    if (!journal().detailed)
        return;
    va_list arguments;
    va_start(arguments, format);
    journal().add(textOf(format, arguments));
    va_end(arguments);
}

void misuse(const char *what)
{
    fprintf(stderr, "misuse: %s\n", what);
    abort();
}

} // namespace fakes
