// The agent: runs where the daemon runs, sees what it does, turns the hardware that it finds there,
// and does what the program that runs the board asks for; wire.h says how they talk. It ends, with
// everything that it started, when there is nobody to ask any more.
//
//   kelo-agent                 on a board that is laid out
//   kelo-agent apart FOLDER    on a terminal: in a mount namespace of its own, where the script
//                              FOLDER/terminal lays out FOLDER/root
//   kelo-agent watch           beside the daemon that runs on a terminal

#include "device.h"
#include "process.h"
#include "watch.h"
#include "wire.h"
#include "witness.h"

#include <event2/event.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace kelo::device;

constexpr timeval pipePause = {0, 5000};
constexpr int pipeTries = 100;

event_base *base;
bool isWatching;

bool writeInto(const char *path, int flags, const char *text)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC | flags, 0644);
    if (file < 0)
        return false;
    const auto length = static_cast<ssize_t>(strlen(text));
    const ssize_t written = write(file, text, strlen(text));
    const int error = written < 0 ? errno : ENOSPC;
    if (written == length && ftruncate(file, length) < 0) {
        // A driver's file has no length.
    }
    close(file);
    errno = error;
    return written == length;
}

/// Replaces a file in one step, so that its reader finds the old text or the new one. Only a
/// driver's file, or one that is mounted in front of it, is written in place.
bool writeFile(const char *path, const char *text)
{
    char temporary[512];
    snprintf(temporary, sizeof temporary, "%s.new", path);
    if (writeInto(temporary, O_CREAT | O_TRUNC, text) && rename(temporary, path) == 0)
        return true;
    const int error = errno;
    unlink(temporary);
    errno = error;
    const bool noOther = error == ENOENT || error == EACCES || error == EBUSY;
    return noOther && writeInto(path, 0, text);
}

/// Turns the hardware: what the daemon makes of it comes later in the record.
bool turn(const char *path, const char *text)
{
    witness_look();
    witness_turn(path, text);
    return writeFile(path, text);
}

/// The reset button as a finger moves it: 1 at once, and 1 more every second while it is held.
struct {
    int value;
    timeval step;
    event *timer;
} button;

bool setButton(int value)
{
    char text[16];
    snprintf(text, sizeof text, "%d\n", value);
    button.value = value;
    if (access(buttonPath, F_OK) < 0)
        return false;
    return turn(buttonPath, text);
}

void onButton(int, short, void *)
{
    setButton(button.value + 1); // where its file is gone, it is as good as stuck
}

/// A keyword on its way into the display pipe.
struct Keyword {
    unsigned long id;
    char *text;
    int pipe;
    int tries;
    event *timer;
};

void endKeyword(Keyword *keyword)
{
    if (keyword->pipe >= 0)
        close(keyword->pipe);
    event_free(keyword->timer);
    free(keyword->text);
    free(keyword);
}

