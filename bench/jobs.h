/// What the daemon does when nothing happens, with nothing but the calls that this takes: texts are
/// formatted into a buffer of the program's own, nothing is allocated. Only the LED lines go
/// through stdio, as the driver's interface has it.

#pragma once

#include "kelosyscfg.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace {

/// Writes a whole file; the result of write(2) is nobody's business here, as in the daemon.
void writeFile(const char *path, const char *text, int length)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd < 0)
        return;
    [[maybe_unused]] const ssize_t written = write(fd, text, static_cast<size_t>(length));
    close(fd);
}

[[maybe_unused]] void writeLed(int gpio, bool on)
{
    FILE *const file = fopen("/proc/tc3162/gpio_output", "w");
    if (!file)
        return;
    char buffer[128];
    setvbuf(file, buffer, _IOFBF, sizeof buffer);
    fprintf(file, "active %d %d\n", gpio, on ? 0 : 1);
    fclose(file);
}

/// One tick of the signal mode.
[[maybe_unused, gnu::noinline]] void jobTick()
{
    static unsigned count;
    static float power;
    if (count % 6 == 0 && !syscfg_getLaserInfo(&power, nullptr, nullptr, nullptr, nullptr))
        power = 0.0F;
    unsigned pattern = 0b000111;
    if (power != 0.0F && power > -40.0F) {
        pattern = power >= -8.0F    ? 0b110001
                  : power >= -11.0F ? 0b111000
                  : power >= -25.0F ? 0b110000
                  : power >= -28.0F ? 0b100000
                                    : 0b000100;
        if (syscfg_getGponState() != 5 && count % 2 == 0)
            pattern = 0b010101;
    }
    unsigned led = 0b100000;
    for (const int gpio : {6, 7, 8, 2, 3, 4}) {
        writeLed(gpio, (pattern & led) != 0);
        led >>= 1;
    }
    count++;
}

[[maybe_unused, gnu::noinline]] void jobSnapshot()
{
    static const char *const names[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
    static unsigned long long last[7][2];
    char text[1024];
    int length = 0;
    for (int port = 0; port < 7; port++) {
        unsigned long long now[2] = {};
        if (!syscfg_getPortBytes(port + 1, &now[0], &now[1]))
            continue;
        long long delta[2];
        for (int way = 0; way < 2; way++) {
            delta[way] = static_cast<int32_t>(static_cast<uint32_t>(now[way] - last[port][way]));
            last[port][way] = now[way];
        }
        length += snprintf(text + length, sizeof text - static_cast<size_t>(length),
                           "port=%s,in=%llu,out=%llu,counterIn=%llu,counterOut=%llu\n", names[port],
                           static_cast<unsigned long long>(delta[0]),
                           static_cast<unsigned long long>(delta[1]), now[0], now[1]);
    }
    writeFile("/var/run/kelo-monitord.netinfo.tmp", text, length);
    rename("/var/run/kelo-monitord.netinfo.tmp", "/var/run/kelo-monitord.netinfo");
}

/// The button's value. Nothing that is measured presses it.
[[maybe_unused, gnu::noinline]] int jobButton()
{
    const int fd = open("/proc/tc3162/reset_button", O_RDONLY);
    if (fd < 0)
        return 0;
    char text[64];
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    return atoi(text);
}

} // namespace
