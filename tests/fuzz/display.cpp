/// The front panel: any chunks in the pipe, modes, readings and times, beside its tables.

#include "display.h"

#include "fakes/event_loop.h"
#include "fakes/journal.h"
#include "fuzz.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/types.h>

using fakes::EventLoop;
using fakes::eventLoop;
using fuzz::did;
using fuzz::due;

namespace {

constexpr const char *path = "/var/run/kelo-monitord.display";

// What the neighbours do.
int nextFd;
int openFd; // -1: none
bool openFails;
bool mkfifoFails;
std::string chunk; // what is in the pipe
int readError;
float power;
int powerResult;
int gponUp;
int level;
std::string panel; // the flags that were written since all six were

/// Patterns as the tables show them, and how they follow each other.
struct Timed {
    int mode;
    const char *keyword;
    int milliseconds; // 0: a static mode
    int counter;      // which of the counters it counts
    std::array<const char *, 4> phases;
};

// In the order in which the pipe tries them.
constexpr std::array<Timed, 9> modes = {{
    {0, "none", 0, 0, {"000000"}},
    {1, "signal", 500, 0, {}},
    {2, "reboot", 250, 1, {"000111", "000000", "000111", "000000"}},
    {3, "restore", 100, 2, {"000100", "000110", "000111", "000000"}},
    {4, "errora12", 0, 0, {"010000"}},
    {5, "locateme", 250, 3, {"111000", "000000", "000111", "000000"}},
    {6, "ledtest", 3000, 4, {"111111", "000000", "111111", "000000"}},
    {8, "facttesterr", 500, 5, {"001110", "010101", "100011", "010101"}},
    {7, "facttest", 500, 5, {"001000", "010000", "100000", "010000"}},
}};
constexpr std::array<const char *, 5> bars = {"000100", "100000", "110000", "111000", "110001"};

/// The display as it should be.
class Model {
public:
    void start()
    {
        due("init 678234");
        setMode(1);
        due("unlink %s", path);
        due("mkfifo %s 600", path);
        if (mkfifoFails)
            due("log display_register: Failed to create fifo \"%s\"\n", path);
        else
            open();
    }

    void setMode(int32_t mode)
    {
        if (mode == mode_)
            return;
        due("log display_setMode: switch display mode %d -> %d\n", mode_, mode);
        mode_ = mode;
        current_ = nullptr;
        for (const Timed &candidate : modes) {
            if (candidate.mode == mode)
                current_ = &candidate;
        }
        if (current_ && current_->milliseconds == 0) {
            due("leds %s", current_->phases[0]);
            current_ = nullptr;
        }
        if (current_) {
            active_ = true;
            deadline_ = now_ + current_->milliseconds;
        }
    }

    void run(int milliseconds)
    {
        const int end = now_ + milliseconds;
        tickAtOnce();
        while (current_ && deadline_ <= end) {
            now_ = deadline_;
            deadline_ += current_->milliseconds;
            tick();
            tickAtOnce();
        }
        now_ = end;
    }

    void readable(const void *argument)
    {
        due("log readDisplayMode: readDisplayMode called with fd: %d, event: 2, arg: %p\n", fd_,
            argument);
        due("read %d 127", fd_);
        const auto received = static_cast<int>(readError != 0 ? -1 : std::min(127, size()));
        if (received <= 0) {
            due("log readDisplayMode: received len: %d\n", received);
            open();
            return;
        }
        const std::string text = chunk.substr(0, 127).c_str();
        due("log readDisplayMode: received \"%s\"\n", text.c_str());
        for (const Timed &mode : modes) {
            if (text.rfind(mode.keyword, 0) == 0) {
                setMode(mode.mode);
                return;
            }
        }
    }

    int fd() const { return fd_; }

private:
    static int size() { return static_cast<int>(chunk.size()); }

    void open()
    {
        if (fd_ != -1)
            due("close %d", fd_);
        due("open %s", path);
        fd_ = openFails ? -1 : nextFd;
        if (openFails)
            due("log openDisplayModeFifo: Failed to open socket \"%s\"\n", path);
    }

    void tickAtOnce()
    {
        while (active_ && current_) {
            active_ = false;
            tick();
        }
    }

    void tick()
    {
        active_ = false;
        unsigned &count = counts_[static_cast<size_t>(current_->counter)];
        if (mode_ == 1) {
            signal(count);
            count++;
            return;
        }
        due("leds %s", current_->phases[count % 4]);
        count++;
        if (mode_ == 5 && count >= 120) {
            count = 0;
            setMode(1);
        }
    }

    void signal(unsigned count)
    {
        if (count % 6 == 0) {
            due("power");
            power_ = powerResult != 0 ? power : 0;
        }
        if (power_ == 0 || power_ <= -40) {
            due("leds 000111");
            return;
        }
        due("level");
        due("gpon");
        if (gponUp == 0 && count % 2 == 0)
            due("leds 010101");
        else
            due("leds %s", level >= 0 && level < 5 ? bars[static_cast<size_t>(level)] : "000000");
    }

