/// The device's closed libraries, as far as the daemon calls them: readings that a test chooses,
/// and a line in the journal for every call.

#pragma once

#include <array>
#include <optional>

namespace fakes {

struct PortBytes {
    unsigned long long in;
    unsigned long long out;
};

struct Vendor {
    int gponState = 5;
    float laserPower = -20.0F; ///< stored by every reading, also by one that fails
    int laserResult = 1;
    std::array<std::optional<PortBytes>, 8> ports; ///< by number; empty: cannot be read
    int portResult = -1;                           ///< of a port that can; nonzero is success
    int storeResult = 0;                           ///< of the configuration store
};

Vendor &vendor();

} // namespace fakes
