#include "cli.h"

#include "host.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace kelo {

namespace {

struct UpOptions {
    bool detach = false;
    size_t keep = Host::KEPT_MEGABYTES;
    std::vector<std::string> daemon;
};

std::atomic<bool> interrupted;

void catchSignals()
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        signal(number, [](int) { interrupted = true; });
}

void runQuietly(Host &host)
{
    while (!interrupted && !host.wantsDown())
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

/// Prints what happens on the board as it happens.
void runPrinting(Host &host)
{
    EventPrinter printer(host.startTime());
    size_t seen = 0;
    while (!interrupted && !host.wantsDown()) {
        for (const Event &event : host.board().next(seen, std::chrono::milliseconds(50)))
            printer.print(event);
    }
}

int upForeground(const std::string &name, const UpOptions &options)
{
    catchSignals();
    Host host(name, options.keep);
    std::exception_ptr failure;
    std::thread starter([&] {
        try {
            host.startDaemon(options.daemon);
        } catch (...) {
            failure = std::current_exception();
            interrupted = true;
        }
    });
    runPrinting(host);
    starter.join();
    if (failure)
        std::rethrow_exception(failure);
    return 0;
}

int upDetached(const std::string &name, const UpOptions &options)
{
    Pipe ready = makePipe();
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child > 0) {
        ready.write.reset();
        return readAll(ready.read.get()).empty() ? 1 : 0;
    }

    setsid();
    catchSignals();
    Host host(name, options.keep);
    host.startDaemon(options.daemon);
    const Descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = 0; fd <= 2; fd++)
        dup2(nothing.get(), fd);
    [[maybe_unused]] const ssize_t written = write(ready.write.get(), "r", 1);
    ready.write.reset();
    runQuietly(host);
    return 0;
}

int list(bool json)
{
    nlohmann::ordered_json boards = nlohmann::json::array();
    if (!json)
        printf("%-20s %8s %8s  %-12s %-6s %9s\n", "NAME", "PID", "DAEMON", "MODE", "LEDS", "UP");
    for (const std::string &name : runningBoards()) {
        std::map<std::string, std::string> state;
        try {
            state = stateOf(name);
        } catch (const BoardGone &) {
            continue; // it ended meanwhile
        }
        const auto daemon = atoi(state["daemon"].c_str());
        const double up =
            std::chrono::duration<double>(Clock::now() - toTime(state["start"])).count();
        if (json)
            boards.push_back({{"name", name},
                              {"pid", atoi(state["pid"].c_str())},
                              {"daemon", daemon ? nlohmann::json(daemon) : nlohmann::json()},
                              {"mode", modeName(state["mode"])},
                              {"leds", state["leds"]},
                              {"up", up}});
        else
            printf("%-20s %8s %8s  %-12s %-6s %8.0fs\n", name.c_str(), state["pid"].c_str(),
                   daemon ? state["daemon"].c_str() : "-", modeName(state["mode"]).c_str(),
                   state["leds"].c_str(), up);
    }
    if (json)
        puts(boards.dump().c_str());
    return 0;
}

} // namespace

void addUp(Cli &cli)
{
    const auto options = std::make_shared<UpOptions>();
    CLI::App *const command =
        cli.add(runningGroup, "up", "Start a board and print what happens on it", [&cli, options] {
            return options->detach ? upDetached(cli.board, *options)
                                   : upForeground(cli.board, *options);
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
}

void addDown(Cli &cli)
{
    CLI::App *const command =
        cli.add(runningGroup, "down", "End a board; returns once nothing of it is left", [&cli] {
            request(cli.board, "down");
            // Its name is free a moment after the rest is gone.
            const auto end = Clock::now() + std::chrono::seconds(5);
            const auto named = [&](const auto &names) {
                return std::find(names.begin(), names.end(), cli.board) != names.end();
            };
            while (named(runningBoards()) && Clock::now() < end)
                usleep(2000);
            return 0;
        });
    command->add_option("NAME", cli.board, "Name of the board")->capture_default_str();
    cli.words[command] = runningBoards;
}

void addList(Cli &cli)
{
    CLI::App *const command =
        cli.add(runningGroup, "list", "List the running boards", [&cli] { return list(cli.json); });
    command->alias("ps");
    cli.addJson(*command);
}

} // namespace kelo
