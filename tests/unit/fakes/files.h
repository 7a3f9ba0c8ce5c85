/// The daemon's files and its pipe in memory; another path than theirs is misuse, and so is a
/// closed descriptor or stream. Every call is noted in the journal; what is written through stdio
/// is noted when it reaches the file, not when it is printed.

#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <string>

namespace fakes {

/// The descriptors from here on are the fake's.
constexpr int firstDescriptor = 1000;

struct Files {
    /// The content of every file that exists, by path.
    std::map<std::string, std::string> content;

    /// What the reads of a descriptor find, one chunk each unless it does not fit; an empty one, or
    /// none at all, is the end of file.
    std::deque<std::string> chunks;
    int readError = 0; ///< nonzero: read(2) fails with it

    std::map<std::string, int> openErrors; ///< paths that cannot be opened, and the errno
    std::map<std::string, int> fileErrors; ///< paths on which unlink, mkfifo and rename fail
    bool writesFail = false;
    bool closeFails = false;

    std::map<int, std::string> descriptors; ///< that are open, with their paths
    int nextDescriptor = firstDescriptor;   ///< what open(2) gives
    size_t openCount = 0;                   ///< descriptors and streams
};

Files &files();

} // namespace fakes
