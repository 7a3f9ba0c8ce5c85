#include "recording.h"

#include "device.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>

namespace kelo {

namespace {

constexpr const char *ledNames[] = {"gpio6", "gpio7", "gpio8", "gpio2", "gpio3", "gpio4"};
constexpr int MODE_BITS = 4;

/// The signals that a recording has, empty.
std::vector<Signal> emptySignals()
{
    std::vector<Signal> signals;
    for (const char *const name : ledNames)
        signals.push_back({name, Signal::Type::Bit});
    signals.push_back({"mode", Signal::Type::Bits});
    signals.push_back({"rx_power_dbm", Signal::Type::Real});
    signals.push_back({"link", Signal::Type::Bit});
    signals.push_back({"gpon_state", Signal::Type::Real});
    signals.push_back({"button", Signal::Type::Bit});
    signals.push_back({"button_value", Signal::Type::Real});
    for (const char *const name : {"reboot", "restore", "store", "omci", "daemon_exit"})
        signals.push_back({name, Signal::Type::Event});
    return signals;
}

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
    switch (event.kind) {
    case EventKind::Leds:
        for (size_t led = 0; led < std::size(ledNames) && led < event.text.size(); led++)
            recorder.set(ledNames[led], event.text[led] == '?' ? "x" : event.text.substr(led, 1));
        break;
    case EventKind::Mode:
    case EventKind::Store:
    case EventKind::Omci:
        recorder.set(kindName(event.kind), event.text);
        break;
    case EventKind::Laser:
        recorder.set("rx_power_dbm", toNumber(event.text));
        break;
    case EventKind::Gpon:
        recorder.set("link", atoi(event.text.c_str()) == device::gponUp ? "1" : "0");
        recorder.set("gpon_state", toNumber(event.text));
        break;
    case EventKind::Button:
        recorder.set("button", atoi(event.text.c_str()) != 0 ? "1" : "0");
        recorder.set("button_value", toNumber(event.text));
        break;
    case EventKind::Call:
        if (event.text.starts_with("syscfg_reboot"))
            recorder.set("reboot", event.text);
        else if (event.text.starts_with("syscfg_restore"))
            recorder.set("restore", event.text);
        break;
    case EventKind::Exit:
        recorder.set("daemon_exit", "exit " + event.text);
        break;
    default:
        break;
    }
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

    Recording read()
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
                time_ = whole(word.substr(1));
            else if (word[0] == 'r')
                change(next(), word.substr(1));
            else
                change(word.substr(1), word.substr(0, 1));
        }
        if (std::none_of(recording_.signals.begin(), recording_.signals.end(),
                         [](const Signal &s) { return s.name == ledNames[0]; }))
            throw std::runtime_error("this is no recording of a board");
        recording_.length = time_;
        joinBits();
        return std::move(recording_);
    }

private:
    struct Variable {
        size_t signal;
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

    static int64_t whole(const std::string &text)
    {
        char *end;
        const long long number = strtoll(text.c_str(), &end, 10);
        if (end == text.c_str() || *end || number < 0)
            throw std::runtime_error("this is no recording: \"" + text + "\" is no time");
        return number;
    }

    void readVariable()
    {
        const std::string type = next();
        next(); // the width
        const std::string code = next();
        const std::string name = next();
        const std::string rest = section();
        const bool isBits = rest.starts_with("[");
        const auto known = std::find_if(recording_.signals.begin(), recording_.signals.end(),
                                        [&](const Signal &s) { return s.name == name; });
        variables_[code] = {static_cast<size_t>(known - recording_.signals.begin()),
                            isBits ? atoi(rest.c_str() + 1) : 0};
        if (known == recording_.signals.end())
            recording_.signals.push_back({name, isBits            ? Signal::Type::Bits
                                                : type == "real"  ? Signal::Type::Real
                                                : type == "event" ? Signal::Type::Event
                                                                  : Signal::Type::Bit});
    }

    void change(const std::string &code, const std::string &value)
    {
        const auto variable = variables_.find(code);
        if (variable == variables_.end())
            throw std::runtime_error("this is no recording: \"" + value + code +
                                     "\" changes nothing that it declares");
        Signal &signal = recording_.signals[variable->second.signal];
        if (signal.type == Signal::Type::Bits) {
            bits_[variable->second.signal].push_back({time_, variable->second.bit, value});
            return;
        }
        const std::vector<std::string> &texts = texts_[signal.name];
        const size_t number = signal.changes.size();
        const bool isEvent = signal.type == Signal::Type::Event;
        signal.changes.push_back({time_, !isEvent                ? value
                                         : number < texts.size() ? texts[number]
                                                                 : ""});
    }

    /// What an event was: "event NAME at TIME: TEXT".
    void noteText(const std::string &comment)
    {
        std::istringstream words(comment);
        std::string event, name, at, time, text;
        if (words >> event >> name >> at >> time && event == "event" &&
            std::getline(words >> std::ws, text))
            texts_[name].push_back(text);
    }

    void joinBits()
    {
        for (const auto &[index, changes] : bits_) {
            Signal &signal = recording_.signals[index];
            int number = 0;
            int known = 0;
            for (size_t i = 0; i < changes.size(); i++) {
                const BitChange &change = changes[i];
                const int bit = 1 << change.bit;
                known = change.value == "x" ? known & ~bit : known | bit;
                number = change.value == "1" ? number | bit : number & ~bit;
                if (i + 1 < changes.size() && changes[i + 1].time == change.time)
                    continue;
                signal.changes.push_back(
                    {change.time, known == (1 << MODE_BITS) - 1 ? std::to_string(number) : "x"});
            }
        }
    }

    struct BitChange {
        int64_t time;
        int bit;
        std::string value;
    };

    std::istream &in_;
    Recording recording_;
    std::map<std::string, Variable> variables_;
    std::map<size_t, std::vector<BitChange>> bits_;
    std::map<std::string, std::vector<std::string>> texts_; ///< of the events, in their order
    int64_t time_ = 0;
};

} // namespace

const Signal *Recording::find(const std::string &name) const
{
    const auto found = std::find_if(signals.begin(), signals.end(),
                                    [&](const Signal &signal) { return signal.name == name; });
    return found == signals.end() ? nullptr : &*found;
}

Recording makeRecording(const std::vector<Event> &events, Clock::time_point end)
{
    Recording recording;
    recording.signals = emptySignals();
    if (events.empty())
        return recording;
    const Clock::time_point start = events.front().time;
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

Recording readVcd(std::istream &in)
{
    return VcdReader(in).read();
}

} // namespace kelo
