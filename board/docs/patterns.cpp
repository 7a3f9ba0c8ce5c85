// kelo-docs FOLDER: writes the LED patterns of all display modes, as they are recorded from the
// daemon, as a picture and as a text: led-patterns.svg and led-patterns.md. They go by ticks, not
// by times, so that the same daemon gives the same patterns on any machine.

#include "board.h"
#include "device.h"
#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <future>
#include <iterator>
#include <stdexcept>

namespace {

using namespace kelo;

struct Pattern {
    std::string group; ///< heading under which it stands
    std::string title;
    int tick = 0; ///< ms between two drawings, to the nearest 50; 0 when it is drawn once
    std::vector<std::string> phases; ///< flags of GPIO 6, 7, 8, 2, 3, 4, over and over
    int ticks = 0;                   ///< after which the mode ends by itself; 0 for never
};

constexpr auto deadline = std::chrono::seconds(60);
constexpr auto longestTick = std::chrono::seconds(6); // and then some
constexpr char darkFrame[] = "000000";                ///< before the first mode
constexpr char signalFrame[] = "110000";              ///< of the power that boards start with

struct Case {
    const char *group;
    const char *title;
    const char *keyword; ///< null: as the daemon starts, in signal mode
    const char *laser;
    int gpon;
    size_t frames; ///< to look at
};

constexpr char linkUp[] = "signal, link up";
constexpr char linkDown[] = "signal, link down";
constexpr char others[] = "the other modes";

// Two rounds of the longest pattern, so that what repeats is seen to repeat.
constexpr size_t ROUNDS = 9;
constexpr size_t ALL = 125; ///< more than a mode that ends by itself draws

constexpr Case cases[] = {
    {linkUp, "no reading", nullptr, "", 5, ROUNDS},
    {linkUp, "-34 dBm: level 0", nullptr, "-34", 5, ROUNDS},
    {linkUp, "-26.5 dBm: level 1", nullptr, "-26.5", 5, ROUNDS},
    {linkUp, "-18 dBm: level 2", nullptr, "-18", 5, ROUNDS},
    {linkUp, "-9.5 dBm: level 3", nullptr, "-9.5", 5, ROUNDS},
    {linkUp, "-4 dBm: level 4", nullptr, "-4", 5, ROUNDS},
    {linkDown, "no reading", nullptr, "", 3, ROUNDS},
    {linkDown, "-34 dBm: level 0", nullptr, "-34", 3, ROUNDS},
    {linkDown, "-26.5 dBm: level 1", nullptr, "-26.5", 3, ROUNDS},
    {linkDown, "-18 dBm: level 2", nullptr, "-18", 3, ROUNDS},
    {linkDown, "-9.5 dBm: level 3", nullptr, "-9.5", 3, ROUNDS},
    {linkDown, "-4 dBm: level 4", nullptr, "-4", 3, ROUNDS},
    {others, "none", "none", "-18.5", 5, ROUNDS},
    {others, "reboot", "reboot", "-18.5", 5, ROUNDS},
    {others, "restore", "restore", "-18.5", 5, ROUNDS},
    {others, "errora12", "errora12", "-18.5", 5, ROUNDS},
    {others, "locateme", "locateme", "-18.5", 5, ALL},
    {others, "ledtest", "ledtest", "-18.5", 5, 5},
    {others, "facttest", "facttest", "-18.5", 5, ROUNDS},
    {others, "facttesterr", "facttesterr", "-18.5", 5, ROUNDS},
};

using Events = std::vector<Event>;

Events framesIn(const Events &events, size_t from)
{
    Events frames;
    std::copy_if(events.begin() + static_cast<ptrdiff_t>(from), events.end(),
                 std::back_inserter(frames),
                 [](const Event &event) { return event.kind == EventKind::Leds; });
    return frames;
}

/// Waits for LED frames from an event on: as many as wanted, or fewer when no more come.
Events waitForFrames(const Board &board, size_t from, size_t wanted)
{
    size_t known = 0;
    const auto grow = [&](const Events &events) { return framesIn(events, from).size() > known; };
    while (known < wanted && board.waitUntil(grow, longestTick))
        known = framesIn(board.events(), from).size();
    return framesIn(board.events(), from);
}

/// Waits for the bar, which comes from the loop: with the loop the pipe is read. The dark frame
/// from before the loop, and before the pipe, may be read late and does not count.
void waitForBar(const Board &board, size_t from)
{
    const auto shows = [&](const Events &events) {
        const Events frames = framesIn(events, from);
        return std::any_of(frames.begin(), frames.end(),
                           [](const Event &frame) { return frame.text == signalFrame; });
    };
    if (!board.waitUntil(shows, deadline))
        throw std::runtime_error("the daemon draws nothing");
}

/// How many frames from a place on the pattern takes before it begins again; 0 when it never does.
size_t periodOf(const Events &frames, size_t from)
{
    for (size_t period = 1; from + period < frames.size(); period++) {
        bool repeats = true;
        for (size_t i = from; i + period < frames.size(); i++)
            repeats = repeats && frames[i].text == frames[i + period].text;
        if (repeats)
            return period;
    }
    return 0;
}

int medianTick(const Events &frames)
{
    std::vector<double> steps;
    for (size_t i = 1; i < frames.size(); i++)
        steps.push_back(
            std::chrono::duration<double, std::milli>(frames[i].time - frames[i - 1].time).count());
    std::nth_element(steps.begin(), steps.begin() + static_cast<ptrdiff_t>(steps.size() / 2),
                     steps.end());
    return static_cast<int>(std::lround(steps[steps.size() / 2] / 50)) * 50;
}

Pattern recordOne(const Case &one)
{
    Board board;
    board.setLaser(one.laser);
    board.setGpon(one.gpon);
    size_t from = board.mark();
    board.startDaemon();
    if (one.keyword) {
        waitForBar(board, from);
        from = board.mark();
        board.writeKeyword(one.keyword);
    }
    // One frame more, as the first may be what was drawn before.
    Events frames = waitForFrames(board, from, one.frames + 1);
    const char *const before = one.keyword ? signalFrame : darkFrame;
    while (!frames.empty() && frames[0].text == before)
        frames.erase(frames.begin());

    Pattern pattern{one.group, one.title, 0, {}, 0};
    if (one.frames == ALL) {
        const auto end = std::find_if(frames.begin(), frames.end(),
                                      [](const Event &frame) { return frame.text == signalFrame; });
        pattern.ticks = end == frames.end() ? 0 : static_cast<int>(end - frames.begin());
        frames.erase(end, frames.end());
    }
    if (frames.empty())
        throw std::runtime_error(std::string(one.title) + ": nothing was drawn");
    if (frames.size() == 1) {
        pattern.phases = {frames[0].text};
        return pattern;
    }
    const size_t period = periodOf(frames, 0);
    if (period == 0)
        throw std::runtime_error(std::string(one.title) + ": what was drawn does not repeat");
    pattern.tick = medianTick(frames);
    for (size_t phase = 0; phase < period; phase++)
        pattern.phases.push_back(frames[phase].text);
    return pattern;
}

std::string tickText(const Pattern &pattern)
{
    if (pattern.tick == 0)
        return "drawn once";
    if (pattern.tick % 1000 == 0)
        return std::to_string(pattern.tick / 1000) + " s";
    return std::to_string(pattern.tick) + " ms";
}

std::string endText(const Pattern &pattern)
{
    return pattern.ticks ? "after " + std::to_string(pattern.ticks) + " ticks back to signal" : "";
}

constexpr int COLUMNS = 3;
constexpr double CELL_WIDTH = 310;
constexpr double CELL_HEIGHT = 112;
constexpr double HEADING = 36;
constexpr double MARGIN = 20;
constexpr double LANES_LEFT = 24;
constexpr double LANES_WIDTH = CELL_WIDTH - LANES_LEFT - 22;
constexpr double LANE = 11;
constexpr double BAR = 8;
constexpr size_t SHOWN_TICKS = 8;

void drawCell(Svg &svg, double left, double top, const Pattern &pattern)
{
    svg.text("ink name", left, top + 10, pattern.title);
    svg.text("muted small", left + LANES_LEFT + LANES_WIDTH, top + 10,
             (pattern.tick ? tickText(pattern) + " a tick" : tickText(pattern)) +
                 (pattern.ticks ? ", " + endText(pattern) : ""),
             Svg::Anchor::End);
    const double lanes = top + 20;
    const double step = LANES_WIDTH / SHOWN_TICKS;
    for (size_t led = 0; led < std::size(device::ledGpios); led++) {
        const double y = lanes + static_cast<double>(led) * LANE;
        svg.text("muted small", left + 12, y + BAR, std::to_string(device::ledGpios[led]),
                 Svg::Anchor::Middle);
        svg.rect("off", left + LANES_LEFT, y + BAR / 2 - 0.5, LANES_WIDTH, 1);
        for (size_t tick = 0; tick < SHOWN_TICKS; tick++) {
            const auto lit = [&](size_t at) {
                return at < SHOWN_TICKS &&
                       pattern.phases[at % pattern.phases.size()].at(led) == '1';
            };
            if (!lit(tick) || (tick > 0 && lit(tick - 1)))
                continue;
            size_t end = tick;
            while (lit(end))
                end++;
            svg.rect("lit", left + LANES_LEFT + static_cast<double>(tick) * step, y,
                     static_cast<double>(end - tick) * step, BAR);
        }
    }
    const double axis = lanes + static_cast<double>(std::size(device::ledGpios)) * LANE + 1;
    if (pattern.tick == 0)
        return;
    for (size_t tick = 0; tick <= SHOWN_TICKS; tick++) {
        const double x = left + LANES_LEFT + static_cast<double>(tick) * step;
        svg.line("muted", x, axis, x, axis + (tick % 4 == 0 ? 4 : 2));
    }
}

/// Plays all nine display modes on boards of their own.
std::vector<Pattern> recordPatterns()
{
    std::vector<std::future<Pattern>> recordings;
    for (const Case &one : cases)
        recordings.push_back(std::async(std::launch::async, recordOne, std::cref(one)));
    std::vector<Pattern> patterns;
    for (std::future<Pattern> &recording : recordings)
        patterns.push_back(recording.get());
    return patterns;
}

std::string drawPatterns(const std::vector<Pattern> &patterns)
{
    Svg svg;
    svg.style(".name{font-weight:bold}.small{font-size:10px}.head{font-size:15px}");
    double y = MARGIN;
    int column = 0;
    std::string group;
    for (const Pattern &pattern : patterns) {
        if (pattern.group != group) {
            y += column > 0 ? CELL_HEIGHT : 0;
            column = 0;
            group = pattern.group;
            svg.text("ink head", MARGIN, y + 14, group);
            svg.line("grid", MARGIN, y + 21, MARGIN + COLUMNS * CELL_WIDTH - 22, y + 21);
            y += HEADING;
        }
        drawCell(svg, MARGIN + column * CELL_WIDTH, y, pattern);
        if (++column == COLUMNS) {
            column = 0;
            y += CELL_HEIGHT;
        }
    }
    y += column > 0 ? CELL_HEIGHT : 0;
    svg.text("muted", MARGIN, y + 4,
             "GPIO 6, 7, 8, 2, 3 and 4 from top to bottom; a bar is a lit LED; eight ticks each.");
    return svg.finish(2 * MARGIN + COLUMNS * CELL_WIDTH - 22, y + MARGIN,
                      "The LED patterns of all display modes");
}

std::string listPatterns(const std::vector<Pattern> &patterns)
{
    std::string text = "# LED patterns\n\n"
                       "What the six LEDs show in every display mode, recorded from the daemon by\n"
                       "`scripts/docs`; [led-patterns.svg](led-patterns.svg) is the same as a\n"
                       "picture. The flags are those of GPIO 6, 7, 8, 2, 3 and 4, 1 is lit. A\n"
                       "pattern's phases follow one another tick by tick and begin again.\n";
    std::string group;
    for (const Pattern &pattern : patterns) {
        if (pattern.group != group) {
            group = pattern.group;
            text += "\n## " + group + "\n\n| | tick | phases | ends |\n|---|---|---|---|\n";
        }
        text += "| " + pattern.title + " | " + tickText(pattern) + " |";
        for (const std::string &phase : pattern.phases)
            text += " `" + phase + "`";
        text += " | " + endText(pattern) + " |\n";
    }
    return text;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: kelo-docs FOLDER\n", stderr);
        return 2;
    }
    const std::string folder = argv[1];
    try {
        const std::vector<Pattern> patterns = recordPatterns();
        writeFile(folder + "/led-patterns.svg", drawPatterns(patterns));
        writeFile(folder + "/led-patterns.md", listPatterns(patterns));
    } catch (const std::exception &error) {
        fprintf(stderr, "kelo-docs: %s\n", error.what());
        return 1;
    }
}