void pushKeyword(int, short, void *argument)
{
    auto *const keyword = static_cast<Keyword *>(argument);
    const bool mayTryAgain = keyword->tries++ < pipeTries;
    if (keyword->pipe < 0) {
        keyword->pipe = open(displayPath, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        // Between one writer's end and the next, the daemon has the pipe closed for a moment.
        if (keyword->pipe < 0 && errno == ENXIO && process_daemon() && mayTryAgain) {
            event_add(keyword->timer, &pipePause);
            return;
        }
        const auto length = static_cast<ssize_t>(strlen(keyword->text));
        if (keyword->pipe < 0 ||
            write(keyword->pipe, keyword->text, strlen(keyword->text)) != length) {
            wire_error(keyword->id, "cannot write into the display pipe: %s", strerror(errno));
            endKeyword(keyword);
            return;
        }
    }
    // Held open until the daemon has read it, which a close of its own in between could lose.
    int left = 0;
    if (ioctl(keyword->pipe, FIONREAD, &left) == 0 && left > 0 && process_daemon() && mayTryAgain) {
        event_add(keyword->timer, &pipePause);
        return;
    }
    wire_ok(keyword->id);
    endKeyword(keyword);
}

void sendKeyword(unsigned long id, const char *text)
{
    auto *const keyword = static_cast<Keyword *>(calloc(1, sizeof(Keyword)));
    keyword->id = id;
    keyword->text = strdup(text);
    keyword->pipe = -1;
    keyword->timer = evtimer_new(base, pushKeyword, keyword);
    pushKeyword(-1, 0, keyword);
}

/// Answers a request that only succeeds or fails.
void answer(const Request &request, bool done)
{
    if (done)
        wire_ok(request.id);
    else
        wire_error(request.id, "%s: %s", request.count > 1 ? request.words[1] : request.words[0],
                   strerror(errno));
}

void answerRead(const Request &request)
{
    const int file = open(request.words[1], O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    static char text[65536];
    size_t length = 0;
    ssize_t part = -1;
    while (file >= 0 && (part = read(file, text + length, sizeof text - length)) > 0)
        length += static_cast<size_t>(part);
    if (part < 0)
        answer(request, false);
    else
        wire_okText(request.id, text, length);
    if (file >= 0)
        close(file);
}

void answerList(const Request &request)
{
    DIR *const folder = opendir(request.words[1]);
    if (!folder) {
        answer(request, false);
        return;
    }
    static char names[65536];
    size_t length = 0;
    while (const dirent *const entry = readdir(folder)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0 &&
            length + sizeof entry->d_name < sizeof names)
            length += static_cast<size_t>(
                snprintf(names + length, sizeof names - length, "%s\n", entry->d_name));
    }
    closedir(folder);
    wire_okText(request.id, names, length);
}

char typeOf(mode_t mode)
{
    return S_ISREG(mode) ? 'f' : S_ISDIR(mode) ? 'd' : S_ISFIFO(mode) ? 'p' : '?';
}

event *alive; // ends the agent, unless it is told in time that somebody is there

void handle(const Request &request)
{
    const char *const verb = request.words[0];
    char **const words = request.words + 1;
    const int count = request.count - 1;
    const unsigned long id = request.id;
    const auto is = [&](const char *name, int needed) {
        return strcmp(verb, name) == 0 && count >= needed;
    };

    if (isWatching && !watch_allows(verb)) {
        wire_error(id, "this board only watches the terminal's own daemon");
    } else if (is("clock", 0)) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        wire_okWords(id, "%lld.%09ld", static_cast<long long>(now.tv_sec), now.tv_nsec);
    } else if (is("alive", 1)) {
        const timeval patience = {atoi(words[0]), 0};
        event_add(alive, &patience);
        wire_ok(id);
    } else if (is("look", 0)) {
        witness_look();
        wire_ok(id);
    } else if (is("start", 1)) {
        witness_look();
        if (process_daemon())
            wire_error(id, "the daemon runs already");
        else if (process_startDaemon(words) < 0)
            wire_error(id, "cannot start %s: %s", words[0], strerror(errno));
        else
            wire_okWords(id, "%d", static_cast<int>(process_daemon()));
    } else if (is("stop", 0)) {
        process_stop(id);
    } else if (is("signal", 1)) {
        if (process_signal(words[0]))
            wire_ok(id);
        else
            wire_error(id, errno == ESRCH ? "the daemon does not run" : "no such signal here");
    } else if (is("daemon", 0)) {
        if (process_daemon())
            wire_okWords(id, "%d %s %c", static_cast<int>(process_daemon()), process_folder(),
                         process_state());
        else
            wire_ok(id);
    } else if (is("run", 1)) {
        process_run(id, words);
    } else if (is("cancel", 1)) {
        process_cancel(strtoul(words[0], nullptr, 10));
        wire_ok(id);
    } else if (is("put", 2)) {
        answer(request, turn(words[0], words[1]));
    } else if (is("hold", 1)) {
        const int speed = atoi(words[0]);
        button.step = speed > 1 ? timeval{0, 1000000 / speed} : timeval{1, 0};
        if (button.value > 0 || setButton(1)) {
            if (!event_pending(button.timer, EV_TIMEOUT, nullptr))
                event_add(button.timer, &button.step);
            wire_ok(id);
        } else {
            wire_error(id, "the board's button file is gone");
        }
    } else if (is("button", 1)) {
        event_del(button.timer);
        if (setButton(atoi(words[0])))
            wire_ok(id);
        else
            wire_error(id, "the board's button file is gone");
    } else if (is("keyword", 1)) {
        sendKeyword(id, words[0]);
    } else if (is("read", 1)) {
        answerRead(request);
    } else if (is("list", 1)) {
        answerList(request);
    } else if (is("remove", 1)) {
        witness_look();
        answer(request, remove(words[0]) == 0);
    } else if (is("folder", 1)) {
        answer(request, mkdir(words[0], 0755) == 0);
    } else if (is("stat", 1)) {
        struct stat status;
        if (stat(words[0], &status) == 0)
            wire_okWords(id, "%c %o", typeOf(status.st_mode),
                         static_cast<unsigned>(status.st_mode & 07777));
        else
            answer(request, false);
    } else if (is("link", 1)) {
        char target[4096];
        const ssize_t length = readlink(words[0], target, sizeof target);
        if (length >= 0)
            wire_okText(id, target, static_cast<size_t>(length));
        else
            answer(request, false);
    } else {
        wire_error(id, "unknown request \"%s\"", verb);
    }
}

void end()
{
    if (!isWatching)
        process_end();
    _exit(0);
}

void onSilence(int, short, void *)
{
    end();
}

bool complain(const char *what)
{
    perror(what);
    return false;
}

/// Moves into a root folder that nobody else sees.
bool goApart(const char *folder)
{
    char command[512];
    char root[256];
    snprintf(command, sizeof command, "sh %s/terminal root %s < /dev/null >&2", folder, folder);
    snprintf(root, sizeof root, "%s/root", folder);
    if (unshare(CLONE_NEWNS) < 0)
        return complain("a mount namespace");
    // Where "/" is no mount point it is not shared either.
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (system(command) != 0)
        return false; // it has said why
    return (chroot(root) == 0 && chdir("/") == 0) || complain(root);
}

/// Gives the agent real-time priority, or on a busy machine its times would be late ones. What it
/// starts does not inherit that. Where it is not allowed, the agent goes on without.
void beInTime()
{
    constexpr int reset = 0x40000000; // SCHED_RESET_ON_FORK, which not every C library names
    sched_param priority{};
    priority.sched_priority = 1;
    sched_setscheduler(0, SCHED_RR | reset, &priority);
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    umask(022);
    if (argc > 2 && strcmp(argv[1], "apart") == 0 && !goApart(argv[2]))
        return 1;
    isWatching = argc > 1 && strcmp(argv[1], "watch") == 0;
    beInTime();
    base = event_base_new();
    wire_start(base, handle, end);
    alive = evtimer_new(base, onSilence, nullptr);
    if (isWatching) {
        process_start(base, -1);
        watch_start(base);
    } else {
        const int output = witness_start(base);
        if (output < 0) {
            perror("the board's channel");
            return 1;
        }
        process_start(base, output);
    }
    button.timer = event_new(base, -1, EV_PERSIST, onButton, nullptr);
    event_base_dispatch(base);
    end();
}
