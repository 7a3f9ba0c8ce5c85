/// The front panel: any chunks in the pipe, modes, readings and times, beside its tables.

#include "display.h"

#include "fakes/board.h"
#include "fakes/event_loop.h"
#include "fakes/files.h"
#include "fakes/vendor.h"
#include "fuzz.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <string_view>

using fakes::board;
using fakes::eventLoop;
using fakes::files;
using fakes::vendor;
using fuzz::due;

namespace {

constexpr const char *path = "/var/run/kelo-monitord.display";

constexpr std::string_view order = "678234";

std::string chunk; // what is in the pipe

void draw(const char *pattern)
{
    due("leds %s", pattern);
}

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
        for (const char gpio : order)
            due("platform_ledInit %d", gpio - '0');
        setMode(1);
        due("unlink %s", path);
        due("mkfifo %s 0600", path);
        if (files().fileErrors[path] != 0)
            due("log display.cpp display_register: Failed to create fifo \"%s\"\n", path);
        else
            open();
    }

    void setMode(int32_t mode)
    {
        if (mode == mode_)
            return;
        due("log display.cpp display_setMode: switch display mode %d -> %d\n", mode_, mode);
        if (timerSet_)
            due("event_del fd=-1");
        mode_ = mode;
        current_ = nullptr;
        for (const Timed &candidate : modes) {
            if (candidate.mode == mode)
                current_ = &candidate;
        }
        if (current_ && current_->milliseconds == 0) {
            draw(current_->phases[0]);
            current_ = nullptr;
        }
        if (current_) {
            due("event_set fd=-1 flags=0x10");
            due("event_add fd=-1 every %dus", current_->milliseconds * 1000);
            due("event_active fd=-1 result=0 calls=0");
            timerSet_ = active_ = true;
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
        due("log display.cpp readDisplayMode: readDisplayMode called with fd: %d, event: 2, arg: "
            "%p\n",
            fd_, argument);
        due("read fd=%d size=127", fd_);
        const auto received = static_cast<int>(files().readError != 0 ? -1 : std::min(127, size()));
        if (received <= 0) {
            due("log display.cpp readDisplayMode: received len: %d\n", received);
            due("event_del fd=%d", fd_);
            open();
            return;
        }
        const std::string text = fuzz::upToNul(chunk.substr(0, 127));
        due("log display.cpp readDisplayMode: received \"%s\"\n", text.c_str());
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
        due("open %s 0x%x", path, static_cast<unsigned>(O_RDONLY | O_NONBLOCK));
        const bool openFails = files().openErrors[path] != 0;
        fd_ = openFails ? -1 : files().nextDescriptor;
        if (openFails) {
            due("log display.cpp openDisplayModeFifo: Failed to open socket \"%s\"\n", path);
            return;
        }
        due("event_set fd=%d flags=0x12", fd_);
        due("event_add fd=%d", fd_);
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
        draw(current_->phases[count % 4]);
        count++;
        if (mode_ == 5 && count >= 120) {
            count = 0;
            setMode(1);
        }
    }

    void signal(unsigned count)
    {
        if (count % 6 == 0) {
            due("syscfg_getLaserInfo");
            power_ = vendor().laserResult != 0 ? vendor().laserPower : 0;
        }
        if (power_ == 0 || power_ <= -40) {
            draw("000111");
            return;
        }
        due("platform_getLaserRxPowerLevel");
        due("platform_isGponUp");
        const int level = board().level;
        if (board().gponUp == 0 && count % 2 == 0)
            draw("010101");
        else
            draw(level >= 0 && level < 5 ? bars[static_cast<size_t>(level)] : "000000");
    }

    int32_t mode_ = 0;
    const Timed *current_ = nullptr; // null: no timer runs
    bool timerSet_ = false;
    bool active_ = false;
    int now_ = 0;
    int deadline_ = 0;
    std::array<unsigned, 6> counts_ = {};
    float power_ = 0;
    int fd_ = -1;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    fuzz::restart();
    fakes::board() = {};
    event_init();
    fakes::journal().take();
    const uint8_t failures = input.byte();
    files().fileErrors[path] = failures == 1 ? EACCES : 0;
    files().openErrors[path] = failures == 2 ? ENXIO : 0;
    Model model;
    model.start();
    display_register();
    fuzz::compare();
    while (!input.empty()) {
        switch (const uint8_t operation = input.byte(); operation % 6) {
        case 0:
        case 1: {
            const uint8_t how = input.byte();
            files().readError = how >= 250 ? EAGAIN : 0;
            files().openErrors[path] = how == 251 || how == 249 ? ENXIO : 0;
            chunk = input.text(how == 249 ? 0 : how);
            files().chunks = {chunk};
            files().nextDescriptor = fakes::firstDescriptor + input.byte() % 8;
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
            const int small = input.small();
            const int32_t mode = small == INT8_MIN ? input.take<int32_t>() : small;
            model.setMode(mode);
            display_setMode(mode);
            break;
        }
        default: {
            const uint8_t how = input.byte();
            vendor().laserResult = how & 1 ? -1 : 0;
            board().gponUp = how >> 4;
            board().level = how & 8 ? input.small() : how >> 1 & 7;
            vendor().laserPower =
                how & 2 ? input.take<float>() : static_cast<float>(input.small()) / 2;
            break;
        }
        }
        const bool open = model.fd() != -1;
        if (files().openCount != (open ? 1U : 0U) || (open && !eventLoop().isPending(model.fd())))
            fuzz::wrong("the pipe is not watched as it should be");
        fakes::takePatterns();
        fuzz::compare();
    }
    return 0;
}