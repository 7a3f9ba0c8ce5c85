// What `kelo-board expect` waits for.

#include "cli.h"

#include "device.h"

#include "blink.h"
#include "waveform.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace kelo {

namespace {

constexpr auto shownBefore = std::chrono::seconds(8);
constexpr char allowExitHelp[] = "The daemon may end though nobody asked it to";
constexpr const char *functions[] = {"reboot", "restoreDefaultBg", "getLaserInfo", "getGponState",
                                     "getPortBytes"};

struct Options {
    std::string within = "5s";
    std::string length = "0s";
    bool negate = false;
    bool allowExit = false;
    std::string words[2];
    std::vector<std::string> more; ///< of blink, what is known of the beat; of order, the events
};

/// What is known of the board: its record, and the time from which events count.
struct View {
    Access board;
    std::vector<Event> events;
    Clock::time_point mark;
    Clock::time_point exitsFrom; ///< from when on an end of the daemon has to be asked for
    bool isWhole;                ///< whether everything since the mark is there

    std::string last(EventKind kind) const
    {
        const auto event =
            std::find_if(events.rbegin(), events.rend(),
                         [=](const Event &candidate) { return candidate.kind == kind; });
        return event == events.rend() ? "" : event->text;
    }
    void needMark() const
    {
        if (!isWhole)
            throw Failure("what happened after the mark is no longer all kept (put a new one: "
                          "kelo-board mark)");
    }
    std::vector<std::string> marked(EventKind kind) const
    {
        needMark();
        std::vector<std::string> texts;
        for (const Event &event : events) {
            if (event.kind == kind && event.time >= mark)
                texts.push_back(event.text);
        }
        return texts;
    }
};

/// Whether something is as wanted, and how it is.
struct Seen {
    bool holds;
    std::string saw;
};

struct Condition {
    std::string wanted;
    std::function<Seen(const View &)> look;
    Clock::duration takes{}; ///< how long it takes to tell
};

std::string joined(const std::vector<std::string> &words, const char *separator = " ")
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() || word.empty() ? "" : separator) + word;
    return text;
}

std::string orNothing(const std::string &text)
{
    return text.empty() ? "nothing" : text;
}

/// Refuses a name that does not exist.
template <size_t N>
void checkName(const char *what, const std::string &name, const char *const (&known)[N])
{
    if (std::find(std::begin(known), std::end(known), name) == std::end(known))
        throw UsageError(std::string("no ") + what + ": \"" + name + "\" (" +
                         joined({std::begin(known), std::end(known)}, ", ") + ")");
}

void checkPattern(const std::string &pattern)
{
    if (pattern.size() != 6 || pattern.find_first_not_of("01") != std::string::npos)
        throw UsageError("no LED pattern: \"" + pattern + "\" (six digits 0 and 1)");
}

/// Whether something is as wanted right now.
Condition is(const std::string &what, const std::string &wanted,
             const std::function<std::string(const View &)> &value)
{
    return {what + " " + wanted, [=](const View &view) {
                const std::string found = value(view);
                return Seen{found == wanted, what + " " + orNothing(found)};
            }};
}

Condition ledsShow(Options &options)
{
    checkPattern(options.words[0]);
    return is("leds", options.words[0],
              [](const View &view) { return view.last(EventKind::Leds); });
}

Condition modeIs(Options &options)
{
    return is("mode", modeName(modeNumber(options.words[0])),
              [](const View &view) { return modeName(view.last(EventKind::Mode)); });
}

Condition logHas(Options &options)
{
    const std::string text = options.words[0];
    return {"log \"" + text + "\"", [=](const View &view) {
                const std::vector<std::string> records = view.marked(EventKind::Log);
                return Seen{joined(records, "").find(text) != std::string::npos,
                            std::to_string(records.size()) + " other records since the mark"};
            }};
}

Condition storeHas(Options &options)
{
    const std::string attribute = options.words[0];
    const std::string value = options.words[1];
    checkName("attribute", attribute, device::storeAttributes);
    return {
        "store " + attribute + " \"" + value + "\"", [=](const View &view) {
            const auto found = view.board.stored(device::statusNode, attribute);
            return Seen{found == value, attribute + (found ? " \"" + *found + "\"" : " never set")};
        }};
}

