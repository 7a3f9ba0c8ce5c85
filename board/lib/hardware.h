/// The simulated hardware: plain files under /board, so that a person with a shell can play too.

#pragma once

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Appends one line to /board/calls in a single write. Where there is no board, nothing is noted.
[[gnu::format(printf, 1, 2), gnu::unused]] void noteCall(const char *format, ...)
{
    const int fd = open("/board/calls", O_WRONLY | O_APPEND);
    if (fd < 0)
        return;
    va_list arguments;
    va_start(arguments, format);
    vdprintf(fd, format, arguments);
    va_end(arguments);
    close(fd);
}

} // namespace
