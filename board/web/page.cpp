#include "page.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kelo {

extern const char pageTemplate[]; // page.html

namespace {

constexpr char dataPlace[] = "id=\"record\">";

/// A snapshot's ports with their differences, without what the page does not show.
std::string shortSnapshot(const std::string &text)
{
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        char name[16];
        char in[21];
        char out[21];
        if (sscanf(line.c_str(), "port=%15[^,],in=%20[0-9],out=%20[0-9]", name, in, out) == 3)
            result += std::string(result.empty() ? "" : ";") + name + " " + in + " " + out;
    }
    return result;
}

int64_t ticks(Clock::duration time)
{
    return std::max<int64_t>(0, std::chrono::duration_cast<RecordingTick>(time).count());
}

std::string localTime()
{
    const time_t now = time(nullptr);
    tm local;
    char text[64];
    strftime(text, sizeof text, "%F %H:%M %Z", localtime_r(&now, &local));
    return text;
}

Clock::time_point toTime(double seconds)
{
    return Clock::time_point(
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
}

Record readLines(std::istream &in)
{
    Record record;
    size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        number++;
        const auto object = nlohmann::json::parse(line, nullptr, false);
        const auto has = [&](const char *name, auto test) {
            return object.is_object() && object.contains(name) && (object[name].*test)();
        };
        if (!has("time", &nlohmann::json::is_number) || !has("kind", &nlohmann::json::is_string) ||
            !has("text", &nlohmann::json::is_string) || !(object["time"] >= 0) ||
            !(object["time"] < 1e9))
            throw std::runtime_error("line " + std::to_string(number) + " is no event");
        const auto kind = kindOf(object["kind"]);
        if (!kind)
            throw std::runtime_error("line " + std::to_string(number) + " has no known kind");
        record.events.push_back({toTime(object["time"]), *kind, object["text"]});
    }
    if (!record.events.empty()) {
        // A board's first event comes within its first second.
        const Clock::time_point first = record.events.front().time;
        record.begin = first < toTime(1) ? Clock::time_point() : first;
        record.end = record.events.back().time;
    }
    return record;
}

} // namespace

std::string makePage(const Record &record, bool isLive)
{
    using nlohmann::json;
    json texts = json::array();
    json events = json::array();
    std::map<std::pair<EventKind, std::string>, size_t> known;
    std::map<EventKind, std::string> before;
    int64_t time = 0;
    for (const Event &event : record.events) {
        const bool holds = event.kind == EventKind::Leds || event.kind == EventKind::Snapshot;
        const std::string text =
            event.kind == EventKind::Snapshot ? shortSnapshot(event.text) : event.text;
        if (event.kind == EventKind::Call && text.starts_with("syscfg_get"))
            continue; // the daemon polls these all the time
        if (holds && before.contains(event.kind) && before[event.kind] == text)
            continue;
        before[event.kind] = text;
        const auto [place, isNew] = known.try_emplace({event.kind, text}, known.size());
        if (isNew)
            texts.push_back({kindName(event.kind), text});
        const int64_t at = std::max(time, ticks(event.time - record.start));
        events.push_back(at - std::exchange(time, at));
        events.push_back(place->second);
    }
    const json data{{"title", record.title},
                    {"live", isLive},
                    {"made", localTime()},
                    {"begin", ticks(record.begin - record.start)},
                    {"end", ticks(record.end - record.start)},
                    {"texts", texts},
                    {"events", events}};
    std::string dumped = data.dump(-1, ' ', false, json::error_handler_t::replace);
    // Nothing in it may end the element that holds it.
    for (size_t at = 0; (at = dumped.find('<', at)) != std::string::npos;)
        dumped.replace(at, 1, "\\u003c");
    std::string page = pageTemplate;
    page.insert(page.find(dataPlace) + strlen(dataPlace), dumped);
    return page;
}

Record readRecord(std::istream &in)
{
    return (in >> std::ws).peek() == '{' ? readLines(in) : readVcd(in);
}

} // namespace kelo