Condition omciRuns(Options &options)
{
    const unsigned long long count = toNumber(options.words[0]);
    return {"omci " + options.words[0], [=](const View &view) {
                const size_t runs = view.marked(EventKind::Omci).size();
                return Seen{runs == count, "omci run " + std::to_string(runs) + " times"};
            }};
}

/// A field of a port's line in a snapshot; nothing when there is none.
std::optional<std::string> snapshotField(const std::string &snapshot, const std::string &port,
                                         const std::string &field)
{
    std::istringstream lines(snapshot);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("port=" + port + ","))
            continue;
        const size_t start = line.find("," + field + "=");
        if (start == std::string::npos)
            return std::nullopt;
        const size_t value = start + field.size() + 2;
        return line.substr(value, line.find(',', value) - value);
    }
    return std::nullopt;
}

Condition snapshotShows(Options &options)
{
    const std::string name = options.words[0];
    const std::string value = options.words[1];
    const size_t dot = name.find('.');
    const std::string port = name.substr(0, dot);
    const std::string field = dot == std::string::npos ? "" : name.substr(dot + 1);
    if (field != "in" && field != "out" && field != "counterIn" && field != "counterOut")
        throw UsageError("no snapshot field: \"" + name +
                         "\" (PORT.in, .out, .counterIn or .counterOut)");
    portNumber(port);
    if (value != "none")
        toNumber(value);
    return {
        "snapshot " + name + " " + value, [=](const View &view) {
            std::vector<std::string> values;
            bool holds = false;
            for (const std::string &snapshot : view.marked(EventKind::Snapshot)) {
                const std::string found = snapshotField(snapshot, port, field).value_or("none");
                holds |= found == value;
                if (values.empty() || values.back() != found)
                    values.push_back(found);
            }
            return Seen{holds, name + " " + orNothing(joined(values, ", ")) + " since the mark"};
        }};
}

Condition calls(Options &options)
{
    const std::string function = options.words[0];
    const std::string name = function.starts_with("syscfg_") ? function : "syscfg_" + function;
    checkName("call", name.substr(7, name.find(' ') - 7), functions);
    return {"calls " + function, [=](const View &view) {
                const std::vector<std::string> made = view.marked(EventKind::Call);
                const auto isIt = [&](const std::string &call) {
                    return (call + " ").starts_with(name + " ");
                };
                return Seen{std::any_of(made.begin(), made.end(), isIt),
                            "calls " + orNothing(joined(made, ", "))};
            }};
}

/// The exit status as a shell has it, of the text of an event.
int exitStatus(const std::string &text)
{
    std::istringstream words(text);
    std::string how;
    std::string which;
    words >> how >> which;
    return how == "signal" ? 128 + signalNumber(which) : atoi(which.c_str());
}

Condition exits(Options &options)
{
    const std::string status = options.words[0];
    toNumber(status);
    options.allowExit = true;
    return {
        "exit " + status, [=](const View &view) {
            const std::vector<std::string> exits = view.marked(EventKind::Exit);
            const std::string found = exits.empty() ? "" : std::to_string(exitStatus(exits.back()));
            return Seen{found == status, found.empty() ? "the daemon running" : "exit " + found};
        }};
}

Beat toBeat(const std::string &cycle, const std::vector<std::string> &words)
{
    Beat beat;
    beat.period = std::chrono::seconds(1);
    std::istringstream patterns(cycle);
    for (std::string pattern; std::getline(patterns, pattern, '/');) {
        checkPattern(pattern);
        beat.patterns.push_back(pattern);
    }
    if (beat.patterns.size() < 2)
        throw UsageError("blinking takes two patterns at least: 010101/110000");
    for (size_t i = 0; i < beat.patterns.size(); i++) {
        if (beat.patterns[i] == beat.patterns[(i + 1) % beat.patterns.size()])
            throw UsageError("neighbouring patterns have to differ: \"" + cycle + "\"");
    }
    for (size_t i = 0; i < words.size(); i += 2) {
        const std::string value = i + 1 < words.size() ? words[i + 1] : "";
        if (words[i] == "period")
            beat.period = toDuration(value);
        else if (words[i] == "for")
            beat.length = toDuration(value);
        else if (words[i] == "tolerance")
            beat.tolerance = static_cast<double>(toNumber(value.substr(0, value.find('%')))) / 100;
        else
            throw UsageError("unknown word \"" + words[i] + "\" (period, for, tolerance)");
    }
    if (beat.period == Clock::duration::zero())
        throw UsageError("no period: \"0\"");
    if (beat.length == Clock::duration::zero())
        beat.length = 2 * beat.period;
    return beat;
}

