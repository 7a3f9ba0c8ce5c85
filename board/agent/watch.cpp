#include "watch.h"

#include "process.h"
#include "witness.h"

#include <event2/event.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr timeval pace = {0, 250000};
constexpr char name[] =
    "kelo-monitord: "; // the log's records begin with it, and so the log tags them

int log = -1;    // -1 where it cannot be read
bool isWhole;    // all of it is the daemon's
char line[2048]; // that has not ended yet
size_t length;

/// The system log's own follower; it ends with this process.
int followSystemLog()
{
    int output[2];
    if (pipe2(output, O_CLOEXEC) < 0)
        return -1;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output[1], STDOUT_FILENO);
        execlp("logread", "logread", "-f", nullptr);
        _exit(127);
    }
    close(output[1]);
    return output[0];
}

bool isInPath(const char *program)
{
    constexpr const char *folders[] = {"/sbin", "/bin", "/usr/sbin", "/usr/bin"};
    for (const char *const folder : folders) {
        char path[64];
        snprintf(path, sizeof path, "%s/%s", folder, program);
        if (access(path, X_OK) == 0)
            return true;
    }
    return false;
}

/// Begins to read the daemon's log, where it goes to what can be read.
void begin()
{
    char path[64];
    char target[256] = "";
    snprintf(path, sizeof path, "%s/fd/2", process_folder());
    if (readlink(path, target, sizeof target - 1) < 0)
        strcpy(target, "nowhere");
    const bool isFile = target[0] == '/' && strncmp(target, "/dev/", 5) != 0;
    if (isFile) {
        log = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        lseek(log, 0, SEEK_END);
    } else if (strncmp(target, "pipe:", 5) == 0 && isInPath("logread")) {
        log = followSystemLog();
        fcntl(log, F_SETFL, O_NONBLOCK);
    }
    isWhole = isFile;
    char text[400];
    snprintf(text, sizeof text, "watching process %d, whose log goes to %s and is %s",
             static_cast<int>(process_daemon()), target,
             log < 0  ? "not seen"
             : isFile ? "read there"
                      : "read by logread");
    witness_note("note", text);
}

void takeLine()
{
    line[length] = '\0';
    const char *record = nullptr;
    for (const char *at = line; (at = strstr(at, name)); at++)
        record = at;
    if (record || isWhole) {
        const char *const text = record ? record : line;
        witness_log(text, static_cast<size_t>(line + length - text));
    }
    length = 0;
}

void readLog()
{
    char text[1024];
    ssize_t count;
    while (log >= 0 && (count = read(log, text, sizeof text)) > 0) {
        for (const char *at = text; at < text + count; at++) {
            line[length++] = *at;
            if (*at == '\n' || length + 1 == sizeof line)
                takeLine();
        }
    }
}

void onPace(int, short, void *)
{
    readLog();
    if (process_daemon() && strchr("?Z", process_state())) {
        process_adopt(0);
        witness_look();
        witness_note("exit", "unknown status unasked");
        close(log);
        log = -1;
    }
    if (!process_daemon() && process_find()) {
        process_adopt(process_find());
        begin();
    }
}

} // namespace

void watch_start(event_base *base)
{
    witness_note("note",
                 witness_watch(base)
                     ? "calls into the platform, the store and omci are not seen"
                     : "calls into the platform, the store, omci and the LEDs are not seen");
    event_add(event_new(base, -1, EV_PERSIST, onPace, nullptr), &pace);
    onPace(-1, 0, nullptr);
    if (!process_daemon())
        witness_note("note", "no daemon runs here");
}

bool watch_allows(const char *verb)
{
    constexpr const char *verbs[] = {"clock", "alive", "look", "daemon",
                                     "read",  "list",  "stat", "link"};
    for (const char *const allowed : verbs) {
        if (strcmp(verb, allowed) == 0)
            return true;
    }
    return false;
}
