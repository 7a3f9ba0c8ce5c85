#include "draw.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwctype>

namespace kelo::panel {

namespace {

constexpr int LEFT = 8; ///< where values start; their names stand before that
constexpr int LED_WIDTH = 11;
constexpr auto messageTime = std::chrono::seconds(6);
constexpr char logPrefix[] = "kelo-monitord: ";
constexpr int TIME_WIDTH = 10; ///< of a log line

// The rows of the panel.
constexpr int LED_ROW = 1;
constexpr int MODE_ROW = 4;
constexpr int POWER_ROW = 5;
constexpr int BUTTON_ROW = 8;
constexpr int STORE_ROW = 9;
constexpr int PORT_ROW = 12;
constexpr int LOG_ROW = 17;
constexpr int LARGE_LOG_ROW = 5;

// Of the levels 0 to 4.
constexpr std::array<Colour, 5> levelColours{Colour::Bad, Colour::Warning, Colour::Good,
                                             Colour::Cool, Colour::Accent};

__attribute__((format(printf, 1, 2))) std::string format(const char *text, ...)
{
    char buffer[512];
    va_list arguments;
    va_start(arguments, text);
    vsnprintf(buffer, sizeof buffer, text, arguments);
    va_end(arguments);
    return buffer;
}

double seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::string span(Clock::duration duration)
{
    const long total = std::lround(std::floor(seconds(duration)));
    if (total < 60)
        return format("%ld s", total);
    if (total < 3600)
        return format("%ld min %02ld s", total / 60, total % 60);
    return format("%ld h %02ld min", total / 3600, total / 60 % 60);
}

/// Bytes in at most six characters: "999", "1.2k", "345M".
std::string bytes(long long number)
{
    double value = std::abs(static_cast<double>(number));
    const char *unit = "";
    for (const char *const next : {"k", "M", "G", "T"}) {
        if (value < 999.5)
            break;
        value /= 1000;
        unit = next;
    }
    const bool decimal = *unit && value < 9.95;
    return format("%s%.*f%s", number < 0 ? "-" : "", decimal ? 1 : 0, value, unit);
}

/// A log line without what they all begin with, in rows that fit, broken between words.
std::vector<std::string> wrapLog(const LogLine &line, int columns)
{
    std::string text = line.text;
    if (text.starts_with(logPrefix))
        text.erase(0, sizeof logPrefix - 1);
    const size_t room = static_cast<size_t>(std::max(1, columns - TIME_WIDTH - 1));
    std::vector<std::string> rows;
    while (text.size() > room) {
        size_t end = text.rfind(' ', room);
        if (end == std::string::npos || end < room / 2)
            end = room;
        rows.push_back(text.substr(0, end));
        text.erase(0, text.find_first_not_of(' ', end));
    }
    rows.push_back(text);
    return rows;
}

class Drawing {
public:
    Drawing(Screen &screen, const State &state, const View &view)
        : screen_(screen), state_(state), view_(view), width_(screen.columns())
    {
    }

    void all()
    {
        screen_.clear();
        if (screen_.rows() < MIN_ROWS || width_ < MIN_COLUMNS) {
            tooSmall();
        } else if (view_.help) {
            help();
        } else if (view_.faults) {
            faults();
        } else {
            title();
            leds();
            if (!view_.largeLog) {
                power();
                button();
                store();
                ports();
            }
            mode();
            log();
            lastRow();
        }
        screen_.show();
    }

private:
    const char *glyph(const char *unicode, const char *ascii) const
    {
        return screen_.unicode() ? unicode : ascii;
    }

    void name(int row, const char *text)
    {
        screen_.put(row, 1, LEFT - 1, text, Colour::Plain, Screen::BOLD);
    }

    bool ended() const { return !state_.running && !state_.exit.empty(); }

    void tooSmall()
    {
        const int row = std::max(0, screen_.rows() / 2 - 1);
        screen_.put(row, 0, width_, format("The panel needs %dx%d,", MIN_COLUMNS, MIN_ROWS),
                    Colour::Warning);
        screen_.put(row + 1, 0, width_, format("this window is %dx%d.", width_, screen_.rows()),
                    Colour::Warning);
        screen_.put(row + 2, 0, width_, "Make it larger, or q to quit.");
    }