    int32_t mode_ = 0;
    const Timed *current_ = nullptr; // null: no timer runs
    bool active_ = false;
    int now_ = 0;
    int deadline_ = 0;
    std::array<unsigned, 6> counts_ = {};
    float power_ = 0;
    int fd_ = -1;
};

} // namespace

extern "C" {

int platform_ledInit(uint8_t gpio)
{
    panel += static_cast<char>('0' + gpio);
    if (panel.size() == 6) {
        did("init %s", panel.c_str());
        panel.clear();
    }
    return 0;
}

int platform_ledSet(uint8_t gpio, uint8_t on)
{
    constexpr std::string_view order = "678234";
    if (gpio != order[panel.size()] - '0' || on > 1)
        fuzz::wrong("the LEDs are written in another order");
    panel += on ? '1' : '0';
    if (panel.size() == order.size()) {
        did("leds %s", panel.c_str());
        panel.clear();
    }
    return 0;
}

uint8_t platform_isGponUp()
{
    did("gpon");
    return static_cast<uint8_t>(gponUp);
}

int platform_getLaserRxPowerLevel(float)
{
    did("level");
    return level;
}

int syscfg_getLaserInfo(float *rxPower, void *second, void *third, void *fourth, void *fifth)
{
    if (second || third || fourth || fifth)
        fuzz::wrong("more than the power is asked for");
    did("power");
    *rxPower = power;
    return powerResult;
}

int fuzz_open(const char *name, int flags, ...)
{
    did("open %s", name);
    if (flags != (O_RDONLY | O_NONBLOCK))
        fuzz::wrong("the pipe is opened in another way");
    if (openFd != -1)
        fuzz::wrong("the pipe is open twice");
    if (!openFails)
        openFd = nextFd;
    return openFd;
}

int fuzz_close(int fd)
{
    if (fd != openFd)
        fuzz::wrong("a close of another descriptor");
    did("close %d", fd);
    openFd = -1;
    return 0;
}

ssize_t fuzz_read(int fd, void *buffer, size_t size)
{
    did("read %d %d", fd, static_cast<int>(size));
    if (readError != 0) {
        errno = readError;
        return -1;
    }
    const size_t length = std::min(size, chunk.size());
    memset(buffer, '#', size); // behind what was read, too
    if (length > 0)
        memcpy(buffer, chunk.data(), length);
    return static_cast<ssize_t>(length);
}

int fuzz_unlink(const char *name)
{
    did("unlink %s", name);
    return -1; // nobody looks at it
}

int fuzz_mkfifo(const char *name, mode_t mode)
{
    did("mkfifo %s %o", name, mode);
    return mkfifoFails ? -1 : 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restoreModule();
    fakes::journal().recording = false;
    eventLoop() = {};
    event_init();
    nextFd = 3;
    openFd = -1;
    power = -20;
    powerResult = 1;
    gponUp = 1;
    level = 4;
    const uint8_t failures = input.byte();
    mkfifoFails = failures == 1;
    openFails = failures == 2;
    Model model;
    model.start();
    display_register();
    while (!input.empty()) {
        switch (const uint8_t operation = input.byte(); operation % 6) {
        case 0:
        case 1: {
            const uint8_t how = input.byte();
            readError = how >= 250 ? EAGAIN : 0;
            openFails = how == 251 || how == 249;
            chunk = input.text(how == 249 ? 0 : how);
            nextFd = 3 + input.byte() % 8;
            if (const int fd = model.fd(); fd != -1) {
                model.readable(eventLoop().find(fd)->argument);
                eventLoop().readable(fd);
            }
            break;
        }
        case 2:
        case 3: {
            const int milliseconds = input.byte() * 25;
            model.run(milliseconds);
            eventLoop().run(std::chrono::milliseconds(milliseconds));
            break;
        }
        case 4: {
            const auto small = input.take<int8_t>();
            const int32_t mode = small == INT8_MIN ? input.take<int32_t>() : small;
            model.setMode(mode);
            display_setMode(mode);
            break;
        }
        default: {
            const uint8_t how = input.byte();
            powerResult = how & 1 ? -1 : 0;
            gponUp = how >> 4;
            level = how & 8 ? input.take<int8_t>() : how >> 1 & 7;
            power = how & 2 ? input.take<float>() : static_cast<float>(input.take<int8_t>()) / 2;
            break;
        }
        }
        if (openFd != model.fd() || (openFd != -1 && !eventLoop().isPending(openFd)))
            fuzz::wrong("the pipe is not watched as it should be");
    }
    fuzz::compare();
    return 0;
}
}
