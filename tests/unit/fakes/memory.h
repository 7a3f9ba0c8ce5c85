/// calloc(3) that fails on demand, and a count of the allocations that were not freed.

#pragma once

#include <cstddef>

namespace fakes {

struct Memory {
    bool exhausted = false; ///< calloc fails
    size_t live = 0;
    size_t lastSize = 0; ///< of the last allocation
};

Memory &memory();

} // namespace fakes
