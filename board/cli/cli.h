/// What kelo-board's subcommands share. A file here holds a group of subcommands; each adds itself
/// to the command line with one call in main.cpp.

#pragma once

#include "board.h"
#include "registry.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
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

// The headings under which --help lists the subcommands.
constexpr char runningGroup[] = "Run boards";
constexpr char hardwareGroup[] = "Turn the hardware";
constexpr char daemonGroup[] = "Handle the daemon";
constexpr char lookGroup[] = "Look at a board";
constexpr char testGroup[] = "Test";

struct Cli {
    CLI::App app{"Runs kelo-monitord on a simulated board.", "kelo-board"};
    std::string board = "board"; ///< the board to talk to, or the new board's name
    bool json = false;           ///< for a program that reads the output
    int status = 0;              ///< the program's exit status

    /// Adds a subcommand. Values that its options write to live in the action: see addMode for the
    /// pattern.
    CLI::App *add(const char *group, const std::string &name, const std::string &description,
                  std::function<void()> action);
    /// The same for a subcommand of a subcommand.
    CLI::App *addTo(CLI::App &parent, const std::string &name, const std::string &description,
                    std::function<void()> action);
    /// The same for one that has the program that runs the board do something.
    CLI::App *addRequest(const char *group, const std::string &name, const std::string &description,
                         const Words &what);
    /// Gives a subcommand the option --json.
    void addJson(CLI::App &command);

    /// Words that may stand behind a subcommand, for completion.
    std::map<const CLI::App *, std::function<std::vector<std::string>()>> words;

    /// The board of the command line. Throws BoardGone when it does not run.
    Access running() const { return openBoard(board); }
};

/// Gives a subcommand that starts a board the option --on.
void addForm(CLI::App &command);
/// Gives a subcommand that starts boards the options --daemon and --sdk.
void addReplacements(CLI::App &command);

void addUp(Cli &cli);
void addPanel(Cli &cli);
void addDown(Cli &cli);
void addList(Cli &cli);
void addSet(Cli &cli);
void addButton(Cli &cli);
void addMode(Cli &cli);
void addFault(Cli &cli);
void addDaemon(Cli &cli);
void addExec(Cli &cli);
void addProvider(Cli &cli);
void addLook(Cli &cli);
void addExpect(Cli &cli);
void addRun(Cli &cli);
void addCompletion(Cli &cli);
void addRecord(Cli &cli);
void addPlot(Cli &cli);
void addReport(Cli &cli);
void addWeb(Cli &cli);

/// Tells events from those that only repeat what is known: the daemon's polling, and LEDs and
/// snapshots that are as they were.
class News {
public:
    bool is(const Event &event);

private:
    std::string leds_;
    std::string snapshot_;
};

/// An event's text as a person reads it.
std::string shownText(const Event &event);

/// Prints events as lines that carry time and kind, or as JSON.
class EventPrinter {
public:
    explicit EventPrinter(Clock::time_point start, bool json = false, FILE *out = stdout)
        : start_(start), json_(json), out_(out)
    {
    }
    void print(const Event &event) const;
    void printNews(const Event &event)
    {
        if (news_.is(event))
            print(event);
    }

private:
    Clock::time_point start_;
    bool json_;
    FILE *out_;
    News news_;
};

/// The keywords of the display modes, in the order of their numbers.
std::vector<std::string> modeKeywords();
/// A display mode's number by keyword or number. Throws UsageError.
std::string modeNumber(const std::string &name);

/// A signal's number by name, "SIG" before it or not, or number. Throws UsageError.
int signalNumber(std::string name);

/// A port's number by name or number. Throws UsageError.
int portNumber(const std::string &name);

/// A text that is all one number; a whole one in decimal.
template <class Number>
std::optional<Number> parsed(const std::string &text)
{
    Number number;
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

/// A number from 0 to 2^64 - 1. Throws UsageError.
unsigned long long toNumber(const std::string &text);

/// A length of time: "3", "1.5s", "250ms", "2m". Throws UsageError.
Clock::duration toDuration(const std::string &text);

/// Tells the ends of the daemon that matter to a test: those that nobody asked for.
bool isUnasked(const Event &event);
/// Such an end in a line, and the last log records before it in a line each.
std::string unaskedText(const Event &exit, const std::vector<Event> &events);

/// Says on standard error when a record is not kept from the board's start on.
void sayRecordBegins(Clock::time_point start, Clock::time_point kept);

/// Starts a board in a process and a session of its own, and returns once its daemon runs; without
/// arguments for the daemon, it does not. A tied board ends with the descriptor that is returned.
/// Throws Failure.
Descriptor startApart(const std::string &name,
                      const std::optional<std::vector<std::string>> &daemonArguments,
                      size_t keptMegabytes, bool tied);

/// Lets time pass on a running board. Throws BoardGone when the board ends, and Failure when the
/// daemon did so unasked since the mark, or does, unless that is allowed.
void letPass(const std::string &board, Clock::duration time, bool allowExit);

} // namespace kelo
