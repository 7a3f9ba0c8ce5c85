#include "waveform.h"

#include <algorithm>
#include <cstdio>

namespace kelo {

namespace {

constexpr int columns = 64;
constexpr size_t longest = 50; ///< of the list below the waveform
constexpr const char *ledNames[] = {"GPIO 6", "GPIO 7", "GPIO 8", "GPIO 2", "GPIO 3", "GPIO 4"};

std::string seconds(Clock::duration time)
{
    char text[32];
    snprintf(text, sizeof text, "%.3f", std::chrono::duration<double>(time).count());
    return text;
}

} // namespace

std::string waveform(const std::vector<Event> &events, Clock::time_point start,
                     Clock::time_point from, Clock::time_point to)
{
    std::vector<Event> leds;
    for (const Event &event : events) {
        if (event.kind == EventKind::Leds && event.time <= to)
            leds.push_back(event);
    }

    std::string text;
    for (size_t led = 0; led < std::size(ledNames); led++) {
        text += std::string("  ") + ledNames[led] + "  ";
        size_t next = 0;
        char showing = '?';
        for (int column = 0; column < columns; column++) {
            // A column shows what the LED showed at its end, so the last one is the present.
            const auto end = from + (to - from) * (column + 1) / columns;
            while (next < leds.size() && leds[next].time <= end)
                showing = leds[next++].text[led];
            text += showing == '1' ? '#' : showing == '0' ? '_' : ' ';
        }
        text += '\n';
    }
    const std::string left = seconds(from - start);
    const std::string right = seconds(to - start) + " s";
    text += "          " + left +
            std::string(columns - std::min<size_t>(columns, left.size() + right.size()), ' ') +
            right + "\n";

    std::vector<const Event *> others;
    for (const Event &event : events) {
        if (event.time >= from && event.time <= to && event.kind != EventKind::Leds &&
            event.kind != EventKind::Snapshot)
            others.push_back(&event);
    }
    const size_t first = others.size() - std::min(others.size(), longest);
    if (first > 0)
        text += "  ... (" + std::to_string(first) + " more before these)\n";
    for (size_t i = first; i < others.size(); i++) {
        const Event &event = *others[i];
        char line[64];
        snprintf(line, sizeof line, "  %9s  %-7s  ", seconds(event.time - start).c_str(),
                 kindName(event.kind));
        text += line + event.text.substr(0, event.text.find('\n')) + "\n";
    }
    return text;
}

} // namespace kelo
