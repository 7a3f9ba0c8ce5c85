/// A kelo_log that keeps its records instead of writing them. Each goes into the journal too, as
/// "log FILE FUNCTION: TEXT".

#pragma once

#include <string>
#include <vector>

namespace fakes {

struct LogRecord {
    std::string file;
    int line;
    std::string function;
    std::string text;
};

/// All records since the start, oldest first; none while the journal does not record.
std::vector<LogRecord> &logRecords();

} // namespace fakes
