/// calloc(3) that fails on demand, and the allocations that were not freed.

#pragma once

#include <cstddef>
#include <map>

namespace fakes {

struct Memory {
    bool exhausted = false;              ///< calloc fails
    size_t lastSize = 0;                 ///< of the last allocation
    std::map<const void *, size_t> live; ///< the sizes of what was not freed, by address

    bool holds(const void *address) const;
};

Memory &memory();

} // namespace fakes
