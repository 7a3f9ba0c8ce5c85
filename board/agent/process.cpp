#include "process.h"

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
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int environmentMax = 32;
constexpr timeval patience = {3, 0}; // before the daemon is killed

struct Command {
    unsigned long id;
    pid_t pid;  // 0 once it has ended
    int output; // -1 once that has ended
    int status;
    event *reading;
    Command *next;
};

event_base *loop;
int daemonOutput;
Command *commands;

pid_t daemonPid;
int askedSignal;        // what the daemon got last
unsigned long stopping; // the request that waits for its end
bool isStopping;
event *force;

/// Where the processes are: a board that simulates /proc has the real one beside it.
const char *processes()
{
    return access("/.proc/self", F_OK) == 0 ? "/.proc" : "/proc";
}

struct Signal {
    const char *name;
    int number;
};
// By name, because kernels number them differently.
constexpr Signal signals[] = {
    {"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT},     {"ILL", SIGILL},
    {"TRAP", SIGTRAP}, {"ABRT", SIGABRT}, {"BUS", SIGBUS},       {"FPE", SIGFPE},
    {"KILL", SIGKILL}, {"USR1", SIGUSR1}, {"SEGV", SIGSEGV},     {"USR2", SIGUSR2},
    {"PIPE", SIGPIPE}, {"ALRM", SIGALRM}, {"TERM", SIGTERM},     {"CHLD", SIGCHLD},
    {"CONT", SIGCONT}, {"STOP", SIGSTOP}, {"TSTP", SIGTSTP},     {"TTIN", SIGTTIN},
    {"TTOU", SIGTTOU}, {"URG", SIGURG},   {"XCPU", SIGXCPU},     {"XFSZ", SIGXFSZ},
    {"PROF", SIGPROF}, {"SYS", SIGSYS},   {"VTALRM", SIGVTALRM}, {"WINCH", SIGWINCH}};

int signalNumber(const char *name)
{
    for (const Signal &signal : signals) {
        if (strcmp(name, signal.name) == 0)
            return signal.number;
    }
    return atoi(name);
}

const char *signalName(int number)
{
    for (const Signal &signal : signals) {
        if (number == signal.number)
            return signal.name;
    }
    static char text[16];
    snprintf(text, sizeof text, "%d", number);
    return text;
}

int shellStatus(int status)
{
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Starts a program. Returns -1 with errno set when it cannot be started.
pid_t spawn(char **words, int output)
{
    char *environment[environmentMax + 2] = {
        const_cast<char *>("PATH=/usr/sbin:/usr/bin:/sbin:/bin")};
    for (int count = 1; *words && strchr(*words, '=') && count <= environmentMax; count++)
        environment[count] = *words++;
    int failure[2];
    if (!*words || pipe2(failure, O_CLOEXEC) < 0) {
        errno = *words ? errno : EINVAL;
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        signal(SIGPIPE, SIG_DFL);
        const int nothing = open("/dev/null", O_RDONLY);
        if (nothing > 0)
            dup2(nothing, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        environ = environment;
        execvp(*words, words);
        const int error = errno;
        if (write(failure[1], &error, sizeof error) < 0)
            _exit(126);
        _exit(127);
    }
    close(failure[1]);
    int error = errno;
    if (child > 0 && read(failure[0], &error, sizeof error) <= 0)
        error = 0;
    close(failure[0]);
    if (error)
        errno = error;
    return error ? -1 : child;
}

/// The state of a process, such as 'S', and its parent; '\0' when there is none.
char stateOf(const char *pid, pid_t &parent)
{
    char path[64];
    char text[256] = "";
    snprintf(path, sizeof path, "%s/%s/stat", processes(), pid);
    FILE *const file = fopen(path, "r");
    if (!file)
        return '\0';
    const size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[length] = '\0';
    const char *const name = strrchr(text, ')');
    char state = '\0';
    int number = 0;
    if (!name || sscanf(name + 1, " %c %d", &state, &number) != 2)
        return '\0';
    parent = number;
    return state;
}

bool isNamedAsDaemon(const char *pid)
{
    char path[64];
    char text[256];
    snprintf(path, sizeof path, "%s/%s/cmdline", processes(), pid);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t length = file < 0 ? 0 : read(file, text, sizeof text);
    close(file);
    constexpr char name[] = "kelo-monitord";
    return length > 0 && memmem(text, static_cast<size_t>(length), name, strlen(name));
}

/// Calls `visit` for every child that this process has, also those that it inherited.
void eachChild(void (*visit)(pid_t pid, const char *name))
{
    DIR *const folder = opendir(processes());
    if (!folder)
        return;
    while (const dirent *const entry = readdir(folder)) {
        pid_t parent = 0;
        if (entry->d_name[0] >= '1' && entry->d_name[0] <= '9' &&
            stateOf(entry->d_name, parent) != '\0' && parent == getpid())
            visit(atoi(entry->d_name), entry->d_name);
    }
    closedir(folder);
}

/// A daemon that detached is now a child of this process.
void adopt(pid_t pid, const char *name)
{
    pid_t parent;
    if (daemonPid == 0 && stateOf(name, parent) != 'Z' && isNamedAsDaemon(name))
        daemonPid = pid;
}

void daemonEnded(int status)
{
    daemonPid = 0;
    // What it did last comes before its end.
    witness_look();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && askedSignal == 0)
        eachChild(adopt);
    const bool byRequest = isStopping || daemonPid != 0 ||
                           (WIFSIGNALED(status) ? WTERMSIG(status) == askedSignal
                                                : WEXITSTATUS(status) == 0 && askedSignal != 0);
    char text[48];
    const char *const remark = byRequest ? "" : " unasked";
    if (WIFSIGNALED(status))
        snprintf(text, sizeof text, "signal %s%s", signalName(WTERMSIG(status)), remark);
    else
        snprintf(text, sizeof text, "status %d%s", WEXITSTATUS(status), remark);
    witness_note("exit", text);
    if (isStopping && daemonPid == 0) {
        isStopping = false;
        event_del(force);
        wire_ok(stopping);
    }
}

void finish(Command *command)
{
    if (command->pid || command->output >= 0)
        return;
    wire_okWords(command->id, "%d", shellStatus(command->status));
    for (Command **link = &commands; *link; link = &(*link)->next) {
        if (*link == command) {
            *link = command->next;
            break;
        }
    }
    free(command);
}

void onOutput(int, short, void *argument)
{
    auto *const command = static_cast<Command *>(argument);
    char text[4096];
    const ssize_t length = read(command->output, text, sizeof text);
    if (length > 0) {
        wire_out(command->id, text, static_cast<size_t>(length));
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
        event_free(command->reading);
        close(command->output);
        command->output = -1;
        finish(command);
    }
}

void onChild(int, short, void *)
{
    int status;
    pid_t child;
    while ((child = waitpid(-1, &status, WNOHANG)) > 0) {
        if (child == daemonPid) {
            daemonEnded(status);
            continue;
        }
        for (Command *command = commands; command; command = command->next) {
            if (command->pid != child)
                continue;
            command->pid = 0;
            command->status = status;
            finish(command);
            break;
        }
    }
}

void onForce(int, short, void *)
{
    if (daemonPid)
        kill(daemonPid, SIGKILL);
}

void killChild(pid_t pid, const char *)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace

void process_start(event_base *base, int output)
{
    loop = base;
    daemonOutput = output;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    event_add(evsignal_new(base, SIGCHLD, onChild, nullptr), nullptr);
    force = evtimer_new(base, onForce, nullptr);
}

pid_t process_startDaemon(char **words)
{
    const pid_t child = spawn(words, daemonOutput);
    if (child > 0) {
        daemonPid = child;
        askedSignal = 0;
    }
    return child;
}

pid_t process_daemon()
{
    return daemonPid;
}

void process_adopt(pid_t pid)
{
    daemonPid = pid;
}

pid_t process_find()
{
    pid_t found = 0;
    DIR *const folder = opendir(processes());
    while (const dirent *const entry = folder ? readdir(folder) : nullptr) {
        char path[64];
        char name[16] = "";
        snprintf(path, sizeof path, "%s/%.16s/comm", processes(), entry->d_name);
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        if (file < 0)
            continue;
        const ssize_t length = read(file, name, sizeof name - 1);
        close(file);
        pid_t parent;
        // What a daemon leaves behind has no command line.
        if (length > 0 && strcmp(name, "kelo-monitord\n") == 0 && isNamedAsDaemon(entry->d_name) &&
            stateOf(entry->d_name, parent) != 'Z')
            found = atoi(entry->d_name);
    }
    if (folder)
        closedir(folder);
    return found;
}

const char *process_folder()
{
    static char path[32];
    snprintf(path, sizeof path, "%s/%d", processes(), static_cast<int>(daemonPid));
    return path;
}

char process_state()
{
    pid_t parent;
    char name[16];
    snprintf(name, sizeof name, "%d", static_cast<int>(daemonPid));
    const char state = stateOf(name, parent);
    return state ? state : '?';
}

bool process_signal(const char *name)
{
    const int number = signalNumber(name);
    errno = number > 0 ? ESRCH : EINVAL;
    if (daemonPid == 0 || number <= 0 || kill(daemonPid, number) < 0)
        return false;
    if (number != SIGSTOP && number != SIGCONT)
        askedSignal = number;
    return true;
}

void process_stop(unsigned long id)
{
    if (!process_signal("TERM")) {
        wire_ok(id);
        return;
    }
    kill(daemonPid, SIGCONT);
    if (isStopping)
        wire_ok(stopping); // who asked first has been served by this
    isStopping = true;
    stopping = id;
    event_add(force, &patience);
}

void process_run(unsigned long id, char **words)
{
    int output[2];
    if (pipe2(output, O_CLOEXEC) < 0) {
        wire_error(id, "cannot start %s: %s", words[0], strerror(errno));
        return;
    }
    const pid_t child = spawn(words, output[1]);
    const int error = errno;
    close(output[1]);
    if (child < 0) {
        close(output[0]);
        wire_error(id, "cannot start %s: %s", words[0], strerror(error));
        return;
    }
    fcntl(output[0], F_SETFL, O_NONBLOCK);
    auto *const command = static_cast<Command *>(calloc(1, sizeof(Command)));
    command->id = id;
    command->pid = child;
    command->output = output[0];
    command->reading = event_new(loop, output[0], EV_READ | EV_PERSIST, onOutput, command);
    command->next = commands;
    commands = command;
    event_add(command->reading, nullptr);
}

void process_cancel(unsigned long id)
{
    for (const Command *command = commands; command; command = command->next) {
        if (command->id == id && command->pid)
            kill(-command->pid, SIGKILL);
    }
}

void process_end()
{
    // The end of a process namespace's first process ends all others, as that of a machine's does.
    if (getpid() == 1)
        return;
    for (const Command *command = commands; command; command = command->next)
        kill(-command->pid, SIGKILL);
    if (daemonPid) // a plain chroot has no /proc to find it in
        kill(daemonPid, SIGKILL);
    // Those that lose their parent by it come next.
    for (int round = 0; round < 3; round++)
        eachChild(killChild);
}
