#include "memory.h"

#include "faults.h"

#include <cerrno>
#include <cstdlib>
#include <set>

namespace {

std::set<void *> &blocks()
{
    static auto &instance = *new std::set<void *>; // outlives every other static object
    return instance;
}

} // namespace

fakes::Memory &fakes::memory()
{
    static Memory &instance = *new Memory; // outlives every other static object
    return instance;
}

extern "C" {

void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);

void *__wrap_calloc(size_t count, size_t size)
{
    if (fakes::fails("calloc") || fakes::memory().exhausted) {
        errno = ENOMEM;
        return nullptr;
    }
    fakes::memory().lastSize = count * size;
    void *const block = __real_calloc(count, size);
    if (block && blocks().insert(block).second)
        fakes::memory().live++;
    return block;
}

void __wrap_free(void *block)
{
    if (blocks().erase(block) != 0)
        fakes::memory().live--;
    __real_free(block);
}
}