    void title()
    {
        screen_.fill(0, 0, width_, " ", Colour::Title);
        std::string status = "starting";
        const bool works = view_.look.daemon == "running" && view_.look.process;
        if (ended())
            status = "ENDED: " + state_.exit + ", R restarts";
        else if (view_.look.daemon == "stopped")
            status = "STOPPED, s c lets it go on";
        else if (view_.look.daemon == "zombie")
            status = "ZOMBIE: dead, but not gone";
        else if (state_.running && works)
            status = format("running, process %d", *view_.look.process);
        if (works && !ended())
            status += ", board up " + span(view_.now - view_.start);
        const int column = width_ - static_cast<int>(status.size()) - 1;
        screen_.put(0, 1, column - 2, "kelo-monitord on " + printable(view_.board), Colour::Title,
                    Screen::BOLD);
        screen_.put(0, column, width_, status, Colour::Title);
    }

    void leds()
    {
        name(LED_ROW, "LEDs");
        for (size_t led = 0; led < std::size(ledGpios); led++) {
            const int column = LEFT + static_cast<int>(led) * (LED_WIDTH + 1);
            const char flag = led < state_.leds.size() ? state_.leds[led] : '?';
            const bool lit = flag == '1';
            screen_.put(LED_ROW, column, LED_WIDTH, format("  GPIO %d", ledGpios[led]));
            if (lit)
                screen_.fill(LED_ROW + 1, column, LED_WIDTH - 1, glyph("█", "#"), Colour::Good,
                             Screen::BOLD);
            else
                screen_.fill(LED_ROW + 1, column, LED_WIDTH - 1, glyph("░", "."), Colour::Plain,
                             Screen::DIM);
            screen_.put(LED_ROW + 2, column, LED_WIDTH,
                        lit           ? "    ON"
                        : flag == '0' ? "    off"
                                      : "    ?",
                        lit ? Colour::Good : Colour::Plain, lit ? Screen::BOLD : 0);
        }
    }

    void mode()
    {
        name(MODE_ROW, "Mode");
        if (!state_.mode) {
            screen_.put(MODE_ROW, LEFT, width_, "none yet");
            return;
        }
        const std::string keyword = modeName(std::to_string(*state_.mode));
        screen_.put(MODE_ROW, LEFT, width_, keyword, Colour::Cool, Screen::BOLD);
        screen_.put(
            MODE_ROW, LEFT + static_cast<int>(keyword.size()), width_ - LEFT,
            format(" (%d) ", *state_.mode) +
                (ended() ? "when the daemon ended" : "for " + span(view_.now - state_.modeSince)));
    }

    void power()
    {
        name(POWER_ROW, "Power");
        const std::optional<double> power = toPower(state_.laser);
        const int level = levelOf(power);
        std::string text = "no reading: no signal";
        if (power && level < 0)
            text = format("%s dBm: no signal", state_.laser.c_str());
        else if (power)
            text = format("%s dBm: level %d", state_.laser.c_str(), level);
        screen_.put(POWER_ROW, LEFT, width_ / 2 - LEFT, text,
                    level < 0 ? Colour::Bad : levelColours[static_cast<size_t>(level)],
                    Screen::BOLD);

        const bool up = atoi(state_.gpon.c_str()) == gponUp;
        screen_.put(POWER_ROW, width_ / 2, 10, "Link", Colour::Plain, Screen::BOLD);
        screen_.put(POWER_ROW, width_ / 2 + 6, width_ / 2 - 6,
                    (up ? "up" : "DOWN") + std::string(" (GPON state ") + state_.gpon + ")",
                    up ? Colour::Good : Colour::Bad, up ? 0 : Screen::BOLD);
        gauge(level < 0 ? noSignalDbm : *power);
    }

