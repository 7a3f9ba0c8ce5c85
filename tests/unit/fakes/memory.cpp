#include "memory.h"

#include "faults.h"
#include "journal.h"

#include <cerrno>
#include <cstdlib>
#include <iterator>

using fakes::detail;
using fakes::memory;

bool fakes::Memory::holds(const void *address) const
{
    const auto behind = live.upper_bound(address);
    if (behind == live.begin())
        return false;
    const auto &[start, size] = *std::prev(behind);
    return address < static_cast<const char *>(start) + size;
}

fakes::Memory &fakes::memory()
{
    static Memory &instance = *new Memory; // outlives every other static object
    return instance;
}

extern "C" {

void *fake_calloc(size_t count, size_t size)
{
    detail("calloc %zu %zu", count, size);
    if (fakes::fails("calloc") || memory().exhausted) {
        errno = ENOMEM;
        return nullptr;
    }
    memory().lastSize = count * size;
    void *const block = calloc(count, size);
    memory().live[block] = count * size;
    return block;
}

void fake_free(void *block)
{
    detail("free");
    if (memory().live.erase(block) == 0)
        fakes::misuse("free of what was not allocated");
    free(block);
}
}
