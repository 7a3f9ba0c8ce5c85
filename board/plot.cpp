#include "plot.h"

#include "process.h"
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace kelo {

namespace {

constexpr double WIDTH = 1000;
constexpr double LEFT = 110;
constexpr double RIGHT = 20;
constexpr double LANE = 22; ///< from one lane to the next
constexpr double BAR = 14;  ///< a lane's height
constexpr double GAP = 12;  ///< between groups of lanes
constexpr double MIN_WIDTH = 0.8;
constexpr size_t EVENT_LANES = 5;
constexpr double CROWD_WIDTH = 80; ///< of "+3 more"
constexpr double SECOND = 100000;  ///< in RecordingTick

/// A stretch of time in which a signal holds a value.
struct Span {
    double from;
    double to;
    std::string value;
};

std::string powerText(const std::string &value)
{
    return value == "nan" ? "no reading" : value + " dBm";
}

std::string linkText(const std::string &value)
{
    return value == "5" ? "up" : "down (" + value + ")";
}

std::string buttonText(const std::string &value)
{
    return value == "0" || value == "nan" ? "" : value;
}

std::string withoutQuotes(std::string text)
{
    std::erase(text, '"');
    return text;
}

/// What a mark says of an event.
std::string eventText(const Signal &signal, const std::string &value)
{
    if (signal.name == "store") // node, attribute, value
        return withoutQuotes(value.substr(std::min(value.size(), value.find(' ') + 1)));
    if (signal.name == "omci")
        return "omci " + value;
    if (signal.name == "daemon_exit")
        return value;
    return signal.name;
}

/// The least of 1, 2 and 5 times a power of ten that gives at most `most` steps.
double niceStep(double length, double most)
{
    double step = std::pow(10, std::floor(std::log10(length / most)));
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (length / (step * factor) <= most)
            return step * factor;
    }
    return step * 10;
}

class Plot {
public:
    Plot(const Recording &recording, int64_t from, int64_t to)
        : recording_(recording), from_(static_cast<double>(from)),
          to_(static_cast<double>(std::max(to, from + 1)))
    {
    }

    std::string draw()
    {
        y_ = 14;
        for (const Signal &signal : recording_.signals) {
            if (signal.name.starts_with("gpio") && signal.type == Signal::Type::Bit)
                drawLed(signal);
        }
        y_ += GAP;
        drawBands("mode", "mode", modeName);
        drawBands("rx_power_dbm", "rx power", powerText);
        drawBands("gpon_state", "GPON link", linkText);
        drawBands("button_value", "button", buttonText);
        y_ += GAP;
        drawEvents();
        drawAxis();
        // The grid lies under everything else.
        grid_.add(picture_);
        return grid_.finish(WIDTH, y_ + 44, "What a board did");
    }

private:
    double x(double time) const
    {
        return LEFT + (time - from_) / (to_ - from_) * (WIDTH - LEFT - RIGHT);
    }

    std::vector<Span> spans(const Signal &signal) const
    {
        std::vector<Span> result;
        for (size_t i = 0; i < signal.changes.size(); i++) {
            const auto time = static_cast<double>(signal.changes[i].time);
            const double end = i + 1 < signal.changes.size()
                                   ? static_cast<double>(signal.changes[i + 1].time)
                                   : static_cast<double>(recording_.length);
            const Span span{std::max(time, from_), std::min(end, to_), signal.changes[i].value};
            if (span.from < span.to)
                result.push_back(span);
        }
        return result;
    }

    void label(const std::string &text)
    {
        picture_.text("ink", LEFT - 10, y_ + BAR - 3, text, Svg::Anchor::End);
    }

    void drawLed(const Signal &signal)
    {
        label("GPIO " + signal.name.substr(4));
        picture_.rect("off", LEFT, y_ + BAR / 2 - 1, WIDTH - LEFT - RIGHT, 2);
        // What is too narrow to tell apart is drawn as one.
        double from = -1;
        double to = -1;
        bool busy = false;
        const auto flush = [&] {
            if (from >= 0)
                picture_.rect(busy ? "busy" : "lit", from, y_, std::max(to - from, MIN_WIDTH), BAR);
            busy = false;
        };
        for (const Span &span : spans(signal)) {
            if (span.value != "1")
                continue;
            const double left = x(span.from);
            const double right = x(span.to);
            if (from >= 0 && left - to < MIN_WIDTH) {
                to = right;
                busy = true;
                continue;
            }
            flush();
            from = left;
            to = right;
        }
        flush();
        finishLane();
    }

    void drawBands(const char *name, const char *title,
                   const std::function<std::string(const std::string &)> &textOf)
    {
        const Signal *const signal = recording_.find(name);
        if (!signal)
            return;
        label(title);
        for (const Span &span : spans(*signal)) {
            const std::string text = span.value == "x" ? "" : textOf(span.value);
            if (text.empty())
                continue;
            const double left = x(span.from);
            const double width = std::max(x(span.to) - left, MIN_WIDTH);
            picture_.rect("band", left, y_, width, BAR, width > 4 ? 2 : 0);
            if (Svg::textWidth(text) + 6 < width)
                picture_.text("ink", left + 5, y_ + BAR - 3, text);
        }
        finishLane();
    }

    /// Marks with their texts, each in the first lane that has room for it.
    void drawEvents()
    {
        std::vector<std::pair<int64_t, std::string>> events;
        for (const Signal &signal : recording_.signals) {
            if (signal.type != Signal::Type::Event)
                continue;
            for (const Signal::Change &change : signal.changes) {
                const auto time = static_cast<double>(change.time);
                if (time >= from_ && time <= to_)
                    events.emplace_back(change.time, eventText(signal, change.value));
            }
        }
        if (events.empty())
            return;
        std::stable_sort(events.begin(), events.end(),
                         [](const auto &a, const auto &b) { return a.first < b.first; });
        label("calls");
        std::vector<double> ends;
        const double top = y_;
        double lastBare = 0;
        struct Crowd {
            double begin;
            int count;
        };
        std::vector<Crowd> crowds; ///< of marks without a text
        for (const auto &[time, text] : events) {
            const double left = x(static_cast<double>(time));
            const double width = Svg::textWidth(text) + 12;
            const bool flipped = left + width > WIDTH - 2;
            const double begin = flipped ? left - width : left;
            size_t lane = 0;
            while (lane < ends.size() && ends[lane] > begin)
                lane++;
            if (lane >= EVENT_LANES) { // no room: the mark alone
                if (crowds.empty() || (left - crowds.back().begin > CROWD_WIDTH &&
                                       crowds.back().begin + 2 * CROWD_WIDTH <= WIDTH))
                    crowds.push_back({std::min(left, WIDTH - CROWD_WIDTH), 0});
                crowds.back().count++;
                if (left - lastBare >= MIN_WIDTH) {
                    picture_.line("mark", left, top, left, top + BAR);
                    lastBare = left;
                }
                continue;
            }
            ends.resize(std::max(ends.size(), lane + 1));
            ends[lane] = begin + width;
            const double y = top + static_cast<double>(lane) * (BAR + 3);
            picture_.line("mark", left, top, left, y + BAR);
            picture_.circle("mark", left, y + BAR / 2, 2.5);
            picture_.text("ink", flipped ? left - 6 : left + 6, y + BAR - 3, text,
                          flipped ? Svg::Anchor::End : Svg::Anchor::Start);
        }
        for (const Crowd &crowd : crowds)
            picture_.text("muted", crowd.begin, top + EVENT_LANES * (BAR + 3) + BAR - 3,
                          "+" + std::to_string(crowd.count) + " more");
        y_ = top + static_cast<double>(ends.size() + !crowds.empty()) * (BAR + 3) + GAP;
    }

    void drawAxis()
    {
        const double length = (to_ - from_) / SECOND;
        const double step = niceStep(length, 10);
        const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
        picture_.line("muted", LEFT, y_, WIDTH - RIGHT, y_);
        const auto last = static_cast<int64_t>(std::floor(to_ / SECOND / step + 1e-6));
        for (auto tick = static_cast<int64_t>(std::ceil(from_ / SECOND / step - 1e-9));
             tick <= last; tick++) {
            const double second = static_cast<double>(tick) * step;
            const double position = x(second * SECOND);
            grid_.line("grid", position, 10, position, y_);
            picture_.line("muted", position, y_, position, y_ + 4);
            char text[32];
            snprintf(text, sizeof text, "%.*f s", decimals, second);
            picture_.text("muted", position, y_ + 18, text, Svg::Anchor::Middle);
        }
    }

    void finishLane() { y_ += LANE; }

    const Recording &recording_;
    double from_;
    double to_;
    double y_ = 0;
    Svg picture_;
    Svg grid_;
};

} // namespace

std::string plot(const Recording &recording, int64_t from, int64_t to)
{
    return Plot(recording, from, to).draw();
}

void savePicture(const std::string &svg, const std::string &path)
{
    const bool bitmap = path.ends_with(".png");
    if (!bitmap && !path.ends_with(".svg"))
        throw std::runtime_error("a picture's name ends in .svg or .png: " + path);
    if (!bitmap)
        return writeFile(path, svg);
    const Descriptor source(memfd_create("picture", MFD_CLOEXEC));
    const Descriptor nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const Descriptor target(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!target)
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    if (write(source.get(), svg.data(), svg.size()) != ssize_t(svg.size()) ||
        lseek(source.get(), 0, SEEK_SET) < 0)
        throw std::runtime_error(std::string("cannot draw a bitmap: ") + strerror(errno));
    pid_t child;
    try {
        child = spawn({"rsvg-convert", "--zoom", "2"}, {source.get(), target.get(), nothing.get()});
    } catch (const std::exception &) {
        unlink(path.c_str());
        throw std::runtime_error("a bitmap needs rsvg-convert: apt-get install librsvg2-bin");
    }
    if (waitFor(child) != 0)
        throw std::runtime_error("rsvg-convert could not make " + path);
}

} // namespace kelo
