#include "cli.h"

#include "device.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>

namespace kelo {

CLI::App *Cli::add(const char *group, const std::string &name, const std::string &description,
                   std::function<void()> action)
{
    CLI::App *const command = addTo(app, name, description, std::move(action));
    command->group(group);
    return command;
}

CLI::App *Cli::addTo(CLI::App &parent, const std::string &name, const std::string &description,
                     std::function<void()> action)
{
    CLI::App *const command = parent.add_subcommand(name, description);
    command->group("Commands");
    command->callback(std::move(action));
    return command;
}

void Cli::addJson(CLI::App &command)
{
    command.add_flag("--json", json, "Print JSON");
}

CLI::App *Cli::addRequest(const char *group, const std::string &name,
                          const std::string &description, const Words &what)
{
    return add(group, name, description, [this, what] { request(board, what); });
}

bool News::is(const Event &event)
{
    if (event.kind == EventKind::Leds)
        return std::exchange(leds_, event.text) != event.text;
    if (event.kind == EventKind::Snapshot)
        return std::exchange(snapshot_, event.text) != event.text;
    return event.kind != EventKind::Call || !event.text.starts_with("syscfg_get");
}

std::string shownText(const Event &event)
{
    return event.kind == EventKind::Mode ? modeName(event.text) : event.text;
}

void EventPrinter::print(const Event &event) const
{
    const double seconds = std::chrono::duration<double>(event.time - start_).count();
    if (json_) {
        const nlohmann::ordered_json object{{"time", std::round(seconds * 1e6) / 1e6},
                                            {"kind", kindName(event.kind)},
                                            {"text", event.text}};
        fputs(
            (object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n").c_str(),
            out_);
    } else {
        std::istringstream lines(shownText(event));
        std::string line;
        while (std::getline(lines, line))
            fprintf(out_, "%9.3f  %-8s  %s\n", seconds, kindName(event.kind), line.c_str());
    }
    fflush(out_);
}

std::vector<std::string> modeKeywords()
{
    return {std::begin(device::modeKeywords), std::end(device::modeKeywords)};
}

std::string modeNumber(const std::string &name)
{
    const auto *const keyword =
        std::find(std::begin(device::modeKeywords), std::end(device::modeKeywords), name);
    if (keyword != std::end(device::modeKeywords))
        return std::to_string(keyword - device::modeKeywords);
    if (const auto number = parsed<int>(name))
        return std::to_string(*number);
    throw UsageError("no display mode: \"" + name + "\" (kelo-board mode --help lists them)");
}

int signalNumber(std::string name)
{
    if (name.starts_with("SIG"))
        name.erase(0, 3);
    for (int number = 1; number < NSIG; number++) {
        const char *const known = sigabbrev_np(number);
        if ((known && name == known) || name == std::to_string(number))
            return number;
    }
    throw UsageError("no signal: \"" + name + "\" (such as TERM, STOP or 9)");
}

unsigned long long toNumber(const std::string &text)
{
    if (const auto number = parsed<unsigned long long>(text))
        return *number;
    throw UsageError("no count: \"" + text + "\" (0 to 18446744073709551615)");
}

Clock::duration toDuration(const std::string &text)
{
    size_t end = 0;
    double number = -1;
    try {
        number = std::stod(text, &end);
    } catch (const std::exception &) {
    }
    const std::string unit = text.substr(std::min(end, text.size()));
    const double seconds = unit == "ms"                  ? 0.001
                           : unit.empty() || unit == "s" ? 1
                           : unit == "m"                 ? 60
                                                         : -1;
    if (!(number >= 0 && number < 1e6) || seconds < 0)
        throw UsageError("no length of time: \"" + text + "\" (such as 3, 1.5s, 250ms, 2m)");
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(number * seconds));
}

void sayRecordBegins(Clock::time_point start, Clock::time_point kept)
{
    if (kept > start)
        fprintf(stderr, "kelo-board: what happened before second %.3f is no longer kept\n",
                std::chrono::duration<double>(kept - start).count());
}

bool isUnasked(const Event &event)
{
    return event.kind == EventKind::Exit && event.text.ends_with(" unasked");
}

std::string unaskedText(const Event &exit, const std::vector<Event> &events)
{
    constexpr size_t records = 5;
    std::string text = "the daemon ended with " + exit.text.substr(0, exit.text.rfind(' ')) +
                       ", and nobody asked it to";
    std::vector<std::string> log;
    for (const Event &event : events) {
        if (event.kind == EventKind::Log && event.time <= exit.time)
            log.push_back(event.text);
    }
    for (size_t i = log.size() - std::min(log.size(), records); i < log.size(); i++) {
        std::erase(log[i], '\n');
        text += "\n  " + log[i];
    }
    return text;
}

void letPass(const std::string &board, Clock::duration time, bool allowExit)
{
    const Clock::time_point end = Clock::now() + time;
    auto state = stateOf(board);
    const Clock::time_point from = std::max(toTime(state["mark"]), toTime(state["accepted"]));
    std::vector<Event> events;
    RecordReader record(board, allowExit ? Clock::now() : from);
    while (const auto event = record.next(end)) {
        if (event->kind == EventKind::Log)
            events.push_back(*event);
        if (!allowExit && isUnasked(*event) && event->time >= from)
            throw Failure(unaskedText(*event, events));
    }
}

} // namespace kelo
