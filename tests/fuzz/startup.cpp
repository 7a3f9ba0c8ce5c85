/// main: any arguments, any step of detaching failing, any signals while it runs.

#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/process.h"
#include "fuzz.h"

#include <array>
#include <csignal>
#include <unistd.h>

using fakes::process;
using fuzz::due;

extern "C" int daemon_main(int argc, char **argv);

namespace {

constexpr size_t argumentsMax = 6;
constexpr int ending[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

/// How often the option d occurs before "--", options and arguments in any order.
int countOptions(const std::array<std::string, argumentsMax> &arguments, size_t count)
{
    int found = 0;
    for (size_t i = 1; i < count; i++) {
        const std::string &argument = arguments[i];
        if (argument == "--")
            break;
        if (argument.size() < 2 || argument[0] != '-')
            continue;
        for (const char character : argument.substr(1))
            found += character == 'd' ? 1 : 0;
    }
    return found;
}

/// What detaching does; false when it ends the process.
bool expectDetaching()
{
    due("fork");
    if (process().forkResult != 0) {
        due("exit %d", process().forkResult < 0 ? 1 : 0);
        return false;
    }
    due("umask 000");
    due("setsid");
    if (process().setsidResult >= 0)
        due("chdir /");
    if (process().setsidResult < 0 || process().chdirResult < 0) {
        due("exit 1");
        return false;
    }
    for (const int fd : {0, 1, 2})
        due("close %d", fd);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restart();
    process().forkResult = input.small() / 32;
    process().setsidResult = input.small();
    process().chdirResult = input.small();
    fakes::files().closeFails = true; // nobody looks at it
    const uint8_t signals = input.byte();
    const size_t count = 1 + input.byte() % (argumentsMax - 1);
    std::array<std::string, argumentsMax> arguments = {"kelo-monitord"};
    std::array<char *, argumentsMax + 1> argv = {};
    for (size_t i = 0; i < count; i++) {
        if (i > 0)
            arguments[i] = fuzz::upToNul(input.text(input.byte() % 8));
    }
    const auto given = arguments; // getopt sorts the pointers
    for (size_t i = 0; i < count; i++)
        argv[i] = arguments[i].data();

    const int options = countOptions(given, count);
    for (int i = 0; i < options; i++)
        due("stderr kelo-monitord: Launching as daemon...");
    if (options == 0 || expectDetaching()) {
        due("event_init");
        for (const int signal : ending) {
            due("event_set fd=%d flags=0x18", signal);
            due("event_add fd=%d", signal);
        }
        for (const char *const module : {"netinfo", "ipinfo", "display", "input"})
            due("%s_register", module);
        due("event_base_dispatch");
        for (unsigned raised = signals & 15; raised != 0; raised &= raised - 1)
            due("event_base_loopexit now");
        due("exit 0");
    }
    fakes::eventLoop().dispatchResult = input.small();
    fakes::eventLoop().duringDispatch = [signals] {
        if (fakes::eventLoop().pendingCount() != 4)
            fuzz::wrong("other than four signals are waited for");
        for (unsigned i = 0; i < 4; i++) {
            if (signals & (1U << i))
                fakes::eventLoop().raise(ending[i]);
        }
    };
    optind = 0; // getopt begins anew
    opterr = 0; // and quietly
    try {
        daemon_main(static_cast<int>(count), argv.data());
        fuzz::wrong("main returned");
    } catch (const fakes::Exit &) {
        for (const std::string &line : fakes::journal().take())
            fakes::journal().add(line.substr(0, line.find('\n'))); // without a record's location
        fuzz::compare();
    }
    return 0;
}