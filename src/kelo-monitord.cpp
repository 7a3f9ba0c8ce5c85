#include "kelo-monitord.h"

#include "display.h"
#include "input.h"
#include "ipinfo.h"
#include "netinfo.h"

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include <event.h>

namespace {

// The count is deliberately 8 bits wide and signed. A record whose prefix and message pass 127
// characters therefore gets its suffix at the count modulo 256, or, where that reads negative, up
// to 128 characters before the line: log readers depend on the shape that results. The slack keeps
// such a suffix inside the log's own storage.
using LogCount = int8_t;
constexpr int LOG_SLACK = -INT8_MIN;

size_t room(LogCount count)
{
    return static_cast<size_t>(LOG_LINE_MAX - count);
}

LogCount sum(LogCount count, int length)
{
    return static_cast<LogCount>(count + static_cast<LogCount>(length));
}

void onSignal(int, short, void *base)
{
    event_base_loopexit(static_cast<event_base *>(base), nullptr);
}

// Deliberately without a null device, a second fork or a process-id file: what the daemon opens
// next takes descriptors 0 to 2, and log lines go to whatever 2 becomes.
void detach()
{
    const pid_t child = fork();
    if (child < 0)
        exit(1);
    if (child > 0)
        exit(0);
    umask(0);
    if (setsid() < 0)
        exit(1);
    if (chdir("/") < 0)
        exit(1);
    for (int descriptor = 0; descriptor <= 2; descriptor++)
        close(descriptor);
}

} // namespace

int kelo_log(const char *file, int line, const char *function, const char *format, ...)
{
    char storage[LOG_SLACK + LOG_LINE_MAX];
    char *const buffer = storage + LOG_SLACK;

    LogCount count = 0;
    count = sum(count, snprintf(buffer + count, room(count), "kelo-monitord: "));
    va_list arguments;
    va_start(arguments, format);
    count = sum(count, vsnprintf(buffer + count, room(count), format, arguments));
    va_end(arguments);
    snprintf(buffer + count, room(count), " [%s:%d %s]\n", file, line, function);
    return fputs(buffer, stderr);
}

int main(int argc, char **argv)
{
    int daemon = 0;
    for (;;) {
        const auto option = static_cast<signed char>(getopt(argc, argv, "d"));
        if (option == -1)
            break;
        if (option == 'd') {
            KELO_LOG("Launching as daemon...\n");
            daemon = 1;
        }
    }
    if (daemon)
        detach();

    // event_init makes the base current, so the modules' events find it by themselves.
    event_base *const base = event_init();
    constexpr int signals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    event signalEvents[sizeof signals / sizeof *signals];
    event *signalEvent = signalEvents;
    for (const int signal : signals) {
        event_set(signalEvent, signal, EV_SIGNAL | EV_PERSIST, onSignal, base);
        event_add(signalEvent, nullptr);
        signalEvent++;
    }

    netinfo_register();
    ipinfo_register();
    display_register();
    input_register();

    event_base_dispatch(base);
    exit(0);
}
