#include "faults.h"

#include "journal.h"

#include <cerrno>

namespace fakes {

ChooseFailure &chooseFailure()
{
    static auto &instance = *new ChooseFailure; // outlives every other static object
    return instance;
}

bool fails(const char *call, std::string_view object)
{
    if (!chooseFailure() || !chooseFailure()(call, std::string(object)))
        return false;
    note("failed %s %s", call, std::string(object).c_str());
    errno = EIO;
    return true;
}

} // namespace fakes