/// The cycle that LED patterns go through, as a person would ask for it; empty when there is none.
std::string cycleOf(const std::vector<Event> &frames)
{
    for (size_t length = 2; 2 * length <= frames.size(); length++) {
        bool repeats = true;
        std::vector<std::string> cycle;
        for (size_t i = 0; repeats && i + length < frames.size(); i++)
            repeats = frames[i].text == frames[i + length].text;
        for (size_t i = 0; i < length; i++)
            cycle.push_back(frames[i].text);
        const auto period = std::chrono::round<std::chrono::milliseconds>(
            (frames.back().time - frames[frames.size() - 1 - length].time));
        if (repeats)
            return "blink " + joined(cycle, "/") + " period " + std::to_string(period.count()) +
                   "ms";
    }
    return "";
}

Condition blinks(Options &options)
{
    const Beat beat = toBeat(options.words[0], options.more);
    struct Watching {
        std::optional<BeatWatch> watch;
        size_t seen = 0;
        std::vector<Event> frames{};
    };
    const auto watching = std::make_shared<Watching>();
    return {joined({"blink", options.words[0], joined(options.more)}),
            [=](const View &view) {
                if (!watching->watch) {
                    watching->watch.emplace(beat, Clock::now(), view.last(EventKind::Leds));
                    watching->seen = view.events.size();
                }
                for (; watching->seen < view.events.size(); watching->seen++) {
                    const Event &event = view.events[watching->seen];
                    if (event.kind != EventKind::Leds)
                        continue;
                    watching->watch->see(event.time, event.text);
                    if (watching->frames.empty() || watching->frames.back().text != event.text)
                        watching->frames.push_back(event);
                }
                const std::string cycle = cycleOf(watching->frames);
                return Seen{watching->watch->kept(), cycle.empty() ? "the LEDs below" : cycle};
            },
            beat.length};
}

/// A kind of event, and words of its text.
struct Step {
    std::string kind;
    std::string text{};

    std::string shown() const { return kind + (text.empty() ? "" : " \"" + text + "\""); }
    bool matches(const Event &event) const
    {
        if (kind != kindName(event.kind))
            return false;
        const auto isPart = [](char a, char b) { return isalnum(a) && isalnum(b); };
        const std::string in = " " + shownText(event) + " ";
        for (size_t at = in.find(text, 1); at != std::string::npos; at = in.find(text, at + 1)) {
            const size_t end = at + text.size();
            if (text.empty() ||
                (end < in.size() && !isPart(in[at - 1], in[at]) && !isPart(in[end - 1], in[end])))
                return true;
        }
        return false;
    }
};

std::vector<Step> toSteps(const std::vector<std::string> &words)
{
    std::vector<std::string> kindNames;
    for (int i = 0; i <= static_cast<int>(EventKind::Exit); i++)
        kindNames.emplace_back(kindName(static_cast<EventKind>(i)));
    std::vector<Step> steps;
    for (const std::string &word : words) {
        if (std::find(kindNames.begin(), kindNames.end(), word) != kindNames.end())
            steps.push_back({word});
        else if (steps.empty() || !steps.back().text.empty())
            throw UsageError("no kind of event: \"" + word + "\" (" + joined(kindNames, ", ") +
                             ")");
        else
            steps.back().text = word;
    }
    if (steps.size() < 2)
        throw UsageError("an order takes two events at least: store omci");
    return steps;
}

