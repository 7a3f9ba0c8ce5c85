/// The daemon and other programs that the agent starts.

#pragma once

#include <sys/types.h>

struct event_base;

/// Reaps from now on. `output` is the daemon's standard output and error.
void process_start(event_base *base, int output);

/// Starts the daemon by a command, NAME=VALUE words of its environment before it. Returns its
/// number, or -1 with errno set.
pid_t process_startDaemon(char **words);

/// The daemon, whether it detached or not; 0 while none runs.
pid_t process_daemon();

/// Takes a process that runs already for the daemon; none with 0.
void process_adopt(pid_t pid);

/// The daemon in /proc, by its name; 0 when there is none.
pid_t process_find();

/// Its folder in /proc, and its state as shown there, such as 'S'.
const char *process_folder();
char process_state();

/// Sends the daemon a signal, as somebody asked for, by name or number. Returns false with errno
/// set when there is none of either.
bool process_signal(const char *name);

/// Ends the daemon, with force if need be, and answers the request once it is gone.
void process_stop(unsigned long id);

/// Runs a command, passes on what it prints, and answers with its exit status, as a shell has it.
void process_run(unsigned long id, char **words);

/// Kills the command of a request, with all that it started.
void process_cancel(unsigned long id);

/// Kills everything that was started here.
void process_end();
