#include "cli.h"

#include "host.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

struct UpOptions {
    bool detach = false;
    size_t keep = Host::KEPT_MEGABYTES;
    std::vector<std::string> daemon;
    bool watch = false;
};

constexpr auto listPatience = std::chrono::seconds(1);
constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile sig_atomic_t interrupted;

using DaemonArguments = std::optional<std::vector<std::string>>;

DaemonArguments daemonOf(const UpOptions &options)
{
    return options.watch ? std::nullopt : DaemonArguments(options.daemon);
}

/// Has the form of the environment watch a terminal's own daemon.
void watchOnly()
{
    const char *const given = getenv("KELO_BOARD");
    const std::string form = given ? given : "";
    if (!form.starts_with("ssh:"))
        throw UsageError("--watch is for a terminal: --on ssh:HOST");
    setenv("KELO_BOARD", ("watch:" + form.substr(form.find(':') + 1)).c_str(), 1);
}

/// Runs a board until its end is asked for, or a descriptor ends. `happened` is called when
/// something has, `ready` once the daemon runs.
void runBoard(const std::string &name, const DaemonArguments &daemon, size_t keptMegabytes,
              int life, const std::function<void(Host &)> &happened,
              const std::function<void()> &ready)
{
    for (const int number : endingSignals)
        signal(number, [](int) { interrupted = 1; });
    Host host(name, {keptMegabytes, "", [] { return interrupted != 0; }});
    std::vector<Watch> watches;
    for (const int number : endingSignals)
        watches.push_back(Watch::onSignal(host.base(), number, [] { interrupted = 1; }));
    if (life >= 0)
        watches.emplace_back(host.base(), life, [] { interrupted = 1; });
    if (daemon)
        host.startDaemon(*daemon);
    ready();
    while (!interrupted && !host.wantsDown()) {
        happened(host);
        if (host.board().ended())
            throw Failure("the board ended by itself");
        host.turn(std::chrono::hours(1));
    }
    happened(host);
}

void upForeground(const std::string &name, const UpOptions &options)
{
    std::optional<EventPrinter> printer;
    size_t seen = 0;
    const auto print = [&](Host &host) {
        if (!printer)
            printer.emplace(host.startTime());
        for (bool more = true; more;) {
            const std::vector<Event> events = host.board().next(seen);
            for (const Event &event : events)
                printer->printNews(event);
            more = !events.empty();
        }
        if (ferror(stdout))
            interrupted = 1; // nobody reads it any more
    };
    runBoard(name, daemonOf(options), options.keep, -1, print, [] {});
}

void list(bool json)
{
    nlohmann::ordered_json boards = nlohmann::json::array();
    if (!json)
        printf("%-20s %8s %8s  %-12s %-6s %9s\n", "NAME", "PID", "DAEMON", "MODE", "LEDS", "UP");
    // All are asked before any is heard: those that do not answer are waited for together.
    struct Asked {
        std::shared_ptr<Link> link{};
        pid_t process = 0;
        std::optional<Answer> answer{};
    };
    const auto loop = std::make_shared<const Loop>();
    std::map<std::string, Asked> all;
    size_t answers = 0;
    for (const std::string &name : runningBoards()) {
        Asked &asked = all[name];
        try {
            asked.link = connectTo(name, loop, &asked.process);
            asked.link->send(
                {"state"},
                [&](const Answer &answer) {
                    asked.answer = answer;
                    answers++;
                },
                {}, listPatience);
        } catch (const BoardGone &) {
            all.erase(name); // it ended meanwhile
        } catch (const std::runtime_error &) {
            asked.answer = Answer{Answer::Kind::Lost};
            answers++;
        }
    }
    while (answers < all.size())
        loop->turn(Clock::now() + listPatience);
    for (const auto &[name, asked] : all) {
        if (asked.link && asked.link->ended())
            continue;
        std::map<std::string, std::string> state = toState(asked.answer->words);
        std::string remark = state.contains("starting") ? "starting" : "";
        if (!asked.answer->ok()) {
            remark = "no answer";
            state["pid"] = std::to_string(asked.process);
        }
        const auto daemon = atoi(state["daemon"].c_str());
        const double up =
            state.contains("start")
                ? std::chrono::duration<double>(Clock::now() - toTime(state["start"])).count()
                : 0;
        const std::string mode = remark.empty() ? modeName(state["mode"]) : remark;
        if (json)
            boards.push_back({{"name", name},
                              {"pid", atoi(state["pid"].c_str())},
                              {"daemon", daemon ? nlohmann::json(daemon) : nlohmann::json()},
                              {"mode", mode},
                              {"leds", state["leds"]},
                              {"up", up}});
        else
            printf("%-20s %8s %8s  %-12s %-6s %8.0fs\n", name.c_str(), state["pid"].c_str(),
                   daemon ? state["daemon"].c_str() : "-", mode.c_str(), state["leds"].c_str(), up);
    }
    if (json)
        puts(boards.dump().c_str());
}

} // namespace

