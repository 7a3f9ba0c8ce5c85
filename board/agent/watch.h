/// A daemon that runs already, as far as it can be seen without touching anything: its process, and
/// its log where that goes into a file or the system log. witness.h has the rest.

#pragma once

struct event_base;

void watch_start(event_base *base);

/// Whether a request changes nothing.
bool watch_allows(const char *verb);
