// `kelo-board run`: scenarios, each on a fresh board.

#include "cli.h"

#include "host.h"
#include "svg.h"
#include "web/page.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <set>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace kelo {

namespace {

constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

struct RunOptions {
    std::vector<std::string> files;
    unsigned jobs = 2 * static_cast<unsigned>(get_nprocs());
    std::string junit;
    std::string limit = "2m";
    std::string form;
    std::string filter;
    std::string reports;   ///< folder for the page of every scenario
    std::string artifacts; ///< folder for all that is kept of those that failed
    unsigned repeat = 1;
    bool show = false;
};

struct Scenario {
    std::string file;
    std::string name; ///< of its results; no other has it
};

struct Outcome {
    std::string name;
    double seconds = 0;
    std::string failure; ///< empty for a scenario that passed
    std::string output;
    std::vector<Event> notes; ///< the output's lines, when they came
};

/// Adds what can be read without waiting; false at the end.
bool readMore(int descriptor, std::string &text)
{
    char buffer[4096];
    ssize_t length;
    while ((length = read(descriptor, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(length));
    return length < 0;
}

/// Takes what the script has written so far; false when there will be no more.
bool takeOutput(int descriptor, bool show, Outcome &outcome)
{
    std::string text;
    const bool more = readMore(descriptor, text);
    outcome.output += text;
    // An indented line explains the one before it from what the record has anyway.
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("  "))
            outcome.notes.push_back({Clock::now(), EventKind::Note, line});
    }
    if (show) {
        fputs(text.c_str(), stdout);
        fflush(stdout);
    }
    return more;
}

/// Runs a script, given as $0, in bash, which can trace the commands without anything in the script
/// taking notice, into the file $1; elsewhere in any shell, untraced.
constexpr char launcher[] =
    "[ -n \"$(command -v bash)\" ] || exec sh -eu \"$0\"\n"
    "exec bash --posix -c 'exec {BASH_XTRACEFD}> \"$1\"; shift\n"
    "PS4=\"\1\\${BASH_SOURCE:+line \\$LINENO: }\"; set -eux; . \"$0\"' \"$0\" \"$1\"";

/// Keeps the last entry of a trace: the number of a line and its command; before there is one, what
/// this program had bash do.
void takeTrace(int descriptor, std::string &trace)
{
    readMore(descriptor, trace);
    trace.erase(0, trace.rfind('\1') + 1);
}

/// Whether a pipe's other end was closed.
bool hasEnded(int pipe)
{
    pollfd source{pipe, POLLIN, 0};
    return poll(&source, 1, 0) > 0;
}

/// Runs a scenario's script to its end, its output shown or kept. It is interrupted when `life`
/// ends.
void runScript(const std::string &file, const std::string &board, Host &host, int life,
               const RunOptions &options, Outcome &outcome)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const char *const path = getenv("PATH");
    Pipe output = makePipe();
    const Pipe trace = makePipe();
    fcntl(output.read.get(), F_SETFL, O_NONBLOCK);
    fcntl(trace.read.get(), F_SETFL, O_NONBLOCK);
    const std::vector<std::string> command = {
        "setpriv",
        "--pdeathsig",
        "KILL",
        "env",
        "KELO_BOARD_NAME=" + board,
        "PATH=" + std::filesystem::path(self).parent_path().string() + ":" + (path ? path : ""),
        "sh",
        "-c",
        launcher,
        std::filesystem::absolute(file),
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(trace.write.get())};
    const pid_t child = spawnApart(command, {-1, output.write.get(), output.write.get()});
    output.write.reset();
    const Descriptor end = endOf(child);
    const Clock::time_point limit = Clock::now() + toDuration(options.limit);

