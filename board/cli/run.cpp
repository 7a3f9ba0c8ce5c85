// `kelo-board run`: scenarios, each on a fresh board.

#include "cli.h"

#include "host.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace kelo {

namespace {

struct RunOptions {
    std::vector<std::string> files;
    unsigned jobs = 2 * std::max(1U, std::thread::hardware_concurrency());
    std::string junit;
    std::string limit = "2m";
    std::string form;
    bool show = false;
};

struct Outcome {
    std::string name;
    double seconds = 0;
    std::string failure; ///< empty for a scenario that passed
    std::string output;
};

std::atomic<bool> interrupted;

/// Takes what the script has written so far.
void takeOutput(int descriptor, bool show, Outcome &outcome)
{
    const std::string text = readAll(descriptor);
    outcome.output += text;
    if (show) {
        fputs(text.c_str(), stdout);
        fflush(stdout);
    }
}

/// Runs a script, given as $0, in bash, which can trace the commands without anything in the script
/// taking notice, into the file $1; elsewhere in any shell, untraced.
constexpr char launcher[] = "[ -n \"$(command -v bash)\" ] || exec sh -eu \"$0\"\n"
                            "exec bash --posix -c 'exec {BASH_XTRACEFD}> \"$1\"; shift\n"
                            "PS4=\"\1\\$LINENO: \"; set -eux; . \"$0\"' \"$0\" \"$1\"";

/// Keeps of a trace what it says last: the line's number and the command.
void takeTrace(int descriptor, std::string &trace)
{
    trace += readAll(descriptor);
    trace.erase(0, trace.rfind('\1') + 1);
}

/// Runs a scenario's script to its end, its output shown or kept.
void runScript(const std::string &file, const std::string &board, Host &host,
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
    const auto takeEvents = [&](Clock::duration patience) {
        for (const Event &event : host.board().next(seen, patience)) {
            if (options.show)
                printer.print(event);
            if (isUnasked(event))
                unasked = event;
            if (event.kind == EventKind::Leds)
                leds = event.text;
        }
    };
    bool running = true;
    const Watch ending(host.base(), end.get(), [&] { running = false; });
    bool late = false;
    bool ended = false;
    while (running) {
        host.turn(std::chrono::milliseconds(20));
        // What happened comes before what the script has to say of it.
        takeEvents(Clock::duration::zero());
        takeOutput(output.read.get(), options.show, outcome);
        takeTrace(trace.read.get(), last);
        late = Clock::now() > limit;
        ended = host.wantsDown() || host.board().ended();
        if (running && (late || ended || interrupted))
            kill(-child, SIGKILL);
    }
    kill(-child, SIGKILL); // whatever the script left behind
    const int status = waitFor(child);
    takeOutput(output.read.get(), options.show, outcome);
    takeTrace(trace.read.get(), last);
    if (!host.board().daemon())
        takeEvents(std::chrono::milliseconds(100)); // its end may be still to come
    std::erase(last, '\n');
    const std::string place = last.empty() ? "" : "; last command, line " + last;
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

Outcome runScenario(const std::string &file, const std::string &board, const RunOptions &options)
{
    Outcome outcome;
    outcome.name = std::filesystem::path(file).filename();
    const Clock::time_point start = Clock::now();
    try {
        Host host(board);
        host.startDaemon({});
        runScript(file, board, host, options, outcome);
    } catch (const std::exception &error) {
        outcome.failure = error.what();
    }
    outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return outcome;
}

void report(const Outcome &outcome, bool shown)
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

std::string toXml(const std::string &text)
{
    std::string result;
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (character == '&')
            result += "&amp;";
        else if (character == '<')
            result += "&lt;";
        else if (character == '>')
            result += "&gt;";
        else if (character == '"')
            result += "&quot;";
        else if ((code < 0x20 && character != '\n' && character != '\t') || code > 0x7e)
            result += '?'; // no XML has these, whatever the encoding
        else
            result += character;
    }
    return result;
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

int runAll(const RunOptions &options)
{
    toDuration(options.limit);
    if (!options.form.empty())
        setenv("KELO_BOARD", options.form.c_str(), 1);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        signal(number, [](int) { interrupted = true; });

    std::vector<Outcome> outcomes(options.files.size());
    std::atomic<size_t> next{0};
    std::mutex printing;
    const auto work = [&] {
        for (size_t i; !interrupted && (i = next++) < options.files.size();) {
            const std::string board = "run-" + std::to_string(getpid()) + "-" + std::to_string(i);
            outcomes[i] = runScenario(options.files[i], board, options);
            const std::lock_guard lock(printing);
            report(outcomes[i], options.show);
        }
    };
    const size_t jobs =
        std::min<size_t>(options.show ? 1 : std::max(1U, options.jobs), options.files.size());
    std::vector<std::thread> workers;
    for (size_t i = 0; i < jobs; i++)
        workers.emplace_back(work);
    for (std::thread &worker : workers)
        worker.join();

    size_t failures = 0;
    for (Outcome &outcome : outcomes) {
        if (outcome.name.empty()) {
            outcome.name =
                std::filesystem::path(options.files[size_t(&outcome - outcomes.data())]).filename();
            outcome.failure = "interrupted before it began";
        }
        failures += !outcome.failure.empty();
    }
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
                [options] { return runAll(*options); });
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
    command->add_option("--on", options->form, "Form of the boards, such as host or mips")
        ->type_name("FORM");
    command->add_flag("--show", options->show, "Show what happens, one scenario after the other");
}

} // namespace kelo