Descriptor startApart(const std::string &name, const DaemonArguments &daemonArguments,
                      size_t keptMegabytes, bool tied)
{
    const SocketName usable(name);
    Pipe ready = makePipe();
    Pipe life = tied ? makePipe() : Pipe();
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child > 0) {
        ready.write.reset();
        const std::string answer = readAll(ready.read.get());
        if (answer != "ok")
            throw Failure(answer.empty() ? "the board ended as it started" : answer);
        return std::move(life.write);
    }

    setsid();
    ready.read.reset();
    life.write.reset();
    const auto tell = [&](const std::string &text) {
        if (write(ready.write.get(), text.data(), text.size()) < 0)
            _exit(1);
        ready.write.reset();
    };
    try {
        runBoard(
            name, daemonArguments, keptMegabytes, life.read.get(), [](Host &) {},
            [&] {
                const Descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
                for (int fd = 0; fd <= 2; fd++)
                    dup2(nothing.get(), fd);
                std::filesystem::current_path("/"); // keep no other file system busy
                tell("ok");
            });
        _exit(0);
    } catch (const std::exception &error) {
        if (ready.write)
            tell(error.what());
        _exit(1);
    }
}

void addForm(CLI::App &command)
{
    command
        .add_option_function<std::string>(
            "--on", [](const std::string &form) { setenv("KELO_BOARD", form.c_str(), 1); },
            "Form of the board: host, mips, ssh:root@192.168.1.1, ...")
        ->type_name("FORM");
}

void addReplacements(CLI::App &command)
{
    // For this program as for its user: board-init and the forms look there.
    const auto into = [](const char *variable) {
        return [variable](const std::string &path) {
            setenv(variable, std::filesystem::absolute(path).c_str(), 1);
        };
    };
    command
        .add_option_function<std::string>("--daemon", into("KELO_BOARD_DAEMON"),
                                          "Daemon to run instead of the board's own")
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
    command
        .add_option_function<std::string>("--sdk", into("KELO_BOARD_SDK"),
                                          "Folder of platform libraries that replace the board's")
        ->type_name("FOLDER")
        ->check(CLI::ExistingDirectory);
}

void addUp(Cli &cli)
{
    const auto options = std::make_shared<UpOptions>();
    CLI::App *const command =
        cli.add(runningGroup, "up", "Start a board and print what happens on it", [&cli, options] {
            if (options->watch)
                watchOnly();
            if (options->detach)
                startApart(cli.board, daemonOf(*options), options->keep, false);
            else
                upForeground(cli.board, *options);
        });
    command->add_option("NAME", cli.board, "Name of the new board")->capture_default_str();
    command->add_flag("-d,--detach", options->detach,
                      "Run in the background; returns once the daemon runs");
    command->add_option("--keep", options->keep, "How much to keep of what happens, the latest")
        ->type_name("MB")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    command
        ->add_option("--daemon-option", options->daemon,
                     "Option for the daemon: --daemon-option=-d")
        ->type_name("OPTION");
    addForm(*command);
    command->add_flag("--watch", options->watch,
                      "On a terminal, change nothing and watch its own daemon");
    addReplacements(*command);
}

void addDown(Cli &cli)
{
    CLI::App *const command =
        cli.add(runningGroup, "down", "End a board; returns once nothing of it is left",
                [&cli] { endBoard(cli.board); });
    command->add_option("NAME", cli.board, "Name of the board")->capture_default_str();
    cli.words[command] = runningBoards;
}

void addList(Cli &cli)
{
    CLI::App *const command =
        cli.add(runningGroup, "list", "List the running boards", [&cli] { list(cli.json); });
    command->alias("ps");
    cli.addJson(*command);
}

} // namespace kelo
