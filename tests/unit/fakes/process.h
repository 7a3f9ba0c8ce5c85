/// The calls that start, detach and end processes, and those that write to standard error, without
/// effect: they are noted in the journal and give the results chosen here. exit(3) leaves the code
/// under test by throwing Exit, and _exit(2) aborts.

#pragma once

#include <optional>
#include <sys/types.h>

namespace fakes {

struct Exit {
    int status;
};

struct Process {
    pid_t forkResult = 4711;
    pid_t setsidResult = 4711;
    int chdirResult = 0;
    int systemResult = -1; // nobody looks at it
    /// What fputs(3) to standard error returns.
    int fputsResult = 1;
    /// What vsnprintf(3) returns, having stored number signs; empty: it formats.
    std::optional<int> formatResult = {};
};

Process &process();

} // namespace fakes