    EventPrinter printer(host.startTime());
    size_t seen = 0;
    std::optional<Event> unasked;
    std::string leds;
    std::string last;
    std::optional<Watch> printing(std::in_place, host.base(), output.read.get(), [] {});
    const auto take = [&] {
        // What happened comes before what the script has to say of it.
        for (const Event &event : host.board().next(seen)) {
            if (options.show)
                printer.printNews(event);
            if (isUnasked(event))
                unasked = event;
            if (event.kind == EventKind::Leds)
                leds = event.text;
        }
        takeTrace(trace.read.get(), last);
        if (!takeOutput(output.read.get(), options.show, outcome))
            printing.reset();
    };
    bool running = true;
    const Watch ending(host.base(), end.get(), [&] { running = false; });
    const Watch living(host.base(), life, [] {});
    const Watch tracing(host.base(), trace.read.get(), [] {});
    bool late = false;
    bool ended = false;
    bool interrupted = false;
    while (running) {
        host.turn(limit - Clock::now());
        take();
        late = Clock::now() > limit;
        ended = host.wantsDown() || host.board().ended();
        interrupted = hasEnded(life);
        if (running && (late || ended || interrupted))
            kill(-child, SIGKILL);
    }
    kill(-child, SIGKILL); // whatever the script left behind
    const int status = waitFor(child);
    if (!late && !ended && !interrupted)
        host.board().mark(); // there may be more to come
    take();
    std::erase(last, '\n');
    const std::string place = last.starts_with("line ") ? "; last command, " + last : "";
    if (interrupted)
        outcome.failure = "interrupted" + place;
    else if (late)
        outcome.failure = "still running after " + options.limit + place + "; LEDs " + leds;
    else if (ended)
        outcome.failure =
            (host.wantsDown() ? "its board was asked to end" : "its board ended by itself") + place;
    else if (status != 0)
        outcome.failure = "exit status " + std::to_string(status) + place;
    else if (unasked && unasked->time >= host.accepted()) {
        const std::string text = unaskedText(*unasked, host.board().events());
        outcome.failure = text.substr(0, text.find('\n'));
        outcome.output += text.substr(outcome.failure.size()) + "\n";
    }
}

/// What happened on the board and what the scenario said of it, with what failed marked.
Record recordOf(const Host &host, const Outcome &outcome)
{
    const std::string complaint = "kelo-board: ";
    std::vector<Event> notes = outcome.notes;
    if (!outcome.failure.empty()) {
        for (Event &note : notes) {
            if (note.text.starts_with(complaint + "expected "))
                note.text = failedNote + note.text.substr(complaint.size());
        }
        if (!notes.empty() && notes.back().text.starts_with(failedNote))
            notes.back().text += "; " + outcome.failure;
        else
            notes.push_back({Clock::now(), EventKind::Note, failedNote + outcome.failure});
    }
    Record record{outcome.name, host.board().events(), host.startTime(), host.startTime(),
                  Clock::now()};
    record.events.insert(record.events.end(), notes.begin(), notes.end());
    std::stable_sort(record.events.begin(), record.events.end(),
                     [](const Event &a, const Event &b) { return a.time < b.time; });
    return record;
}

/// Writes the files that were asked for.
void keepRecord(const RunOptions &options, const Host &host, const Outcome &outcome)
{
    const bool failed = !options.artifacts.empty() && !outcome.failure.empty();
    if (options.reports.empty() && !failed)
        return;
    const Record record = recordOf(host, outcome);
    if (!options.reports.empty())
        writeFile(options.reports + "/" + outcome.name + ".html", makePage(record));
    if (!failed)
        return;
    const std::string path = options.artifacts + "/" + outcome.name;
    writeFile(path + ".html", makePage(record));
    writeFile(path + ".vcd", toVcd(makeRecording(record.events, record.end)));
    FILE *const log = fopen((path + ".log").c_str(), "w");
    EventPrinter printer(record.start, false, log ? log : stderr);
    for (const Event &event : record.events)
        printer.printNews(event);
    if (!log || fclose(log) != 0)
        throw Failure("cannot write " + path + ".log");
}

