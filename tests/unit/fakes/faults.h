/// The calls that can fail, one by one: every fake of such a call asks here first whether this is
/// the one to fail. Tests of a single failure use the results that each fake lets them choose.

#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace fakes {

/// Decides on a call by its name and by what it is made on, a path, a descriptor or nothing.
using ChooseFailure = std::function<bool(const std::string &call, const std::string &object)>;

/// Empty at first: no call fails.
ChooseFailure &chooseFailure();

/// Whether this call is to fail; errno is EIO then, and the journal has "failed CALL OBJECT".
bool fails(const char *call, std::string_view object = "");

} // namespace fakes
