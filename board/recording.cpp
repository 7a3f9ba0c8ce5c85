#include "recording.h"

#include "device.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <deque>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kelo {

namespace {

constexpr int MODE_BITS = 4;

/// A signal of every recording. Without a kind it only repeats another one in short.
struct Lane {
    const char *name;
    Signal::Type type;
    std::optional<EventKind> kind{}; ///< of the events that it shows
};

using Type = Signal::Type;
using Kind = EventKind;
const Lane lanes[] = {
    {"gpio6", Type::Bit, Kind::Leds},
    {"gpio7", Type::Bit, Kind::Leds},
    {"gpio8", Type::Bit, Kind::Leds},
    {"gpio2", Type::Bit, Kind::Leds},
    {"gpio3", Type::Bit, Kind::Leds},
    {"gpio4", Type::Bit, Kind::Leds},
    {"mode", Type::Bits, Kind::Mode},
    {"rx_power_dbm", Type::Real, Kind::Laser},
    {"link", Type::Bit},
    {"gpon_state", Type::Real, Kind::Gpon},
    {"button", Type::Bit},
    {"button_value", Type::Real, Kind::Button},
    {"reboot", Type::Event, Kind::Call},
    {"restore", Type::Event, Kind::Call},
    {"store", Type::Event, Kind::Store},
    {"omci", Type::Event, Kind::Omci},
    {"daemon_exit", Type::Event, Kind::Exit},
};
constexpr size_t ledCount = 6; // the first of them
constexpr char exitWord[] = "exit ";

class Recorder {
public:
    explicit Recorder(Recording &recording) : recording_(recording) {}