    /// The column of the gauge where a power lies.
    int gaugeColumn(double power) const
    {
        const int length = width_ - LEFT - 2;
        const double part = std::clamp((power - noSignalDbm) / -noSignalDbm, 0.0, 1.0);
        return LEFT + static_cast<int>(std::lround(part * length));
    }

    void gauge(double power)
    {
        const int row = POWER_ROW + 1;
        const int filled = std::isnan(power) ? LEFT : gaugeColumn(power);
        for (size_t level = 0; level <= std::size(levelThresholds); level++) {
            const int from = gaugeColumn(level == 0 ? noSignalDbm : levelThresholds[level - 1]);
            const int to =
                gaugeColumn(level == std::size(levelThresholds) ? 0 : levelThresholds[level]);
            const Colour colour = levelColours[level];
            const int end = std::clamp(filled, from, to);
            screen_.fill(row, from, end - from, glyph("█", "#"), colour);
            screen_.fill(row, end, to - end, glyph("░", "-"), colour);
            screen_.put(row, (from + to) / 2, 1, format("%zu", level), colour, Screen::REVERSE);
            if (level > 0)
                screen_.put(row, from, 1, glyph("│", "|"));
        }
        screen_.put(row + 1, LEFT, 3, "-40");
        for (const double threshold : levelThresholds)
            screen_.put(row + 1, gaugeColumn(threshold) - 1, 3, format("%.0f", threshold));
        screen_.put(row + 1, width_ - 7, 6, " 0 dBm");
    }

    void button()
    {
        name(BUTTON_ROW, "Button");
        std::string text = "released";
        Colour colour = Colour::Plain;
        if (state_.outcome != ButtonOutcome::None) {
            text = std::string(state_.outcome == ButtonOutcome::Reboot ? "REBOOTED"
                                                                       : "RESTORED defaults") +
                   (state_.button ? format(", still held, value %d", state_.button) : "") +
                   "; ignored until a restart (R)";
            colour = Colour::Accent;
        } else if (state_.button >= restoreValue) {
            text = format("HELD, value %d: restores defaults within 1 s", state_.button);
            colour = Colour::Bad;
        } else if (state_.button != 0) {
            const double left = restoreValue - state_.button -
                                std::min(1.0, seconds(view_.now - state_.buttonSince));
            text = format("HELD, value %d: let go and it reboots, in %.0f s it restores defaults",
                          state_.button, std::ceil(std::max(0.0, left)));
            colour = Colour::Warning;
        }
        screen_.put(BUTTON_ROW, LEFT, width_ - LEFT, text, colour,
                    colour == Colour::Plain ? 0 : Screen::BOLD);
    }

    std::string stored(const std::string &attribute) const
    {
        const auto found = state_.store.find(attribute);
        if (found == state_.store.end())
            return "not set";
        return found->second.empty() ? "\"\"" : found->second;
    }

    void store()
    {
        name(STORE_ROW, "IPv6");
        const auto length = [&](const char *attribute) {
            return state_.store.contains(attribute) ? std::string("/").append(stored(attribute))
                                                    : "";
        };
        const std::string values[] = {stored("wanAddress") + length("wanAddressLen"),
                                      stored("wanGateway"),
                                      stored("lanAddress") + length("lanAddressLen")};
        const char *const names[] = {"WAN address", "WAN gateway", "LAN address"};
        for (int i = 0; i < 3; i++) {
            screen_.put(STORE_ROW + i, LEFT, 12, names[i]);
            const bool set = values[i] != "not set";
            screen_.put(STORE_ROW + i, LEFT + 13, width_ - LEFT - 13, values[i],
                        set ? Colour::Cool : Colour::Plain, set ? 0 : Screen::DIM);
        }
    }