Outcome runScenario(const Scenario &scenario, const std::string &board, int life,
                    const RunOptions &options)
{
    Outcome outcome;
    outcome.name = scenario.name;
    const Clock::time_point start = Clock::now();
    try {
        Host host(board, {Host::KEPT_MEGABYTES, "", [life] { return hasEnded(life); }});
        host.startDaemon({});
        runScript(scenario.file, board, host, life, options, outcome);
        keepRecord(options, host, outcome);
    } catch (const std::exception &error) {
        outcome.failure += (outcome.failure.empty() ? "" : "; ") + std::string(error.what());
    }
    outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return outcome;
}

/// Runs a scenario in a process of its own, which writes a line of its outcome into a pipe.
pid_t startScenario(const Scenario &scenario, size_t number, const RunOptions &options, Pipe &life,
                    int report)
{
    const pid_t process = fork();
    if (process < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (process > 0)
        return process;
    setpgid(0, 0); // a Ctrl-C is the first process's affair
    for (const int signalNumber : endingSignals)
        signal(signalNumber, SIG_DFL);
    life.write.reset();
    const std::string board = "run-" + std::to_string(getppid()) + "-" + std::to_string(number);
    const Outcome outcome = runScenario(scenario, board, life.read.get(), options);
    dprintf(report, "%s\n",
            toLine({std::to_string(outcome.seconds), outcome.failure, outcome.output}).c_str());
    _exit(0);
}

void print(const Outcome &outcome, bool shown)
{
    printf("%s  %s (%.1f s)%s%s\n", outcome.failure.empty() ? "PASS" : "FAIL", outcome.name.c_str(),
           outcome.seconds, outcome.failure.empty() ? "" : ": ", outcome.failure.c_str());
    if (!outcome.failure.empty() && !shown) {
        std::istringstream lines(outcome.output);
        for (std::string line; std::getline(lines, line);)
            printf("      %s\n", line.c_str());
    }
    fflush(stdout);
}

/// Runs scenarios side by side until all have ended, or a signal says so.
std::vector<Outcome> runSideBySide(const std::vector<Scenario> &scenarios,
                                   const RunOptions &options)
{
    const Loop loop;
    Pipe life = makePipe(); // who runs a scenario ends with this
    std::vector<Watch> signals;
    for (const int number : endingSignals)
        signals.push_back(Watch::onSignal(loop.base(), number, [&] { life.write.reset(); }));

    std::vector<Outcome> outcomes;
    outcomes.reserve(scenarios.size());
    for (const Scenario &scenario : scenarios)
        outcomes.push_back({scenario.name, 0, "interrupted before it began", {}, {}});
    std::map<size_t, std::pair<pid_t, Stream>> running;
    std::vector<size_t> ended;
    for (size_t next = 0;;) {
        while (life.write && next < scenarios.size() &&
               running.size() < (options.show ? 1 : Form::atOnce(options.form, options.jobs))) {
            Pipe report = makePipe();
            const pid_t process =
                startScenario(scenarios[next], next, options, life, report.write.get());
            Outcome &outcome = outcomes[next];
            outcome.failure = "it ended without a word";
            const auto take = [&outcome](const std::string &line) {
                const Words words = toWords(line);
                outcome.seconds = atof(words.at(0).c_str());
                outcome.failure = words.at(1);
                outcome.output = words.at(2);
            };
            running.try_emplace(next, std::piecewise_construct, std::tuple(process),
                                std::forward_as_tuple(loop.base(), std::move(report.read),
                                                      Descriptor(), take,
                                                      [&ended, next] { ended.push_back(next); }));
            next++;
        }
        if (running.empty())
            return outcomes;
        loop.turn(Clock::now() + std::chrono::hours(1));
        for (const size_t i : std::exchange(ended, {})) {
            waitFor(running.at(i).first);
            running.erase(i);
            print(outcomes[i], options.show);
        }
    }
}

std::string toXml(std::string text)
{
    // What is not ASCII may be in any encoding.
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c > '~'; }, '?');
    return Svg::escape(text);
}

