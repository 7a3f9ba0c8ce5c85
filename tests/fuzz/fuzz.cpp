#include "fuzz.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <vector>

// The module's variables: objcopy gave their sections these names. A module may lack one of them.
extern "C" {
extern char __start_module_data[] __attribute__((weak));
extern char __stop_module_data[] __attribute__((weak));
extern char __start_module_bss[] __attribute__((weak));
extern char __stop_module_bss[] __attribute__((weak));
}

namespace {

void appendNumber(std::string &notes, long long number, int base = 10)
{
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
    notes.append(digits, end);
}

/// Byte by byte, because the guards that the sanitizer lays between the variables lie in between.
__attribute__((no_sanitize("address"))) void copy(volatile char *to, const volatile char *from,
                                                  size_t size)
{
    for (size_t i = 0; i < size; i++)
        to[i] = from[i];
}

class Section {
public:
    Section(char *start, const char *stop)
        : start_(start), size_(start ? static_cast<size_t>(stop - start) : 0), bytes_(size_)
    {
        copy(bytes_.data(), start_, size_);
    }

    void restore() const { copy(start_, bytes_.data(), size_); }

private:
    char *start_;
    size_t size_;
    std::vector<char> bytes_;
};

} // namespace

namespace fuzz {

void append(std::string &notes, const char *format, va_list arguments)
{
    for (; *format != '\0'; format++) {
        if (*format != '%') {
            notes += *format;
            continue;
        }
        switch (*++format) {
        case 'd':
            appendNumber(notes, va_arg(arguments, int));
            break;
        case 'u':
            appendNumber(notes, va_arg(arguments, unsigned));
            break;
        case 'o':
            appendNumber(notes, va_arg(arguments, unsigned), 8);
            break;
        case 'p':
            appendNumber(notes, reinterpret_cast<intptr_t>(va_arg(arguments, void *)), 16);
            break;
        case 's':
            notes += va_arg(arguments, const char *);
            break;
        default:
            wrong("a format that the notes do not know");
        }
    }
}

std::string &done()
{
    static auto &notes = *new std::string; // outlives every other static object
    return notes;
}

std::string &expected()
{
    static auto &notes = *new std::string;
    return notes;
}

void did(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    append(done(), format, arguments);
    va_end(arguments);
    done() += '\n';
}

void due(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    append(expected(), format, arguments);
    va_end(arguments);
    expected() += '\n';
}

void compare()
{
    if (done() != expected()) {
        fprintf(stderr, "-- done\n%s-- expected\n%s--\n", done().c_str(), expected().c_str());
        wrong("what was done is not what was expected");
    }
    done().clear();
    expected().clear();
}

void wrong(const char *what)
{
    fprintf(stderr, "wrong: %s\n", what);
    abort();
}

void restoreModule()
{
    static const auto &data = *new Section(__start_module_data, __stop_module_data);
    static const auto &bss = *new Section(__start_module_bss, __stop_module_bss);
    data.restore();
    bss.restore();
}

} // namespace fuzz