    std::string sparkline(const std::deque<long long> &history, int length) const
    {
        constexpr const char *unicodeSteps[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
        constexpr const char *asciiSteps[] = {" ", ".", ".", ":", ":", "+", "+", "#", "#"};
        const size_t count = std::min(history.size(), static_cast<size_t>(length));
        const auto first = history.end() - static_cast<ptrdiff_t>(count);
        long long most = 1;
        for (auto value = first; value != history.end(); ++value)
            most = std::max(most, *value);
        std::string text(static_cast<size_t>(length) - count, ' ');
        for (auto value = first; value != history.end(); ++value) {
            const double part =
                static_cast<double>(std::max(0LL, *value)) / static_cast<double>(most);
            const auto step = static_cast<size_t>(std::ceil(part * 8));
            text += screen_.unicode() ? unicodeSteps[step] : asciiSteps[step];
        }
        return text;
    }

    void ports()
    {
        name(PORT_ROW, "Ports");
        const int half = (width_ - LEFT) / 2;
        const int spark = (half - 23) / 2;
        for (int side = 0; side < 2; side++) {
            const int column = LEFT + side * half;
            screen_.put(PORT_ROW, column + 6, half, format("%6s", "in/s"), Colour::Plain,
                        Screen::DIM);
            screen_.put(PORT_ROW, column + 6 + 8 + spark, half, format("%6s", "out/s"),
                        Colour::Plain, Screen::DIM);
        }
        screen_.put(PORT_ROW, LEFT, 5, view_.traffic ? "busy" : "", Colour::Good);
        faultList(PORT_ROW + 4, LEFT + half, half);
        for (size_t i = 0; i < std::size(portNames); i++) {
            const int row = PORT_ROW + 1 + static_cast<int>(i % 4);
            const int column = LEFT + static_cast<int>(i / 4) * half;
            screen_.put(row, column, 5, portNames[i]);
            const auto found = state_.ports.find(portNames[i]);
            if (found == state_.ports.end())
                continue;
            const Traffic &port = found->second;
            if (!port.readable) {
                screen_.put(row, column + 8, half - 8, "cannot be read", Colour::Bad);
                continue;
            }
            direction(row, column + 6, spark, port.in, Colour::Good);
            direction(row, column + 6 + 8 + spark, spark, port.out, Colour::Cool);
        }
    }

    void faultList(int row, int column, int width)
    {
        const std::set<std::string> &names = view_.look.faults;
        std::string text = "FAULTS";
        for (const Fault &fault : kelo::faults) {
            if (names.contains(fault.name))
                text += std::string(" ") + fault.name;
        }
        if (text.size() > static_cast<size_t>(width))
            text = format("%zu FAULTS, f lists them", names.size());
        if (!names.empty())
            screen_.put(row, column, width, text, Colour::Bad, Screen::BOLD);
    }

    void direction(int row, int column, int spark, const std::deque<long long> &history,
                   Colour colour)
    {
        screen_.put(row, column, 6, format("%6s", bytes(history.back()).c_str()));
        screen_.put(row, column + 7, spark, sparkline(history, spark), colour);
    }

    /// What came of the latest key, as long as it is fresh.
    bool message(int row)
    {
        if (!view_.message || view_.now - view_.message->time >= messageTime)
            return false;
        const bool failure = view_.message->failure;
        screen_.put(row, 2, width_ - 4,
                    (failure ? " FAILED: " : " ") + typed(view_.message->text) + " ",
                    failure ? Colour::Bad : Colour::Good, Screen::BOLD);
        return true;
    }

    void log()
    {
        const int top = view_.largeLog ? LARGE_LOG_ROW : LOG_ROW;
        const int height = logHeight(screen_, view_.largeLog);
        screen_.fill(top, 0, width_, glyph("─", "-"), Colour::Plain, Screen::DIM);
        std::string title = " Log, PgUp PgDn scroll, l ";
        title += view_.largeLog ? "makes it small " : "enlarges ";
        if (view_.scroll > 0)
            title = format(" Log, %d rows back, End returns ", view_.scroll);
        if (!message(top))
            screen_.put(top, 2, width_ - 4, title);

        int row = top + height + view_.scroll; // of the last row of the log, if all were shown
        for (auto line = state_.log.rbegin(); line != state_.log.rend() && row > top; ++line) {
            const std::vector<std::string> rows = wrapLog(*line, width_);
            for (size_t i = rows.size(); i-- > 0; row--) {
                if (row <= top || row > top + height)
                    continue;
                if (i == 0)
                    screen_.put(row, 0, TIME_WIDTH,
                                format("%*.3f", TIME_WIDTH - 1, seconds(line->time - view_.start)),
                                Colour::Plain, Screen::DIM);
                screen_.put(row, TIME_WIDTH, width_ - TIME_WIDTH, rows[i]);
            }
        }
    }

    /// A text that a person typed, with what the screen cannot show spelled out.
    std::string typed(const std::string &text) const
    {
        std::string result;
        for (size_t i = 0; i < text.size();) {
            wchar_t wide;
            const int length = std::mbtowc(&wide, text.c_str() + i, text.size() - i);
            const bool shows = length > 0 && std::iswprint(static_cast<wint_t>(wide));
            const std::string character = text.substr(i, static_cast<size_t>(std::max(1, length)));
            result += shows ? character : printable(character);
            i += character.size();
        }
        return result;
    }

    void lastRow()
    {
        const int row = screen_.rows() - 1;
        screen_.fill(row, 0, width_, " ", Colour::Title);
        if (view_.prompt) {
            // The end of a long text is where it is typed.
            const std::string text = typed(*view_.prompt);
            std::string end = text;
            for (int cut = 1; Screen::bytes(end, width_ - 2) < end.size(); cut++)
                end = text.substr(Screen::bytes(text, cut));
            screen_.put(row, 1, width_ - 2, end, Colour::Title);
            return;
        }
        screen_.put(
            row, 0, width_,
            std::string(" ? help  0-8 mode  + - power  g link  h r button  t traffic  w a IPv6") +
                (width_ >= 90 ? "  f faults" : "") + (view_.isOwn ? "  q quit" : "  q leave"),
            Colour::Title);
    }

    /// What a page beside the panel has in its first row and in its last.
    void page(const char *title, const char *way)
    {
        screen_.fill(0, 0, width_, " ", Colour::Title);
        screen_.put(0, 1, width_ - 2, title, Colour::Title, Screen::BOLD);
        screen_.put(screen_.rows() - 1, 1, width_ - 2, way);
    }

    void help()
    {
        page("Keys of the panel", "Any key returns to the panel.");
        const auto &lines = *view_.help;
        const size_t half = (lines.size() + 1) / 2;
        for (size_t i = 0; i < lines.size(); i++) {
            const int row = 2 + static_cast<int>(i % half);
            const int column = i < half ? 1 : width_ / 2;
            screen_.put(row, column, 10, lines[i].keys, Colour::Cool, Screen::BOLD);
            screen_.put(row, column + 10, width_ / 2 - 11, lines[i].text);
        }
    }

    void faults()
    {
        page("Faults of the board",
             "A digit turns a fault on or off, any other key returns to the panel.");
        int row = 2;
        for (const Fault &fault : kelo::faults) {
            const bool isOn = view_.look.faults.contains(fault.name);
            screen_.put(row, 1, 4, format("%d", row - 1), Colour::Cool, Screen::BOLD);
            screen_.put(row, 5, 16, fault.name, isOn ? Colour::Bad : Colour::Plain,
                        isOn ? Screen::BOLD : 0);
            screen_.put(row, 22, 4, isOn ? "ON" : "off", isOn ? Colour::Bad : Colour::Plain,
                        isOn ? Screen::BOLD : Screen::DIM);
            screen_.put(row++, 27, width_ - 28, fault.description);
        }
        message(row + 1);
    }

    Screen &screen_;
    const State &state_;
    const View &view_;
    int width_;
};

} // namespace

void draw(Screen &screen, const State &state, const View &view)
{
    Drawing(screen, state, view).all();
}

int logRows(const LogLine &line, int columns)
{
    return static_cast<int>(wrapLog(line, columns).size());
}

int logHeight(const Screen &screen, bool largeLog)
{
    return std::max(1, screen.rows() - 2 - (largeLog ? LARGE_LOG_ROW : LOG_ROW));
}

} // namespace kelo::panel
