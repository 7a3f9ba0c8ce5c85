/// How kelo-board finds a running board by name: the program that runs it listens on an abstract
/// unix(7) socket, which ends with that program whatever happens to it.

#pragma once

#include "access.h"

#include <optional>
#include <string>
#include <thread>

namespace kelo {

/// Answers for a board that this process runs, until it is destroyed.
class Registration {
public:
    /// Throws std::runtime_error when a board of this name runs already.
    Registration(const std::string &name, Place place);
    ~Registration();
    Registration(const Registration &) = delete;
    Registration &operator=(const Registration &) = delete;

private:
    void answer() const;

    Place place_;
    Descriptor socket_;
    Pipe end_;
    std::thread thread_;
};

/// Where the board of this name runs; nothing when none does. Only boards of the caller's own user
/// are found.
std::optional<Place> findBoard(const std::string &name);

} // namespace kelo