/// Of the events since the mark that any of the steps is about, the first are these, one by one.
Condition happensInOrder(Options &options)
{
    const std::vector<Step> steps = toSteps(options.more);
    std::string wanted = "order";
    for (const Step &step : steps)
        wanted += " " + step.shown();
    return {wanted, [steps](const View &view) {
                view.needMark();
                std::vector<Event> events;
                News news;
                for (const Event &event : view.events) {
                    if (news.is(event) && event.time >= view.mark &&
                        std::any_of(steps.begin(), steps.end(),
                                    [&](const Step &step) { return step.matches(event); }))
                        events.push_back(event);
                }
                size_t right = 0;
                while (right < std::min(events.size(), steps.size()) &&
                       steps[right].matches(events[right]))
                    right++;
                if (right == steps.size())
                    return Seen{true, "that"};
                const auto shown = [&](size_t i) {
                    const std::string text = shownText(events[i]);
                    return Step{kindName(events[i].kind), text.substr(0, text.find('\n'))}.shown();
                };
                return Seen{false,
                            (right > 0 ? shown(right - 1) + ", then " : "") +
                                (right < events.size() ? shown(right) + " instead of " : "no ") +
                                steps[right].shown()};
            }};
}

/// Waits until the condition holds, for as long as it has to; gives whether it did. Throws Failure
/// when the daemon ends unasked.
bool await(RecordReader &record, const Condition &condition, bool negate, Clock::time_point limit,
           Clock::duration length, View &view)
{
    bool held = false;
    Clock::time_point since;
    for (;;) {
        // The store changes without telling, so look again now and then.
        const auto patience = std::chrono::milliseconds(record.isUpToDate() ? 50 : 0);
        if (const auto event = record.next(Clock::now() + patience)) {
            view.events.push_back(*event);
            if (isUnasked(*event) && event->time >= view.exitsFrom)
                throw Failure(unaskedText(*event, view.events));
        }
        if (record.isUpToDate()) {
            const Clock::time_point now = Clock::now();
            const bool heldBefore = std::exchange(held, condition.look(view).holds != negate);
            if (held && !heldBefore)
                since = now;
            if (held && now - since >= length)
                return true;
            if (!held && now >= limit)
                return false;
        }
    }
}

int expect(const Cli &cli, const Options &options, const Condition &condition)
{
    const Clock::duration within = toDuration(options.within);
    const Clock::duration length = toDuration(options.length);
    auto state = stateOf(cli.board);
    const Clock::time_point begin = Clock::now();
    const Clock::time_point start = toTime(state["start"]);
    const Clock::time_point mark = toTime(state["mark"]);
    View view{cli.running(),
              {},
              mark,
              options.allowExit ? Clock::time_point::max()
                                : std::max(mark, toTime(state["accepted"])),
              toTime(state["since"]) <= mark};

    RecordReader record(cli.board, std::min(view.mark, begin - shownBefore));
    if (await(record, condition, options.negate, begin + within + condition.takes, length, view)) {
        if (options.allowExit)
            request(cli.board, {"accept"});
        return 0;
    }

    const Clock::time_point end = Clock::now();
    fprintf(stderr, "kelo-board: expected %s%s%s within %s, saw %s\n", options.negate ? "not " : "",
            condition.wanted.c_str(),
            length > Clock::duration::zero() ? (" for " + options.length).c_str() : "",
            options.within.c_str(), condition.look(view).saw.c_str());
    const Clock::time_point from = std::max(start, std::min(begin, end - shownBefore));
    fputs(waveform(view.events, start, from, end).c_str(), stderr);
    return 1;
}

struct Kind {
    const char *name;
    const char *description;
    std::vector<std::pair<const char *, const char *>> arguments; ///< names and descriptions
    Condition (*make)(Options &);
    std::pair<const char *, const char *> more{}; ///< any number of words behind those
    const char *footer = "";
};

