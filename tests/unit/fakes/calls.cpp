/// The daemon's calls that the other fakes see only by what they bring about. Each becomes a line
/// in the journal with its arguments, and aborts on misuse. Only the daemon's own calls come here:
/// in its objects, these names are put in the place of the C library's and libevent's.
///
/// Events and callbacks are numbered in the order in which they appear.

#include "event_loop.h"
#include "journal.h"
#include "netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <set>
#include <unistd.h>

using fakes::eventLoop;
using fakes::journal;
using fakes::misuse;
using fakes::note;

namespace {

FILE *openStream;
std::set<void *> records;

/// The number of something that was or was not seen before, from 1 on.
template <typename T>
size_t number(T thing)
{
    static std::vector<T> seen;
    const auto found = std::find(seen.begin(), seen.end(), thing);
    const auto index = static_cast<size_t>(found - seen.begin());
    if (found == seen.end())
        seen.push_back(thing);
    return index + 1;
}

/// Makes a call whose own fake is not to note it a second time.
template <typename Call>
auto quietly(Call call)
{
    journal().recording = false;
    const auto result = call();
    journal().recording = true;
    return result;
}

void onOpenStream(FILE *stream)
{
    if (!stream || stream != openStream)
        misuse("a stream that is not open");
}

void onZeros(const char *area, size_t size)
{
    if (std::any_of(area, area + size, [](char byte) { return byte != '\0'; }))
        misuse("an area that is not zeroed");
}

bool isInRecord(const void *address)
{
    constexpr size_t most = 100; // no record is longer
    return std::any_of(records.begin(), records.end(), [address](const void *record) {
        return address >= record && address < static_cast<const char *>(record) + most;
    });
}

std::string argumentOf(const event *address, const void *argument)
{
    if (!argument)
        return "null";
    if (argument == address)
        return "itself";
    if (argument == &eventLoop())
        return "base";
    return std::to_string(reinterpret_cast<uintptr_t>(argument));
}

} // namespace

extern "C" {

int seen_getopt(int argc, char *const *argv, const char *options)
{
    const int option = getopt(argc, argv, options);
    note("getopt \"%s\" = %d", options, option);
    return option;
}

int seen_snprintf(char *buffer, size_t room, const char *format, ...)
{
    note("snprintf %zu \"%s\"", room, format);
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, room, format, arguments);
    va_end(arguments);
    return length;
}

int seen_vsnprintf(char *buffer, size_t room, const char *format, va_list arguments)
{
    note("vsnprintf %zu \"%s\"", room, format);
    return vsnprintf(buffer, room, format, arguments);
}

FILE *seen_fopen(const char *path, const char *mode)
{
    openStream = fopen(path, mode);
    return openStream;
}

int seen_setvbuf(FILE *stream, char *buffer, int mode, size_t size)
{
    onOpenStream(stream);
    note("setvbuf %s %zu", mode == _IOFBF ? "full" : "other", size);
    return setvbuf(stream, buffer, mode, size);
}

int seen_fprintf(FILE *stream, const char *format, ...)
{
    onOpenStream(stream);
    note("fprintf \"%s\"", format);
    va_list arguments;
    va_start(arguments, format);
    const int length = vfprintf(stream, format, arguments);
    va_end(arguments);
    return length;
}

int seen_fscanf(FILE *stream, const char *format, ...)
{
    onOpenStream(stream);
    note("fscanf \"%s\"", format);
    va_list arguments;
    va_start(arguments, format);
    const int count = vfscanf(stream, format, arguments);
    va_end(arguments);
    return count;
}

// What glibc calls it in C++14 and in later standards.
int seen___isoc99_fscanf(FILE *, const char *, ...) __attribute__((alias("seen_fscanf")));
int seen___isoc23_fscanf(FILE *, const char *, ...) __attribute__((alias("seen_fscanf")));

int seen_fclose(FILE *stream)
{
    onOpenStream(stream);
    openStream = nullptr;
    note("fclose");
    return fclose(stream);
}

const char *seen_inet_ntop(int family, const void *address, char *text, socklen_t size)
{
    onZeros(text, INET6_ADDRSTRLEN);
    const char *const result = inet_ntop(family, address, text, size);
    note("inet_ntop %d %s %u \"%s\"", family, isInRecord(address) ? "record" : "message", size,
         text);
    return result;
}

char *seen_if_indextoname(unsigned index, char *name)
{
    onZeros(name, IF_NAMESIZE);
    note("if_indextoname %u", index);
    return if_indextoname(index, name);
}

void *seen_calloc(size_t count, size_t size)
{
    note("calloc %zu %zu", count, size);
    void *const record = calloc(count, size);
    records.insert(record);
    return record;
}

void seen_free(void *record)
{
    note(records.erase(record) != 0 ? "free" : "free what was not allocated");
    free(record);
}

void seen_event_set(event *address, int fd, short flags, event_callback_fn callback, void *argument)
{
    note("event_set %zu fd=%d flags=0x%x callback=%zu argument=%s", number(address), fd,
         static_cast<unsigned>(flags), number(callback), argumentOf(address, argument).c_str());
    quietly([&] {
        event_set(address, fd, flags, callback, argument);
        return 0;
    });
}

int seen_event_add(event *address, const timeval *timeout)
{
    if (timeout)
        note("event_add %zu %ld.%06ld", number(address), static_cast<long>(timeout->tv_sec),
             static_cast<long>(timeout->tv_usec));
    else
        note("event_add %zu", number(address));
    return quietly([&] { return event_add(address, timeout); });
}

int seen_event_del(event *address)
{
    note("event_del %zu", number(address));
    return quietly([&] { return event_del(address); });
}

void seen_event_active(event *address, int result, short calls)
{
    note("event_active %zu %d %d", number(address), result, calls);
    quietly([&] {
        event_active(address, result, calls);
        return 0;
    });
}

int seen_event_initialized(const event *address)
{
    const int result = event_initialized(address);
    note("event_initialized %zu = %d", number(const_cast<event *>(address)), result);
    return result;
}
}
