/// What kelo-board's subcommands share. A file here holds a group of subcommands; each adds itself
/// to the command line with one call in main.cpp.

#pragma once

#include "board.h"
#include "registry.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelo {

/// What a command could not do, said in one line; the exit status is 1.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A command line that makes no sense, said in one line; the exit status is 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Cli {
    CLI::App app{"Runs kelo-monitord on a simulated board.", "kelo-board"};
    std::string board = "board"; ///< the board to talk to, or the new board's name
    int status = 0;              ///< the program's exit status

    /// Adds a subcommand; `action` gives the exit status. Values that options write to live in the
    /// action: see addMode for the pattern.
    CLI::App *add(const std::string &name, const std::string &description,
                  std::function<int()> action)
    {
        return addTo(app, name, description, std::move(action));
    }
    CLI::App *addTo(CLI::App &parent, const std::string &name, const std::string &description,
                    std::function<int()> action)
    {
        CLI::App *const command = parent.add_subcommand(name, description);
        command->callback([this, action = std::move(action)] { status = action(); });
        return command;
    }

    /// The board of the command line. Throws Failure when it does not run.
    Access running() const;
};

void addUp(Cli &cli);
void addSet(Cli &cli);
void addMode(Cli &cli);
void addExec(Cli &cli);

/// Prints an event as lines that carry time and kind; what the daemon polls all the time is left
/// out.
void printEvent(const Event &event, Clock::time_point start);

} // namespace kelo
