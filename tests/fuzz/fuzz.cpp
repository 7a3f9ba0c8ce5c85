#include "fuzz.h"

#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/memory.h"
#include "fakes/netlink.h"
#include "fakes/process.h"
#include "fakes/vendor.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

// The module's variables: objcopy gave their sections these names. A module may lack one of them.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
extern char __start_module_data[] __attribute__((weak));
extern char __stop_module_data[] __attribute__((weak));
extern char __start_module_bss[] __attribute__((weak));
extern char __stop_module_bss[] __attribute__((weak));
// NOLINTEND(bugprone-reserved-identifier)
}

namespace {

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

fakes::Lines &expected()
{
    static auto &lines = *new fakes::Lines; // outlives every other static object
    return lines;
}

void due(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    expected().push_back(fakes::textOf(format, arguments));
    va_end(arguments);
}

void compare()
{
    const fakes::Lines &done = fakes::journal().lines();
    if (done != expected()) {
        for (const auto &[name, lines] :
             {std::pair("done", done), std::pair("expected", expected())}) {
            fprintf(stderr, "-- %s\n", name);
            for (const std::string &line : lines)
                fprintf(stderr, "%s\n", line.c_str());
        }
        wrong("what was done is not what was expected");
    }
    fakes::journal().clear();
    expected().clear();
}

void wrong(const char *what)
{
    fprintf(stderr, "wrong: %s\n", what);
    abort();
}

void restart()
{
    static const auto &data = *new Section(__start_module_data, __stop_module_data);
    static const auto &bss = *new Section(__start_module_bss, __stop_module_bss);
    data.restore();
    bss.restore();
    for (const auto &[block, size] : fakes::memory().live)
        free(const_cast<void *>(block));
    fakes::eventLoop() = {};
    fakes::files() = {};
    fakes::memory() = {};
    fakes::netlink() = {};
    fakes::process() = {};
    fakes::vendor() = {};
    fakes::journal().clear();
    fakes::journal().detailed = false;
    expected().clear();
}

} // namespace fuzz