const std::vector<Kind> &kinds()
{
    static const std::vector<Kind> all = {
        {"leds",
         "The six LEDs show a pattern",
         {{"FLAGS", "GPIO 6, 7, 8, 2, 3, 4, 1 is lit: 000111"}},
         ledsShow},
        {"blink",
         "The LEDs go through patterns in a steady beat",
         {{"FLAGS/FLAGS...", "The patterns of one cycle: 010101/110000"}},
         blinks,
         {"BEAT", "What is known of the beat, see below"},
         "BEAT is any of:\n"
         "  period TIME        of the whole cycle (1s)\n"
         "  for TIME           how long it has to go on (two periods)\n"
         "  tolerance PERCENT  of the time each pattern shows (25%)"},
        {"mode",
         "The display is in a mode",
         {{"KEYWORD", "locateme and so on, or its number"}},
         modeIs},
        {"log",
         "The daemon's log has a text, since the mark",
         {{"TEXT", "Part of a record"}},
         logHas},
        {"store",
         "The configuration store holds a value",
         {{"ATTRIBUTE", "Such as wanAddress, lanAddressLen, wanGateway"},
          {"VALUE", "Its value; '' for an empty one"}},
         storeHas},
        {"omci",
         "The omci command ran a number of times, since the mark",
         {{"COUNT", "How often, exactly"}},
         omciRuns},
        {"snapshot",
         "A port counter snapshot shows a number, since the mark",
         {{"PORT.FIELD", "Field in, out, counterIn or counterOut: lan1.in"},
          {"VALUE", "The number; none for a port that is left out"}},
         snapshotShows},
        {"calls",
         "The daemon made a call, since the mark",
         {{"FUNCTION", "reboot or restoreDefaultBg"}},
         calls},
        {"exit",
         "The daemon ended, since the mark",
         {{"STATUS", "Its exit status; 128 and the number for a signal"}},
         exits},
        {"order",
         "Events happened in this order, since the mark",
         {},
         happensInOrder,
         {"EVENT", "A kind, and if need be words of its text: store wanAddress"},
         "Of all events that any EVENT is about, those since the mark begin with these, in\n"
         "this order; what else happens does not matter. Kinds and texts are those that\n"
         "kelo-board events prints, a text being whole words. For example:\n"
         "  kelo-board expect order log \"New IPv6 address\" store wanAddress omci"},
    };
    return all;
}

} // namespace

void addExpect(Cli &cli)
{
    const auto options = std::make_shared<Options>();
    CLI::App *const command =
        cli.app.add_subcommand("expect", "Wait until something holds, or say what there was");
    command->group(testGroup);
    command->require_subcommand(1);
    command->add_option("--within", options->within, "Until when it has to begin")
        ->type_name("TIME")
        ->capture_default_str();
    command->add_option("--for", options->length, "How long it has to hold")
        ->type_name("TIME")
        ->capture_default_str();
    command->add_flag("--not", options->negate,
                      "Wait until it does not hold; with --for, for that long");
    command->add_flag("--allow-exit", options->allowExit, allowExitHelp);
    command->footer("TIME is 3, 1.5s, 250ms or 2m. The mark is the daemon's start, or later where\n"
                    "kelo-board mark put it.");
    for (const Kind &kind : kinds()) {
        CLI::App *const condition =
            cli.addTo(*command, kind.name, kind.description, [&cli, options, make = kind.make] {
                const Condition wanted = make(*options); // it may allow an end of the daemon
                cli.status = expect(cli, *options, wanted);
            });
        for (size_t i = 0; i < kind.arguments.size(); i++)
            condition
                ->add_option(kind.arguments[i].first, options->words[i], kind.arguments[i].second)
                ->required();
        if (kind.more.first)
            condition->add_option(kind.more.first, options->more, kind.more.second);
        condition->footer(kind.footer);
        condition->group("Conditions");
        if (kind.name == std::string("mode"))
            cli.words[condition] = modeKeywords;
    }

    CLI::App *const wait =
        cli.add(testGroup, "wait", "Let time pass; fails when the board or the daemon ends",
                [&cli, options] {
                    letPass(cli.board, toDuration(options->length), options->allowExit);
                    if (options->allowExit)
                        request(cli.board, {"accept"});
                });
    wait->add_option("TIME", options->length, "How long: 3, 1.5s, 250ms, 2m")->required();
    wait->add_flag("--allow-exit", options->allowExit, allowExitHelp);

    cli.addRequest(testGroup, "mark", "Let expect look at nothing older than this", {"mark"});
}

} // namespace kelo
