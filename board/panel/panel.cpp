#include "panel.h"

#include "controls.h"
#include "draw.h"
#include "screen.h"
#include "state.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <functional>

#include <curses.h>

namespace kelo::panel {

namespace {

constexpr double POWER_STEP = 0.5;
constexpr auto updateTime = std::chrono::milliseconds(100);
constexpr int ESCAPE = 27;

std::atomic<bool> interrupted;

/// A name for a file that is not there yet, as good as surely.
std::string fileName(const std::string &board, const char *ending)
{
    const time_t now = time(nullptr);
    char text[32];
    strftime(text, sizeof text, "-%Y%m%d-%H%M%S", localtime(&now));
    return board + text + ending;
}

struct Signal {
    char key;
    int number;
    const char *name;
};
constexpr Signal signals[] = {
    {'t', SIGTERM, "TERM"}, {'i', SIGINT, "INT"},   {'h', SIGHUP, "HUP"},  {'q', SIGQUIT, "QUIT"},
    {'k', SIGKILL, "KILL"}, {'s', SIGSTOP, "STOP"}, {'c', SIGCONT, "CONT"}};

/// Whether a byte is not the first of its UTF-8 character.
bool isFurther(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

class Panel {
public:
    Panel(const std::string &name, bool isOwn, Controls &controls, Screen &screen)
        : name_(name), isOwn_(isOwn), start_(toTime(stateOf(name)["start"])),
          record_(name, "watch " + toText(start_)), controls_(controls), screen_(screen)
    {
        addKeys();
    }

    void run()
    {
        try {
            while (!interrupted && !quit_ && !screen_.gone()) {
                const int key = screen_.key();
                if (key != ERR && key != KEY_RESIZE)
                    take(key);
                update();
                show();
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
        help_.push_back({"0 to 8", "choose a display mode:"});
        help_.push_back({"", "0 none      1 signal"});
        help_.push_back({"", "2 reboot    3 restore"});
        help_.push_back({"", "4 errora12  5 locateme"});
        help_.push_back({"", "6 ledtest   7 facttest"});
        help_.push_back({"", "8 facttesterr"});
        for (size_t mode = 0; mode < std::size(modeKeywords); mode++)
            add('0' + static_cast<int>(mode), nullptr, nullptr,
                [this, mode] { controls_.chooseMode(modeKeywords[mode]); });
        add('+', "+ -", "received power up, down", [this] { turnPower(POWER_STEP); });
        add('=', nullptr, nullptr, [this] { turnPower(POWER_STEP); });
        add('-', nullptr, nullptr, [this] { turnPower(-POWER_STEP); });
        add(']', "] [", "... to the next band", [this] { turnBand(1); });
        add('[', nullptr, nullptr, [this] { turnBand(-1); });
        add('n', "n", "no reading, or one again", [this] { controls_.turnReading(state_.laser); });
        add('g', "g", "GPON link up or down", [this] { controls_.turnLink(state_.gpon); });
        add('b', "b", "press the reset button", [this] { controls_.press(); });
        add('h', "h r", "hold it down, let go of it", [this] { controls_.hold(); });
        add('r', nullptr, nullptr, [this] { controls_.release(); });
        add('t', "t", "traffic on or off", [this] { controls_.turnTraffic(); });
        add('w', "w W", "add, remove a WAN address", [this] { controls_.addWanAddress(); });
        add('W', nullptr, nullptr, [this] { controls_.removeWanAddress(); });
        add('a', "a A", "add, remove a LAN address", [this] { controls_.addLanAddress(); });
        add('A', nullptr, nullptr, [this] { controls_.removeLanAddress(); });
        add('d', "d D", "add, remove a default route", [this] { controls_.addDefaultRoute(); });
        add('D', nullptr, nullptr, [this] { controls_.removeDefaultRoute(); });
        add('x', "x", "delete or make the WAN link", [this] { controls_.turnWanLink(); });
        add('s', "s", "send the daemon a signal", [this] { askForSignal(); });
        add('f', "f", "see and set faults", [this] { breaking_ = true; });
        add('R', "R", "restart the daemon", [this] { controls_.restartDaemon(); });
        add('v', "v", "save the recording (VCD)", [this] { askForRecording(); });
        add('p', "p", "save its picture (SVG, PNG)", [this] { askForPicture(); });
        add('l', "l", "log large or small", [this] {
            largeLog_ = !largeLog_;
            scroll_ = 0;
        });
        add(KEY_PPAGE, "PgUp PgDn", "scroll the log, also Up Down", [this] { scrollBy(page()); });
        add(KEY_NPAGE, nullptr, nullptr, [this] { scrollBy(-page()); });
        add(KEY_UP, nullptr, nullptr, [this] { scrollBy(1); });
        add(KEY_DOWN, nullptr, nullptr, [this] { scrollBy(-1); });
        add(KEY_HOME, "Home End", "its start, its end", [this] { scrollBy(1 << 24); });
        add(KEY_END, nullptr, nullptr, [this] { scroll_ = 0; });
        add('?', "?", "this list", [this] { helping_ = true; });
        add(KEY_F(1), nullptr, nullptr, [this] { helping_ = true; });
        add('L' - '@', "Ctrl-L", "draw anew", [] { clearok(curscr, TRUE); });
        add('q', "q Ctrl-C", isOwn_ ? "end the board and the panel" : "leave; the board runs on",
            [this] { quit_ = true; });
    }

    void take(int key)
    {
        if (prompt_) {
            takeInPrompt(key);
        } else if (helping_) {
            helping_ = false;
        } else if (breaking_) {
            const auto number = static_cast<size_t>(key - '1');
            if (key >= '1' && number < faults().size())
                controls_.turnFault(faults()[number]);
            else
                breaking_ = false;
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
                    controls_.sendSignal(signal.number, signal.name);
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

    void askForRecording()
    {
        prompt_ = Prompt{"Save recording (Enter, Esc, Ctrl-U): ", fileName(name_, ".vcd"),
                         [this](const std::string &path) { controls_.saveRecording(path); }};
    }

    void askForPicture()
    {
        prompt_ = Prompt{"Save picture (Enter, Esc, Ctrl-U): ", fileName(name_, ".svg"),
                         [this](const std::string &path) { controls_.savePicture(path); }};
    }

    void turnPower(double by) { controls_.turnPower(state_.laser, by); }
    void turnBand(int direction) { controls_.turnPowerToBand(state_.laser, direction); }

    int page() const { return std::max(1, logHeight(screen_, largeLog_) - 1); }

    void scrollBy(int rows)
    {
        int all = 0;
        for (const LogLine &line : state_.log)
            all += logRows(line, screen_.columns());
        const int most = std::max(0, all - logHeight(screen_, largeLog_));
        scroll_ = std::clamp(scroll_ + rows, 0, most);
    }

    void update()
    {
        const size_t loggedBefore = state_.logged;
        // However much there is, it is to be seen soon.
        const auto enough = Clock::now() + updateTime;
        while (const auto line =
                   Clock::now() < enough ? record_.line(Clock::now()) : std::nullopt) {
            if (const std::optional<Event> event = fromLine(*line))
                state_.take(*event);
        }
        // Who reads what was goes on reading it.
        const size_t fresh = std::min(state_.logged - loggedBefore, state_.log.size());
        if (scroll_ > 0 && fresh > 0) {
            int rows = 0;
            for (auto line = state_.log.end() - static_cast<ptrdiff_t>(fresh);
                 line != state_.log.end(); ++line)
                rows += logRows(*line, screen_.columns());
            scrollBy(rows);
        }
    }

    void show()
    {
        View view;
        view.board = name_;
        view.isOwn = isOwn_;
        view.start = start_;
        view.now = Clock::now();
        view.look = controls_.look();
        view.traffic = controls_.traffic();
        view.largeLog = largeLog_;
        view.scroll = scroll_;
        view.message = controls_.message();
        if (prompt_)
            view.prompt = prompt_->label + prompt_->text + (prompt_->done ? "_" : "");
        view.help = helping_ ? &help_ : nullptr;
        view.faults = breaking_;
        draw(screen_, state_, view);
    }

    std::string name_;
    bool isOwn_;
    Clock::time_point start_;
    Connection record_;
    Controls &controls_;
    Screen &screen_;
    State state_;
    std::map<int, std::function<void()>> actions_;
    std::vector<Help> help_;
    std::optional<Prompt> prompt_;
    int scroll_ = 0;
    bool largeLog_ = false;
    bool helping_ = false;  ///< the help screen is there
    bool breaking_ = false; ///< the page of faults is
    bool quit_ = false;
};

} // namespace

void run(const std::string &name, const std::optional<std::vector<std::string>> &daemonArguments)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        if (signal(number, [](int) { interrupted = true; }) == SIG_IGN)
            signal(number, SIG_IGN); // as under nohup(1)
    }
    signal(SIGPIPE, SIG_IGN);
    // The terminal is given back before anything that may take a moment.
    Controls controls(name);
    Screen screen;
    if (daemonArguments)
        controls.startDaemon(*daemonArguments);
    Panel(name, daemonArguments.has_value(), controls, screen).run();
}

} // namespace kelo::panel