    void at(int64_t time) { time_ = time; }
    void set(const std::string &name, const std::string &value)
    {
        Signal &signal = *std::find_if(recording_.signals.begin(), recording_.signals.end(),
                                       [&](const Signal &s) { return s.name == name; });
        int64_t time = time_;
        if (signal.type != Signal::Type::Event && !signal.changes.empty()) {
            if (signal.changes.back().value == value)
                return;
            time = std::max(time, signal.changes.back().time + 1); // no edge is lost
        }
        signal.changes.push_back({time, value});
    }

private:
    Recording &recording_;
    int64_t time_ = 0;
};

/// A number as it is written in the file, "nan" for a text that holds none.
std::string toNumber(const std::string &text)
{
    char *end;
    const double value = strtod(text.c_str(), &end);
    if (end == text.c_str() || !std::isfinite(value))
        return "nan";
    std::ostringstream number;
    number << std::setprecision(12) << value;
    return number.str();
}

void recordEvent(Recorder &recorder, const Event &event)
{
    const std::string &text = event.text;
    for (size_t i = 0; i < std::size(lanes); i++) {
        const Lane &lane = lanes[i];
        if (lane.kind != event.kind)
            continue;
        if (i < ledCount)
            recorder.set(lane.name, i >= text.size() || text[i] == '?' ? "x" : text.substr(i, 1));
        else if (event.kind == Kind::Exit)
            recorder.set(lane.name, exitWord + text);
        else if (event.kind != Kind::Call || text.starts_with(std::string("syscfg_") + lane.name))
            recorder.set(lane.name, lane.type == Type::Real ? toNumber(text) : text);
    }
    const int number = atoi(text.c_str());
    if (event.kind == Kind::Gpon)
        recorder.set("link", number == device::gponUp ? "1" : "0");
    else if (event.kind == Kind::Button)
        recorder.set("button", number != 0 ? "1" : "0");
}

std::string bitOf(const std::string &value, int bit)
{
    char *end;
    const long number = strtol(value.c_str(), &end, 10);
    if (end == value.c_str() || number < 0 || number >= 1 << MODE_BITS)
        return "x";
    return (number >> bit) & 1 ? "1" : "0";
}

/// A comment must not hold what ends it.
std::string commentText(std::string text)
{
    std::replace(text.begin(), text.end(), '$', '?');
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

struct Write {
    int64_t time;
    std::string text;
};

/// Declares a signal and gives what to write for its changes. A variable's code in the file is a
/// letter, since some readers take "#" for a time; there are less than 26 of them.
std::vector<Write> declare(const Signal &signal, char &code, std::ostream &out)
{
    std::vector<Write> writes;
    const auto variable = [&](const std::string &type, const std::string &index,
                              const std::string &unknown, const auto &textOf) {
        out << "$var " << type << ' ' << code << ' ' << signal.name << index << " $end\n";
        if (!unknown.empty())
            writes.push_back({0, unknown + code});
        for (const Signal::Change &change : signal.changes)
            writes.push_back({change.time, textOf(change.value) + code});
        code++;
    };
    switch (signal.type) {
    case Signal::Type::Bit:
        variable("wire 1", "", "x", [](const std::string &value) { return value; });
        break;
    case Signal::Type::Bits:
        for (int bit = MODE_BITS - 1; bit >= 0; bit--)
            variable("wire 1", " [" + std::to_string(bit) + "]", "x",
                     [=](const std::string &value) { return bitOf(value, bit); });
        break;
    case Signal::Type::Real:
        variable("real 64", "", "rnan ",
                 [](const std::string &value) { return "r" + value + " "; });
        break;
    case Signal::Type::Event:
        variable("event 1", "", "", [](const std::string &) { return std::string("1"); });
        break;
    }
    return writes;
}

/// Words of a VCD file, and its sections' texts.
class VcdReader {
public:
    explicit VcdReader(std::istream &in) : in_(in) {}

    Record read()
    {
        std::string word;
        while (in_ >> word) {
            if (word == "$var")
                readVariable();
            else if (word == "$comment")
                noteText(section());
            else if (word == "$dumpvars" || word == "$end")
                continue;
            else if (word[0] == '$')
                section();
            else if (word[0] == '#')
                go(word.substr(1));
            else if (word[0] == 'r')
                change(next(), word.substr(1));
            else
                change(word.substr(1), word.substr(0, 1));
        }
        tell();
        if (std::none_of(variables_.begin(), variables_.end(),
                         [](const auto &variable) { return variable.second.lane == lanes; }))
            throw std::runtime_error("this is no recording of a board");
        record_.end = time_;
        return std::move(record_);
    }

private:
    struct Variable {
        const Lane *lane; ///< null for one that no recording of ours has
        int bit;
    };

    std::string next()
    {
        std::string word;
        if (!(in_ >> word))
            throw std::runtime_error("the recording ends in the middle");
        return word;
    }

    /// Everything up to $end.
    std::string section()
    {
        std::string text;
        for (std::string word = next(); word != "$end"; word = next())
            text += (text.empty() ? "" : " ") + word;
        return text;
    }

    void go(const std::string &text)
    {
        char *end;
        const long long number = strtoll(text.c_str(), &end, 10);
        if (end == text.c_str() || *end || number < 0)
            throw std::runtime_error("this is no recording: \"" + text + "\" is no time");
        tell();
        time_ = Clock::time_point(RecordingTick(number));
    }

    void readVariable()
    {
        next(); // the type
        next(); // the width
        const std::string code = next();
        const std::string name = next();
        const std::string rest = section();
        const auto *const lane = std::find_if(std::begin(lanes), std::end(lanes),
                                              [&](const Lane &l) { return l.name == name; });
        variables_[code] = {lane == std::end(lanes) ? nullptr : lane,
                            rest.starts_with("[") ? atoi(rest.c_str() + 1) : 0};
    }

    void change(const std::string &code, const std::string &value)
    {
        const auto variable = variables_.find(code);
        if (variable == variables_.end())
            throw std::runtime_error("this is no recording: \"" + value + code +
                                     "\" changes nothing that it declares");
        const auto &[lane, bit] = variable->second;
        if (!lane || !lane->kind)
            return;
        if (lane < lanes + ledCount) {
            leds_[static_cast<size_t>(lane - lanes)] = value == "x" ? '?' : value[0];
            states_[lanes] = leds_;
        } else if (lane->type == Type::Bits) {
            known_ = value == "x" ? known_ & ~(1 << bit) : known_ | 1 << bit;
            mode_ = value == "1" ? mode_ | 1 << bit : mode_ & ~(1 << bit);
            states_[lane] = known_ == (1 << MODE_BITS) - 1 ? std::to_string(mode_) : "x";
        } else if (lane->type == Type::Real) {
            states_[lane] = value == "nan" && lane->kind != Kind::Laser ? "x" : value;
        } else {
            moments_.push_back({time_, *lane->kind, nextText(lane->name)});
        }
    }

    /// What an event was: "event NAME at TIME: TEXT".
    void noteText(const std::string &comment)
    {
        std::istringstream words(comment);
        std::string word;
        std::string name;
        std::string text;
        if (words >> word && word == "event" && words >> name >> word >> word &&
            std::getline(words >> std::ws, text))
            texts_[name].push_back(text);
    }

    std::string nextText(const std::string &name)
    {
        std::deque<std::string> &texts = texts_[name];
        if (texts.empty())
            return {};
        const std::string text = std::move(texts.front());
        texts.pop_front();
        return text.starts_with(exitWord) ? text.substr(strlen(exitWord)) : text;
    }

    /// Tells what there was at this time: how things stood at its end, and what happened.
    void tell()
    {
        const auto leds = states_.extract(lanes);
        for (const auto &[lane, value] : std::exchange(states_, {})) {
            if (value != "x")
                record_.events.push_back({time_, *lane->kind, value});
        }
        for (const Event &moment : std::exchange(moments_, {}))
            record_.events.push_back(moment);
        if (leds)
            record_.events.push_back({time_, Kind::Leds, leds.mapped()});
    }

    std::istream &in_;
    Record record_;
    std::map<std::string, Variable> variables_;
    std::map<std::string, std::deque<std::string>> texts_; ///< of the events, in their order
    Clock::time_point time_{};
    std::map<const Lane *, std::string> states_; ///< that changed at this time
    std::vector<Event> moments_;                 ///< of this time
    std::string leds_ = "??????";
    int mode_ = 0;
    int known_ = 0; ///< bits of it
};

} // namespace

const Signal *Recording::find(const std::string &name) const
{
    const auto found = std::find_if(signals.begin(), signals.end(),
                                    [&](const Signal &signal) { return signal.name == name; });
    return found == signals.end() ? nullptr : &*found;
}

Recording makeRecording(const std::vector<Event> &events, Clock::time_point end,
                        std::optional<Clock::time_point> from)
{
    Recording recording;
    for (const Lane &lane : lanes)
        recording.signals.push_back({lane.name, lane.type});
    if (events.empty() && !from)
        return recording;
    const Clock::time_point start = from.value_or(events.empty() ? end : events.front().time);
    const auto since = [&](Clock::time_point time) {
        return std::max<int64_t>(0,
                                 std::chrono::duration_cast<RecordingTick>(time - start).count());
    };
    Recorder recorder(recording);
    for (const Event &event : events) {
        if (event.time > end)
            break;
        recorder.at(since(event.time));
        recordEvent(recorder, event);
    }
    recording.length = since(end);
    for (const Signal &signal : recording.signals) {
        if (!signal.changes.empty())
            recording.length = std::max(recording.length, signal.changes.back().time);
    }
    return recording;
}

std::string toVcd(const Recording &recording)
{
    std::ostringstream out;
    const time_t now = time(nullptr);
    tm local;
    char date[64];
    strftime(date, sizeof date, "%F %T %z", localtime_r(&now, &local));
    out << "$date " << date << " $end\n"
        << "$version kelo-board $end\n"
        << "$timescale 10 us $end\n"
        << "$scope module board $end\n";
    // What an event was stands up here, since sigrok ends at a comment among the changes.
    for (const Signal &signal : recording.signals) {
        if (signal.type != Signal::Type::Event)
            continue;
        for (const Signal::Change &change : signal.changes)
            out << "$comment event " << signal.name << " at " << change.time << ": "
                << commentText(change.value) << " $end\n";
    }
    char code = 'a';
    std::vector<Write> writes;
    for (const Signal &signal : recording.signals) {
        const std::vector<Write> more = declare(signal, code, out);
        writes.insert(writes.end(), more.begin(), more.end());
    }
    out << "$upscope $end\n$enddefinitions $end\n";

    std::stable_sort(writes.begin(), writes.end(),
                     [](const Write &a, const Write &b) { return a.time < b.time; });
    int64_t time = -1;
    for (const Write &write : writes) {
        if (write.time != time)
            out << '#' << write.time << '\n';
        time = write.time;
        out << write.text << '\n';
    }
    if (recording.length > time)
        out << '#' << recording.length << '\n';
    return out.str();
}

Record readVcd(std::istream &in)
{
    return VcdReader(in).read();
}

} // namespace kelo
