#include "cli.h"

#include <atomic>
#include <csignal>
#include <cstdio>

namespace kelo {

namespace {

std::atomic<bool> interrupted;

/// Runs a board in the foreground and prints what happens on it until a signal or the daemon's end.
int up(const std::string &name, const std::vector<std::string> &daemonArguments)
{
    signal(SIGINT, [](int) { interrupted = true; });
    signal(SIGTERM, [](int) { interrupted = true; });
    signal(SIGHUP, [](int) { interrupted = true; });

    const auto start = Clock::now();
    Board board;
    const Registration registration(name, board.place());
    board.startDaemon(daemonArguments);

    size_t seen = 0;
    std::string leds;
    std::string snapshot;
    while (!interrupted) {
        board.waitUntil([&](const auto &events) { return events.size() > seen; },
                        std::chrono::milliseconds(100));
        for (const Event &event : board.events(seen)) {
            seen++;
            if (event.kind == EventKind::Leds && std::exchange(leds, event.text) == leds)
                continue;
            if (event.kind == EventKind::Snapshot &&
                std::exchange(snapshot, event.text) == snapshot)
                continue;
            printEvent(event, start);
            if (event.kind == EventKind::Exit && !board.daemon())
                return atoi(event.text.c_str());
        }
    }
    return 0;
}

} // namespace

void printEvent(const Event &event, Clock::time_point start)
{
    if (event.kind == EventKind::Call && event.text.starts_with("syscfg_get"))
        return;
    const double seconds = std::chrono::duration<double>(event.time - start).count();
    std::istringstream lines(event.text);
    std::string line;
    while (std::getline(lines, line))
        printf("%9.3f  %-8s  %s\n", seconds, kindName(event.kind), line.c_str());
    fflush(stdout);
}

void addUp(Cli &cli)
{
    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App *const command = cli.add("up", "Start a board and print what happens",
                                      [&cli, arguments] { return up(cli.board, *arguments); });
    command->add_option("name", cli.board, "Name of the new board");
    command->add_option("--daemon-option", *arguments, "Option for the daemon, such as -d");
}

} // namespace kelo
