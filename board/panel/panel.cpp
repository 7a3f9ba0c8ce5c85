#include "panel.h"

#include "controls.h"
#include "draw.h"
#include "registry.h"
#include "screen.h"
#include "state.h"

#include <csignal>
#include <ctime>
#include <functional>
#include <unistd.h>

#include <curses.h>

namespace kelo::panel {

namespace {

constexpr double POWER_STEP = 0.5;
constexpr auto frameTime = std::chrono::milliseconds(40);
constexpr int ESCAPE = 27;

volatile sig_atomic_t interrupted;

/// A name for a new file: it has the time in it, to the second.
std::string fileName(const std::string &board, const char *ending)
{
    const time_t now = time(nullptr);
    char text[32];
    strftime(text, sizeof text, "-%Y%m%d-%H%M%S", localtime(&now));
    return board + text + ending;
}

struct Signal {
    char key;
    const char *name;
};
constexpr Signal signals[] = {{'t', "TERM"}, {'i', "INT"},  {'h', "HUP"}, {'q', "QUIT"},
                              {'k', "KILL"}, {'s', "STOP"}, {'c', "CONT"}};

/// Whether a byte is not the first of its UTF-8 character.
bool isFurther(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

class Panel {
public:
    Panel(const std::string &name, bool isOwn, const Link::LoopPointer &loop, Controls &controls,
          Screen &screen)
        : view_{name, isOwn, toTime(stateOf(name)["start"])}, loop_(loop),
          record_(name, view_.start, loop), controls_(controls), screen_(screen)
    {
        addKeys();
    }

    void run()
    {
        const Watch typing(loop_->base(), STDIN_FILENO, [] {});
        try {
            for (Clock::time_point frame; !interrupted && !quit_ && !screen_.gone();) {
                loop_->turn(frame + frameTime);
                bool typed = false;
                for (int key; (key = screen_.key()) != ERR; typed = true) {
                    if (key != KEY_RESIZE)
                        take(key);
                }
                update();
                if (typed || Clock::now() >= frame + frameTime) {
                    frame = Clock::now();
                    show();
                }
            }
        } catch (const BoardEnded &) {
        }
    }

private:
    struct Prompt {
        std::string label;
        std::string text;
        std::function<void(const std::string &)> done; ///< none: one of the signals' keys
    };

    void addKeys()
    {
        const auto add = [this](int key, const char *shown, const char *text,
                                std::function<void()> action) {
            actions_[key] = std::move(action);
            if (text)
                help_.push_back({shown, text});
        };
        help_ = {{"0 to 8", "choose a display mode:"}, {"", "0 none      1 signal"},
                 {"", "2 reboot    3 restore"},        {"", "4 errora12  5 locateme"},
                 {"", "6 ledtest   7 facttest"},       {"", "8 facttesterr"}};
        for (size_t mode = 0; mode < std::size(modeKeywords); mode++)
            add('0' + static_cast<int>(mode), nullptr, nullptr,
                [this, keyword = std::string(modeKeywords[mode])] {
                    controls_.request({"keyword", keyword},
                                      "wrote \"" + keyword + "\" into the display pipe");
                });
        add('+', "+ -", "received power up, down", [this] { turnPower(POWER_STEP); });
        add('=', nullptr, nullptr, [this] { turnPower(POWER_STEP); });
        add('-', nullptr, nullptr, [this] { turnPower(-POWER_STEP); });
        add(']', "] [", "... to the next band", [this] { turnBand(1); });
        add('[', nullptr, nullptr, [this] { turnBand(-1); });
        add('n', "n", "no reading, or one again", [this] { controls_.turnReading(state_.laser); });
        add('g', "g", "GPON link up or down", [this] { controls_.turnLink(state_.gpon); });
        add('b', "b", "press the reset button", [this] { controls_.press(); });
        add('h', "h r", "hold it down, let go of it",
            [this] { controls_.request({"hold"}, "holding the reset button; r lets go of it"); });
        add('r', nullptr, nullptr,
            [this] { controls_.request({"release"}, "let go of the reset button"); });
        add('t', "t", "traffic on or off", [this] { controls_.turnTraffic(); });
        add('w', "w W", "add, remove a WAN address", [this] { controls_.addAddress(wan); });
        add('W', nullptr, nullptr, [this] { controls_.removeAddress(wan); });
        add('a', "a A", "add, remove a LAN address", [this] { controls_.addAddress(lan); });
        add('A', nullptr, nullptr, [this] { controls_.removeAddress(lan); });
        add('d', "d D", "add, remove a default route", [this] {
            controls_.commands(
                {{"ip", "-6", "route", "add", "default", "via", "fe80::1", "dev", wan.interface}},
                "added a default route via fe80::1 over nas0_0");
        });
        add('D', nullptr, nullptr, [this] {
            controls_.commands({{"ip", "-6", "route", "del", "default", "dev", wan.interface}},
                               "removed the default route over nas0_0");
        });
        add('x', "x", "delete or make the WAN link", [this] { controls_.turnWanLink(); });
        add('s', "s", "send the daemon a signal", [this] { askForSignal(); });
        add('f', "f", "see and set faults", [this] { view_.faults = true; });
        add('R', "R", "restart the daemon", [this] { controls_.restartDaemon(); });
        add('v', "v", "save the recording (VCD)", [this] {
            askForFile("recording", ".vcd", [this](const std::string &path) {
                controls_.commands({{"record", "--", path}}, "saved the recording in " + path);
            });
        });
        add('p', "p", "save its picture (SVG, PNG)", [this] {
            askForFile("picture", ".svg", [this](const std::string &path) {
                controls_.commands({{"plot", "--output=" + path}},
                                   "saved a picture of the recording in " + path);
            });
        });
        add('l', "l", "log large or small", [this] {
            view_.largeLog = !view_.largeLog;
            view_.scroll = 0;
        });
        add(KEY_PPAGE, "PgUp PgDn", "scroll the log, also Up Down", [this] { scrollBy(page()); });
        add(KEY_NPAGE, nullptr, nullptr, [this] { scrollBy(-page()); });
        add(KEY_UP, nullptr, nullptr, [this] { scrollBy(1); });
        add(KEY_DOWN, nullptr, nullptr, [this] { scrollBy(-1); });
        add(KEY_HOME, "Home End", "its start, its end", [this] { scrollBy(1 << 24); });
        add(KEY_END, nullptr, nullptr, [this] { view_.scroll = 0; });
        add('?', "?", "this list", [this] { view_.help = &help_; });
        add(KEY_F(1), nullptr, nullptr, [this] { view_.help = &help_; });
        add('L' - '@', "Ctrl-L", "draw anew", [] { clearok(curscr, TRUE); });
        add('q', "q Ctrl-C",
            view_.isOwn ? "end the board and the panel" : "leave; the board runs on",
            [this] { quit_ = true; });
    }

    void take(int key)
    {
        if (prompt_) {
            takeInPrompt(key);
        } else if (view_.help) {
            view_.help = nullptr;
        } else if (view_.faults) {
            const auto number = static_cast<size_t>(key - '1');
            if (key >= '1' && number < faults.size())
                controls_.turnFault(faults[number]);
            else
                view_.faults = false;
        } else if (const auto action = actions_.find(key); action != actions_.end()) {
            action->second();
        }
    }

    void takeInPrompt(int key)
    {
        if (key == ESCAPE || key == 'G' - '@') {
            prompt_.reset();
        } else if (!prompt_->done) {
            for (const Signal &signal : signals) {
                if (key == signal.key)
                    controls_.request({"signal", signal.name},
                                      std::string("sent SIG") + signal.name + " to the daemon");
            }
            prompt_.reset();
        } else if (key == '\r' || key == '\n' || key == KEY_ENTER) {
            const Prompt prompt = std::move(*prompt_);
            prompt_.reset();
            if (!prompt.text.empty())
                prompt.done(prompt.text);
        } else if (key == KEY_BACKSPACE || key == 127 || key == '\b') {
            while (!prompt_->text.empty() && isFurther(prompt_->text.back()))
                prompt_->text.pop_back();
            if (!prompt_->text.empty())
                prompt_->text.pop_back();
        } else if (key == 'U' - '@') {
            prompt_->text.clear();
        } else if ((key >= ' ' && key <= '~') || (key > 127 && key < 256)) {
            prompt_->text += static_cast<char>(key);
        }
    }

    void askForSignal()
    {
        std::string label = "Send SIG...";
        for (const Signal &signal : signals)
            label += std::string("  ") + signal.key + " " + signal.name;
        prompt_ = Prompt{label + "  (Esc: none)", "", nullptr};
    }

    void askForFile(const std::string &what, const char *ending,
                    std::function<void(const std::string &)> save)
    {
        prompt_ = Prompt{"Save " + what + " (Enter, Esc, Ctrl-U): ", fileName(view_.board, ending),
                         std::move(save)};
    }

    void turnPower(double by) { controls_.turnPower(state_.laser, by); }
    void turnBand(int direction) { controls_.turnPowerToBand(state_.laser, direction); }

    int page() const { return std::max(1, logHeight(screen_, view_.largeLog) - 1); }

    void scrollBy(int rows)
    {
        int all = 0;
        for (const LogLine &line : state_.log)
            all += logRows(line, screen_.columns());
        const int most = std::max(0, all - logHeight(screen_, view_.largeLog));
        view_.scroll = std::clamp(view_.scroll + rows, 0, most);
    }

    void update()
    {
        const size_t loggedBefore = state_.logged;
        while (const auto event = record_.take())
            state_.take(*event);
        // Who reads what was goes on reading it.
        const size_t fresh = std::min(state_.logged - loggedBefore, state_.log.size());
        if (view_.scroll > 0 && fresh > 0) {
            int rows = 0;
            for (auto line = state_.log.end() - static_cast<ptrdiff_t>(fresh);
                 line != state_.log.end(); ++line)
                rows += logRows(*line, screen_.columns());
            scrollBy(rows);
        }
    }

    void show()
    {
        view_.now = Clock::now();
        view_.look = controls_.look();
        view_.traffic = controls_.traffic();
        view_.message = controls_.message();
        view_.prompt.reset();
        if (prompt_)
            view_.prompt = prompt_->label + prompt_->text + (prompt_->done ? "_" : "");
        draw(screen_, state_, view_);
    }

    View view_;
    const Link::LoopPointer loop_;
    RecordReader record_;
    Controls &controls_;
    Screen &screen_;
    State state_;
    std::map<int, std::function<void()>> actions_;
    std::vector<Help> help_;
    std::optional<Prompt> prompt_;
    bool quit_ = false;
};

} // namespace

void run(const std::string &name, const std::optional<std::vector<std::string>> &daemonArguments)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (signal(number, [](int) { interrupted = 1; }) == SIG_IGN)
            signal(number, SIG_IGN); // as under nohup(1)
    }
    signal(SIGPIPE, SIG_IGN);
    const auto loop = std::make_shared<const Loop>();
    const Access board = openBoard(name, loop);
    Controls controls(name, board);
    Screen screen; // given back before anything that may take a moment
    if (daemonArguments)
        controls.request(concat({"start", "1"}, *daemonArguments),
                         "the daemon runs; ? lists the keys");
    Panel(name, daemonArguments.has_value(), loop, controls, screen).run();
}

} // namespace kelo::panel