void writeJunit(const std::string &path, const std::vector<Outcome> &outcomes)
{
    std::ofstream file(path);
    size_t failures = 0;
    double seconds = 0;
    for (const Outcome &outcome : outcomes) {
        failures += !outcome.failure.empty();
        seconds += outcome.seconds;
    }
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"kelo-board\" tests=\""
         << outcomes.size() << "\" failures=\"" << failures << "\" time=\"" << seconds << "\">\n";
    for (const Outcome &outcome : outcomes) {
        file << "  <testcase classname=\"scenario\" name=\"" << toXml(outcome.name) << "\" time=\""
             << outcome.seconds << "\">\n";
        if (!outcome.failure.empty())
            file << "    <failure message=\"" << toXml(outcome.failure) << "\"/>\n";
        file << "    <system-out>" << toXml(outcome.output) << "</system-out>\n  </testcase>\n";
    }
    file << "</testsuite>\n";
    file.close();
    if (!file)
        throw Failure("cannot write " + path);
}

/// The scenarios to run, again and again if they are to be repeated.
std::vector<Scenario> chosen(const RunOptions &options)
{
    std::vector<Scenario> scenarios;
    std::set<std::string> names;
    for (unsigned round = 0; round < options.repeat; round++) {
        for (const std::string &file : options.files) {
            const std::string name = std::filesystem::path(file).filename();
            if (name.find(options.filter) == std::string::npos)
                continue;
            std::string unique = name;
            for (int number = 2; !names.insert(unique).second; number++)
                unique = name + "-" + std::to_string(number);
            scenarios.push_back({file, unique});
        }
    }
    if (scenarios.empty())
        throw UsageError("no scenario's name has \"" + options.filter + "\"");
    return scenarios;
}

int runAll(const RunOptions &options)
{
    toDuration(options.limit);
    if (!options.form.empty())
        setenv("KELO_BOARD", options.form.c_str(), 1);
    const std::vector<Scenario> scenarios = chosen(options);
    for (const std::string &folder : {options.reports, options.artifacts}) {
        std::error_code error;
        if (!folder.empty())
            std::filesystem::create_directories(folder, error);
        if (error)
            throw Failure("cannot write into " + folder + ": " + error.message());
    }
    const std::vector<Outcome> outcomes = runSideBySide(scenarios, options);
    const auto failures = static_cast<size_t>(
        std::count_if(outcomes.begin(), outcomes.end(),
                      [](const Outcome &outcome) { return !outcome.failure.empty(); }));
    printf("%zu %s, %zu failed\n", outcomes.size(), outcomes.size() == 1 ? "scenario" : "scenarios",
           failures);
    if (!options.junit.empty())
        writeJunit(options.junit, outcomes);
    return failures ? 1 : 0;
}

} // namespace

void addRun(Cli &cli)
{
    const auto options = std::make_shared<RunOptions>();
    CLI::App *const command =
        cli.add(testGroup, "run", "Run scenarios, each on a fresh board, side by side",
                [&cli, options] { cli.status = runAll(*options); });
    command->add_option("FILE", options->files, "Shell scripts of kelo-board commands")
        ->required()
        ->check(CLI::ExistingFile);
    command->add_option("-j,--jobs", options->jobs, "How many at once")
        ->type_name("COUNT")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    command->add_option("--junit", options->junit, "Write the results as JUnit XML into this file")
        ->type_name("FILE");
    command->add_option("--limit", options->limit, "Longest time for one scenario")
        ->type_name("TIME")
        ->capture_default_str();
    command->add_option("--filter", options->filter, "Run those whose names hold this")
        ->type_name("WORD");
    command->add_option("--repeat", options->repeat, "Run each so often")
        ->type_name("COUNT")
        ->check(CLI::Range(1, 100000));
    command
        ->add_option("--artifacts", options->artifacts,
                     "Keep page, VCD and events of those that failed here")
        ->type_name("FOLDER");
    command
        ->add_option("--report", options->reports,
                     "Keep a page of every scenario in this folder (see report)")
        ->type_name("FOLDER");
    command->add_option("--on", options->form, "Form of the boards, such as host or mips")
        ->type_name("FORM");
    addReplacements(*command);
    command->add_flag("--show", options->show, "Show what happens, one scenario after the other");
}

} // namespace kelo
