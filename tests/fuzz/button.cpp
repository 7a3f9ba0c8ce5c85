/// The reset button's state machine beside its table, for any samples and any result of fork.

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/process.h"
#include "fuzz.h"
#include "input.h"

using fuzz::due;

namespace {

enum class State { Idle, Held, Finished };

/// One sample in the state table.
State next(State state, int sample)
{
    if (state == State::Finished)
        return state;
    due("platform_getResetButton");
    if (sample == 0 && state == State::Idle)
        return state;
    if (sample != 0 && state == State::Idle)
        due("display_setMode 2");
    if (sample != 0 && sample < 5)
        return State::Held;
    due(sample == 0 ? "log input.cpp doReboot: rebooting...\n"
                    : "log input.cpp doDefault: resetting to defaults...\n");
    due("event_del fd=-1");
    due(sample == 0 ? "display_setMode 2" : "display_setMode 3");
    due("fork");
    if (fakes::process().forkResult == 0) {
        due(sample == 0 ? "syscfg_reboot" : "syscfg_restoreDefaultBg");
        due("exit 0");
    }
    return State::Finished;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restart();
    fakes::board() = {};
    event_init();
    if (input_register() != 0)
        fuzz::wrong("the timer was not added");
    fakes::journal().take();
    fakes::process().forkResult = input.small();
    State state = State::Idle;
    while (!input.empty()) {
        const int small = input.small();
        const int sample = small == INT8_MIN ? input.take<int32_t>() : small;
        fakes::board().resetButton = sample;
        const bool before = state == State::Finished;
        state = next(state, sample);
        bool left = false;
        try {
            fakes::eventLoop().run(std::chrono::seconds(1));
        } catch (const fakes::Exit &) {
            left = true;
        }
        fuzz::compare();
        if (left != (fakes::process().forkResult == 0 && !before && state == State::Finished))
            fuzz::wrong("the child, and only the child, exits");
        if (fakes::eventLoop().isPending(-1) != (state != State::Finished))
            fuzz::wrong("sampling ends with the first action, and not before");
    }
    return 0;
}
