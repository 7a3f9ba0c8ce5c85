#include "display.h"

#include "kelo-monitord.h"
#include "kelosyscfg.h"
#include "platform.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <event.h>

namespace {

/// Six flags that read as the panel does: GPIO 6, 7, 8, 2, 3, 4 from left to right.
using Pattern = uint8_t;

constexpr uint8_t ledGpios[] = {6, 7, 8, 2, 3, 4};

constexpr Pattern darkPattern = 0b000000;
constexpr Pattern errorA12Pattern = 0b010000;
constexpr Pattern noSignalPattern = 0b000111;
constexpr Pattern linkDownPattern = 0b010101;
constexpr Pattern levelPatterns[] = {0b000100, 0b100000, 0b110000, 0b111000, 0b110001};

constexpr unsigned levelCount = sizeof levelPatterns;

constexpr Pattern rebootPhases[] = {0b000111, 0b000000};
constexpr Pattern restorePhases[] = {0b000100, 0b000110, 0b000111, 0b000000};
constexpr Pattern locatePhases[] = {0b111000, 0b000000, 0b000111, 0b000000};
constexpr Pattern ledTestPhases[] = {0b111111, 0b000000};
constexpr Pattern factTestPhases[][4] = {
    {0b001000, 0b010000, 0b100000, 0b010000},
    {0b001110, 0b010101, 0b100011, 0b010101},
};

constexpr int LOCATE_TICKS = 120;
constexpr int TICKS_PER_READING = 6;
constexpr float NO_SIGNAL_DBM = -40.0F;

int32_t currentMode;
event displayTimer;

// Never reset, but for locateCount at its limit: a mode entered again goes on with its pattern.
int32_t signalCount;
int32_t rebootCount;
int32_t restoreCount;
int32_t locateCount;
int32_t ledTestCount;
int32_t factTestCount;

float rxPower; // dBm; keeps the last reading while other modes run

/// Writes all six LEDs, whether they change or not; a flag is named after its LED's GPIO.
void setLeds(uint8_t led6, uint8_t led7, uint8_t led8, uint8_t led2, uint8_t led3, uint8_t led4)
{
    platform_ledSet(6, led6);
    platform_ledSet(7, led7);
    platform_ledSet(8, led8);
    platform_ledSet(2, led2);
    platform_ledSet(3, led3);
    platform_ledSet(4, led4);
}

void draw(Pattern pattern)
{
    const auto led = [=](unsigned place) { return static_cast<uint8_t>(pattern >> place & 1U); };
    setLeds(led(5), led(4), led(3), led(2), led(1), led(0));
}

/// The tick after `count`; runs on from 2^31 - 1 to -2^31.
int32_t nextTick(int32_t count)
{
    return static_cast<int32_t>(static_cast<uint32_t>(count) + 1);
}

/// Draws the phase of this tick. A count past 2^31 ticks gives negative remainders, which match no
/// phase and draw nothing.
void drawPhase(int32_t &count, const Pattern *phases, int phaseCount)
{
    const int32_t phase = count % phaseCount;
    count = nextTick(count);
    if (phase >= 0)
        draw(phases[phase]);
}

void signalTick(int, short, void *)
{
    if (signalCount % TICKS_PER_READING == 0 &&
        !syscfg_getLaserInfo(&rxPower, nullptr, nullptr, nullptr, nullptr))
        rxPower = 0.0F;

    // A missing reading is 0.0 too, so a power of exactly 0 dBm counts as no signal.
    Pattern pattern = noSignalPattern;
    if (rxPower != 0.0F && !(rxPower <= NO_SIGNAL_DBM)) {
        const auto level = static_cast<unsigned>(platform_getLaserRxPowerLevel(rxPower));
        pattern = level < levelCount ? levelPatterns[level] : darkPattern;
        if (!platform_isGponUp() && (signalCount & 1) == 0)
            pattern = linkDownPattern;
    }
    draw(pattern);
    signalCount = nextTick(signalCount);
}

void rebootTick(int, short, void *)
{
    drawPhase(rebootCount, rebootPhases, 2);
}

void restoreTick(int, short, void *)
{
    drawPhase(restoreCount, restorePhases, 4);
}

void locateTick(int, short, void *)
{
    drawPhase(locateCount, locatePhases, 4);
    if (locateCount >= LOCATE_TICKS) {
        locateCount = 0;
        display_setMode(Signal);
    }
}

void ledTestTick(int, short, void *)
{
    drawPhase(ledTestCount, ledTestPhases, 2);
}

void factTestTick(int, short, void *error)
{
    const auto errorFlag = static_cast<uint8_t>(reinterpret_cast<uintptr_t>(error));
    drawPhase(factTestCount, factTestPhases[errorFlag != 0], 4);
}

struct Mode {
    const char *keyword;
    event_callback_fn tick; // null for a static mode
    timeval interval;
    uint8_t mode;          // a DisplayMode
    uint8_t error;         // callback argument of the factory tests
    Pattern staticPattern; // drawn once by a static mode
};

// In the order in which the pipe tries the keywords: "facttesterr" has to come before its own
// prefix "facttest".
constexpr Mode modes[] = {
    {"none", nullptr, {}, None, 0, darkPattern},
    {"signal", signalTick, {0, 500000}, Signal, 0, 0},
    {"reboot", rebootTick, {0, 250000}, Reboot, 0, 0},
    {"restore", restoreTick, {0, 100000}, Restore, 0, 0},
    {"errora12", nullptr, {}, ErrorA12, 0, errorA12Pattern},
    {"locateme", locateTick, {0, 250000}, LocateMe, 0, 0},
    {"ledtest", ledTestTick, {3, 0}, LedTest, 0, 0},
    {"facttesterr", factTestTick, {0, 500000}, FactTestErr, 1, 0},
    {"facttest", factTestTick, {0, 500000}, FactTest, 0, 0},
};

void enterMode(const Mode &mode)
{
    if (!mode.tick) {
        draw(mode.staticPattern);
        return;
    }
    const bool takesError = mode.tick == factTestTick;
    event_set(&displayTimer, -1, EV_PERSIST, mode.tick,
              takesError ? reinterpret_cast<void *>(uintptr_t{mode.error}) : &displayTimer);
    event_add(&displayTimer, &mode.interval);
    event_active(&displayTimer, 0, 0); // the first tick at once instead of one interval later
}

constexpr char fifoPath[] = "/var/run/kelo-monitord.display";

int fifoFd = -1;
event fifoEvent;

void openDisplayModeFifo();

void readDisplayMode(int fd, short events, void *arg)
{
    char buffer[128] = {};
    KELO_LOG("readDisplayMode called with fd: %d, event: %d, arg: %p\n", fd, events, arg);
    const auto length = static_cast<int>(read(fd, buffer, sizeof buffer - 1));
    if (length <= 0) {
        KELO_LOG("received len: %d\n", length);
        event_del(static_cast<event *>(arg));
        openDisplayModeFifo();
        return;
    }
    buffer[length] = '\0';
    KELO_LOG("received \"%s\"\n", buffer);
    for (const Mode &mode : modes) {
        if (strncmp(buffer, mode.keyword, strlen(mode.keyword)) == 0) {
            display_setMode(mode.mode);
            return;
        }
    }
}

// The end of one writer closes the pipe for reading too: only a fresh descriptor waits for the
// next.
void openDisplayModeFifo()
{
    if (fifoFd != -1)
        close(fifoFd);
    fifoFd = open(fifoPath, O_RDONLY | O_NONBLOCK);
    if (fifoFd == -1) {
        KELO_LOG("Failed to open socket \"%s\"\n", fifoPath); // deliberately "socket"
        return;
    }
    event_set(&fifoEvent, fifoFd, EV_READ | EV_PERSIST, readDisplayMode, &fifoEvent);
    event_add(&fifoEvent, nullptr);
}

} // namespace

void display_setMode(int32_t mode)
{
    if (mode == currentMode)
        return;
    KELO_LOG("switch display mode %d -> %d\n", currentMode, mode);
    currentMode = mode; // an unknown mode is recorded too, so that asking for it again is silent
    if (event_initialized(&displayTimer))
        event_del(&displayTimer);
    for (const Mode &candidate : modes) {
        if (candidate.mode == mode)
            enterMode(candidate);
    }
}

void display_register()
{
    for (const uint8_t gpio : ledGpios)
        platform_ledInit(gpio);
    display_setMode(Signal);
    unlink(fifoPath);
    if (mkfifo(fifoPath, 0600) == -1) {
        KELO_LOG("Failed to create fifo \"%s\"\n", fifoPath);
        return;
    }
    openDisplayModeFifo();
}
