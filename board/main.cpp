// kelo-board: runs the daemon on a simulated board and lets a person play with it.

#include "board.h"
#include "registry.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int USAGE_ERROR = 2;

std::atomic<bool> interrupted;

struct Failure {
    std::string text;
};

kelo::Access running(const std::string &name)
{
    const std::optional<kelo::Place> place = kelo::findBoard(name);
    if (!place)
        throw Failure{"no board named \"" + name + "\" is running (start one: kelo-board up " +
                      name + ")"};
    return kelo::Access(*place);
}

/// Prints a text as lines that all carry the time and the kind.
void print(double seconds, const char *kind, const std::string &text)
{
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        printf("%9.3f  %-8s  %s\n", seconds, kind, line.c_str());
    fflush(stdout);
}

void printEvent(const kelo::Event &event, kelo::Clock::time_point start)
{
    const double seconds = std::chrono::duration<double>(event.time - start).count();
    if (event.kind == kelo::EventKind::Call && event.text.starts_with("syscfg_get"))
        return; // the daemon polls these all the time
    print(seconds, kindName(event.kind), event.text);
}

/// Runs a board in the foreground and prints what happens on it until a signal or the daemon's end.
int up(const std::string &name, const std::vector<std::string> &daemonArguments)
{
    signal(SIGINT, [](int) { interrupted = true; });
    signal(SIGTERM, [](int) { interrupted = true; });
    signal(SIGHUP, [](int) { interrupted = true; });

    const auto start = kelo::Clock::now();
    kelo::Board board;
    const kelo::Registration registration(name, board.place());
    board.startDaemon(daemonArguments);

    size_t seen = 0;
    std::string leds;
    std::string snapshot;
    while (!interrupted) {
        board.waitUntil([&](const auto &events) { return events.size() > seen; },
                        std::chrono::milliseconds(100));
        for (const kelo::Event &event : board.events(seen)) {
            seen++;
            if (event.kind == kelo::EventKind::Leds && std::exchange(leds, event.text) == leds)
                continue;
            if (event.kind == kelo::EventKind::Snapshot &&
                std::exchange(snapshot, event.text) == snapshot)
                continue;
            printEvent(event, start);
            if (event.kind == kelo::EventKind::Exit && !board.daemon())
                return atoi(event.text.c_str());
        }
    }
    return 0;
}

int exec(const kelo::Access &board, const std::vector<std::string> &command)
{
    return kelo::waitFor(kelo::spawn(board.inside(command), {}));
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Runs kelo-monitord on a simulated board.", "kelo-board");
    app.require_subcommand(1);
    app.fallthrough();
    std::string name = "board";
    app.add_option("-b,--board", name, "Name of the board to talk to")->capture_default_str();

    std::vector<std::string> arguments;
    CLI::App *const upCommand = app.add_subcommand("up", "Start a board and print what happens");
    upCommand->add_option("name", name, "Name of the new board");
    upCommand->add_option("--daemon-option", arguments, "Option for the daemon, such as -d");

    CLI::App *const execCommand =
        app.add_subcommand("exec", "Run a command in the board's network: exec -- ip -6 addr");
    std::vector<std::string> command;
    execCommand->add_option("command", command, "Command and its arguments, after --")->required();

    CLI::App *const setCommand = app.add_subcommand("set", "Turn the simulated hardware");
    setCommand->require_subcommand(1);
    std::string power;
    int state = 0;
    int port = 0;
    unsigned long long in = 0;
    unsigned long long out = 0;
    CLI::App *const laser = setCommand->add_subcommand("laser", "Received optical power");
    laser->add_option("dbm", power, "dBm, or none for no reading")->required();
    CLI::App *const gpon = setCommand->add_subcommand("gpon", "GPON ONU state");
    gpon->add_option("state", state, "State; 5 is link up")->required();
    CLI::App *const button = setCommand->add_subcommand("button", "Reset button");
    button->add_option("value", state, "Value; 0 is released, 5 a long hold")->required();
    CLI::App *const counters = setCommand->add_subcommand("port", "Byte counters of a port");
    counters->add_option("port", port, "Port, 1 to 7")->required()->check(CLI::Range(1, 7));
    counters->add_option("in", in, "Bytes in")->required();
    counters->add_option("out", out, "Bytes out")->required();

    std::string keyword;
    CLI::App *const modeCommand =
        app.add_subcommand("mode", "Write a keyword into the display pipe");
    modeCommand->add_option("keyword", keyword, "For example locateme")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int status = app.exit(error);
        return status == 0 ? 0 : USAGE_ERROR;
    }

    try {
        if (*upCommand)
            return up(name, arguments);
        if (*execCommand)
            return exec(running(name), command);
        if (*laser)
            running(name).setLaser(power == "none" ? "" : power);
        if (*gpon)
            running(name).setGpon(state);
        if (*button)
            running(name).setButton(state);
        if (*counters)
            running(name).setPort(port, in, out);
        if (*modeCommand)
            running(name).writeKeyword(keyword);
    } catch (const Failure &failure) {
        fprintf(stderr, "kelo-board: %s\n", failure.text.c_str());
        return 1;
    } catch (const std::exception &error) {
        fprintf(stderr, "kelo-board: %s\n", error.what());
        return 1;
    }
    return 0;
}
