/// The reset button's state machine beside its table, for any samples and any result of fork.

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fuzz.h"
#include "input.h"

#include <cstdlib>
#include <sys/types.h>

using fuzz::did;
using fuzz::due;

namespace {

int button;
int childId;

enum class State { Idle, Held, Finished };

/// One sample in the state table.
State next(State state, int sample)
{
    if (state == State::Finished)
        return state;
    due("sample");
    if (sample == 0 && state == State::Idle)
        return state;
    if (sample != 0 && state == State::Idle)
        due("mode 2");
    if (sample != 0 && sample < 5)
        return State::Held;
    due(sample == 0 ? "log doReboot: rebooting...\n" : "log doDefault: resetting to defaults...\n");
    due(sample == 0 ? "mode 2" : "mode 3");
    due("fork");
    if (childId == 0) {
        due(sample == 0 ? "reboot" : "restore");
        due("exit 0");
    }
    return State::Finished;
}

} // namespace

extern "C" {

int platform_getResetButton()
{
    did("sample");
    return button;
}

void display_setMode(int32_t mode)
{
    did("mode %d", mode);
}

int syscfg_reboot()
{
    did("reboot");
    return -1; // nobody looks at it
}

int syscfg_restoreDefaultBg()
{
    did("restore");
    return -1; // nobody looks at it
}

pid_t fuzz_fork()
{
    did("fork");
    return childId;
}

[[noreturn]] void fuzz_exit(int status)
{
    did("exit %d", status);
    throw fuzz::Exit{status};
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restoreModule();
    fakes::journal().recording = false;
    fakes::eventLoop() = {};
    event_init();
    if (input_register() != 0)
        fuzz::wrong("the timer was not added");
    const int8_t forkResult = input.take<int8_t>();
    childId = forkResult;
    State state = State::Idle;
    while (!input.empty()) {
        const auto small = input.take<int8_t>();
        button = small == INT8_MIN ? input.take<int32_t>() : small;
        const bool before = state == State::Finished;
        state = next(state, button);
        bool left = false;
        try {
            fakes::eventLoop().run(std::chrono::seconds(1));
        } catch (const fuzz::Exit &) {
            left = true;
        }
        fuzz::compare();
        if (left != (childId == 0 && !before && state == State::Finished))
            fuzz::wrong("the child, and only the child, exits");
        if (fakes::eventLoop().isPending(-1) != (state != State::Finished))
            fuzz::wrong("sampling ends with the first action, and not before");
    }
    return 0;
}
}
