/// What the daemon does, seen where it happens: its LED lines, its standard error, what it calls of
/// the platform, the snapshots that it replaces; and what becomes of the hardware files.
///
/// All that the daemon lets out goes into one pipe, so that the order of the record is the order of
/// the daemon's own system calls.

#pragma once

#include <cstddef>

struct event_base;

/// Lays out the channel and begins to look. Returns a descriptor of the channel for the daemon's
/// standard error, or -1 with errno set.
int witness_start(event_base *base);

/// Begins to look at what can be seen without laying out anything: the snapshots, and the LEDs,
/// where the driver's file gives back a line for each. Returns false where it does not.
bool witness_watch(event_base *base);

/// Records that the daemon wrote this to its log.
void witness_log(const char *text, size_t length);

/// Records all that has happened so far.
void witness_look();

/// Records that something happened now.
void witness_note(const char *kind, const char *text);

/// Whether a file is one of the simulated hardware whose value is recorded; records the value that
/// it is about to get.
bool witness_turn(const char *path, const char *text);
