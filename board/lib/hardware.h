/// The simulated hardware: plain files under /board, so that a person with a shell can play too.

#pragma once

#include "device.h"

#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Notes a call, in a single write and a packet, where whoever looks at the board sees it. Where
/// nobody does, nothing is noted.
[[gnu::format(printf, 1, 2), gnu::unused]] void noteCall(const char *format, ...)
{
    const int fd = open(kelo::device::channelPath, O_WRONLY | O_NONBLOCK);
    if (fd < 0)
        return;
    fcntl(fd, F_SETFL, O_DIRECT); // and wait for room
    char note[512] = {kelo::device::noteMark};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(note + 1, sizeof note - 1, format, arguments);
    va_end(arguments);
    const size_t most = sizeof note - 2;
    if (length > 0 && write(fd, note, length < int(most) ? size_t(length) + 1 : most) < 0) {
        // It is not seen then.
    }
    close(fd);
}

} // namespace
