#include "state.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace kelo::panel {

void State::take(const Event &event)
{
    switch (event.kind) {
    case EventKind::Leds:
        leds = event.text;
        running = true;
        break;
    case EventKind::Mode:
        mode = atoi(event.text.c_str());
        modeSince = event.time;
        break;
    case EventKind::Log:
        running = true;
        takeLog(event);
        break;
    case EventKind::Laser:
        laser = event.text;
        break;
    case EventKind::Gpon:
        gpon = event.text;
        break;
    case EventKind::Button:
        button = atoi(event.text.c_str());
        buttonSince = event.time;
        break;
    case EventKind::Store:
        takeStore(event.text);
        break;
    case EventKind::Snapshot:
        takeSnapshot(event.text);
        break;
    case EventKind::Exit:
        running = false;
        exit = event.text;
        break;
    default:
        break;
    }
}

void State::takeLog(const Event &event)
{
    if (event.text.find("switch display mode 0 -> 1") != std::string::npos)
        outcome = ButtonOutcome::None; // a new daemon, or as good as that
    else if (event.text.find(" rebooting...") != std::string::npos)
        outcome = ButtonOutcome::Reboot;
    else if (event.text.find(" resetting to defaults...") != std::string::npos)
        outcome = ButtonOutcome::Restore;

    // A record's message ends in a line feed, and the call site's place follows it.
    std::string text = event.text;
    std::erase(text, '\n');
    log.push_back({event.time, printable(text)});
    logged++;
    if (log.size() > LOG_LINES)
        log.pop_front();
}

void State::takeStore(const std::string &text)
{
    std::istringstream words(text);
    std::string node;
    std::string attribute;
    std::string value;
    words >> node >> attribute;
    std::getline(words >> std::ws, value);
    std::erase(value, '"');
    if (node == "Kelo_Ipv6Status")
        store[attribute] = printable(value);
}

void State::takeSnapshot(const std::string &text)
{
    std::map<std::string, std::pair<long long, long long>> seen;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        char name[16];
        unsigned long long in;
        unsigned long long out;
        if (sscanf(line.c_str(), "port=%15[^,],in=%llu,out=%llu", name, &in, &out) == 3)
            seen[name] = {static_cast<long long>(in), static_cast<long long>(out)};
    }
    const auto push = [](std::deque<long long> &history, long long value) {
        history.push_back(value);
        if (history.size() > HISTORY)
            history.pop_front();
    };
    for (const char *const name : portNames) {
        Traffic &port = ports[name];
        port.readable = seen.contains(name);
        push(port.in, port.readable ? seen[name].first : 0);
        push(port.out, port.readable ? seen[name].second : 0);
    }
}

std::optional<double> toPower(const std::string &laser)
{
    char *end;
    const double value = strtod(laser.c_str(), &end);
    if (end == laser.c_str())
        return std::nullopt;
    return value;
}

int levelOf(std::optional<double> power)
{
    if (!power || *power == 0 || *power <= noSignalDbm)
        return -1;
    return static_cast<int>(std::count_if(std::begin(levelThresholds), std::end(levelThresholds),
                                          [&](double threshold) { return *power >= threshold; }));
}

std::string printable(const std::string &text)
{
    std::string result;
    for (const char character : text) {
        if (character >= ' ' && character <= '~') {
            result += character;
        } else {
            char code[8];
            snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(character));
            result += code;
        }
    }
    return result;
}

} // namespace kelo::panel
