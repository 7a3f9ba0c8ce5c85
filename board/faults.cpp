#include "faults.h"

#include <csignal>
#include <sstream>
#include <stdexcept>

namespace kelo {

namespace {

// Notes which faults a board has.
constexpr char folder[] = "/board/faults/";

/// What a fault breaks: what its name begins with.
std::string thingOf(const Fault &fault)
{
    const std::string name = fault.name;
    return name.substr(0, name.find('-'));
}

// The file is replaced in one step, so that the daemon finds the one or the other.
#define REPLACE_LED_FILE "replace() { ln -s \"$1\" .new; mv -T .new proc/tc3162/gpio_output; }\n"
#define RESTORE_LED_FILE "ln dev/channel .new; mv -T .new proc/tc3162/gpio_output; rm -f .new\n"

void runScript(const Access &board, const char *script, const std::string &argument = "")
{
    const Result result = board.exec({"sh", "-euc", std::string("cd \"$1\"\n") + script, "fault",
                                      board.form().root(), argument});
    if (result.status != 0)
        throw std::runtime_error("the board refuses: " +
                                 result.output.substr(0, result.output.find('\n')));
}

} // namespace

const std::vector<Fault> faults = {
    // In place of the file comes a link that leads nowhere, or the daemon would create it.
    {"led-missing", "the LED file is not there", Ability::FileFaults,
     REPLACE_LED_FILE "replace /gone/gpio_output", RESTORE_LED_FILE},
    {"led-failing", "writes to the LED file fail", Ability::FileFaults,
     "touch dev/full; mount --bind /dev/full dev/full\n" REPLACE_LED_FILE "replace /dev/full",
     RESTORE_LED_FILE "umount -l dev/full"},
    {"button-missing", "the button file is not there", Ability::FileFaults,
     "mv proc/tc3162/reset_button proc/tc3162/.reset_button",
     "mv proc/tc3162/.reset_button proc/tc3162/reset_button"},
    {"run-full", "no space is left in /var/run", Ability::Network,
     "cat /dev/zero > var/run/.filler 2> /dev/null || true", "rm var/run/.filler"},
    {"run-readonly", "/var/run is read-only", Ability::Network, "mount -o remount,bind,ro var/run",
     "mount -o remount,bind,rw var/run"},
    {"store-refusing", "the configuration store takes no values", Ability::Network,
     "mount --bind board/store board/store; mount -o remount,bind,ro board/store",
     "umount board/store"},
    {"omci-slow", "the omci command takes a second", Ability::Always, "echo 'sleep 1' > board/omci",
     "rm board/omci"},
    {"omci-failing", "the omci command fails", Ability::Always, "echo 'exit 1' > board/omci",
     "rm board/omci"},
    {"omci-missing", "there is no omci command", Ability::Always, "mv usr/bin/omci usr/bin/.omci",
     "mv usr/bin/.omci usr/bin/omci"},
};

const Fault *findFault(const std::string &name)
{
    for (const Fault &fault : faults) {
        if (name == fault.name)
            return &fault;
    }
    return nullptr;
}

const Words faultsRequest = {"list", folder};

std::set<std::string> faultsOf(const Access &board)
{
    return toFaults(board.attempt(faultsRequest).value_or(""));
}

std::set<std::string> toFaults(const std::string &text)
{
    std::istringstream lines(text);
    std::set<std::string> names;
    for (std::string name; std::getline(lines, name);)
        names.insert(name);
    return names;
}

void setFault(const Access &board, const Fault &fault, bool on)
{
    const std::set<std::string> present = faultsOf(board);
    if (present.contains(fault.name) == on)
        return;
    board.require(fault.needs);
    for (const Fault &other : faults) {
        if (on && thingOf(other) == thingOf(fault) && present.contains(other.name))
            setFault(board, other, false);
    }
    runScript(board, on ? fault.on : fault.off);
    const std::string note = std::string(folder) + fault.name;
    if (on)
        board.put(note, "");
    else
        board.remove(note);
}

void overrunNetlink(const Access &board, int changes)
{
    board.require(Ability::Network);
    if (!board.signalDaemon(SIGSTOP))
        throw std::runtime_error("the daemon does not run");
    const auto goOn = [&] { board.signalDaemon(SIGCONT); };
    try {
        runScript(board,
                  "i=0\n"
                  "while [ $i -lt $2 ]; do\n"
                  "    echo addr add 198.18.$((i / 250)).$((i % 250 + 1))/32 dev br0\n"
                  "    echo addr del 198.18.$((i / 250)).$((i % 250 + 1))/32 dev br0\n"
                  "    i=$((i + 1))\n"
                  "done | ip -batch -",
                  std::to_string(changes));
    } catch (...) {
        goOn();
        throw;
    }
    goOn();
}

} // namespace kelo
