#include "faults.h"

#include <csignal>
#include <filesystem>
#include <stdexcept>

namespace kelo {

namespace {

// Notes which faults a board has.
constexpr char folder[] = "/board/faults/";

// The file is replaced in one step, so that the daemon finds the one or the other.
#define REPLACE_LED_FILE                                                                           \
    "cd proc/tc3162; [ -e .gpio_output ] || ln gpio_output .gpio_output\n"                         \
    "replace() { ln -s \"$1\" .new; mv -T .new gpio_output; }\n"
#define RESTORE_LED_FILE                                                                           \
    "(cd proc/tc3162; ln .gpio_output .new; mv -T .new gpio_output; rm -f .new)\n"

void runScript(const Access &board, const char *script, const std::string &argument = "")
{
    const Result result = board.exec(
        {"sh", "-euc", std::string("cd \"$1\"\n") + script, "fault", board.place().root, argument});
    if (result.status != 0)
        throw std::runtime_error("the board refuses: " +
                                 result.output.substr(0, result.output.find('\n')));
}

} // namespace

const std::vector<Fault> &faults()
{
    static const std::vector<Fault> all = {
        // In place of the file comes a link that leads nowhere, or the daemon would create it.
        {"led-missing", "the LED file is not there", false,
         REPLACE_LED_FILE "replace /gone/gpio_output", RESTORE_LED_FILE},
        {"led-failing", "writes to the LED file fail", true,
         "touch dev/full; mount --bind /dev/full dev/full\n" REPLACE_LED_FILE "replace /dev/full",
         RESTORE_LED_FILE "umount -l dev/full"},
        {"button-missing", "the button file is not there", false,
         "mv proc/tc3162/reset_button proc/tc3162/.reset_button",
         "mv proc/tc3162/.reset_button proc/tc3162/reset_button"},
        {"run-full", "no space is left in /var/run", true,
         "cat /dev/zero > var/run/.filler 2> /dev/null || true", "rm var/run/.filler"},
        {"run-readonly", "/var/run is read-only", true, "mount -o remount,bind,ro var/run",
         "mount -o remount,bind,rw var/run"},
        {"store-refusing", "the configuration store takes no values", true,
         "mount --bind board/store board/store; mount -o remount,bind,ro board/store",
         "umount board/store"},
        {"omci-slow", "the omci command takes a second", false, "echo 'sleep 1' > board/omci",
         "rm board/omci"},
        {"omci-failing", "the omci command fails", false, "echo 'exit 1' > board/omci",
         "rm board/omci"},
        {"omci-missing", "there is no omci command", false, "mv usr/bin/omci usr/bin/.omci",
         "mv usr/bin/.omci usr/bin/omci"},
    };
    return all;
}

const Fault *findFault(const std::string &name)
{
    for (const Fault &fault : faults()) {
        if (name == fault.name)
            return &fault;
    }
    return nullptr;
}

bool hasFault(const Access &board, const Fault &fault)
{
    return std::filesystem::exists(board.path(folder + std::string(fault.name)));
}

void setFault(const Access &board, const Fault &fault, bool on)
{
    if (hasFault(board, fault) == on)
        return;
    if (fault.mounts && !board.place().isolated)
        throw std::runtime_error(std::string("the fault ") + fault.name +
                                 " needs a board with namespaces of its own");
    runScript(board, on ? fault.on : fault.off);
    const std::string note = board.path(folder + std::string(fault.name));
    if (on) {
        std::filesystem::create_directories(board.path(folder));
        board.put(folder + std::string(fault.name), "");
    } else {
        std::filesystem::remove(note);
    }
}

void overrunNetlink(const Access &board, int changes)
{
    if (!board.place().isolated)
        throw std::runtime_error(
            "this board is on the machine's own network, which stays as it is");
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
