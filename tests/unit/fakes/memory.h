/// calloc(3) that fails on demand, and a count of the allocations that were not freed.

#pragma once

#include <cstddef>

namespace fakes {

struct Memory {
    bool exhausted = false; ///< calloc fails
    size_t live = 0;
};

Memory &memory();

} // namespace fakes
