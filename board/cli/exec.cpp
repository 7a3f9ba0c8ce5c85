#include "cli.h"

#include <csignal>

namespace kelo {

namespace {

struct Command {
    std::vector<std::string> words;
    bool far = false;
};

int runInside(const Access &board, const Command &options)
{
    if (options.far)
        board.require(Ability::Network);
    const Words command = options.far ? board.form().far(options.words) : options.words;
    const Words local = board.inside(command);
    if (local.empty())
        return board.exec(command, [](const std::string &text) {
            fputs(text.c_str(), stdout);
            fflush(stdout);
        });
    signal(SIGINT, SIG_IGN); // the command's affair
    return waitFor(spawn(local, {}));
}

} // namespace

void addExec(Cli &cli)
{
    const auto command = std::make_shared<Command>();
    constexpr char farEnd[] = "At the far end of the board's links";
    CLI::App *const exec =
        cli.add(hardwareGroup, "exec", "Run a command in the board's network",
                [&cli, command] { cli.status = runInside(cli.running(), *command); });
    exec->add_option("COMMAND", command->words, "Command and its arguments")->required();
    exec->add_flag("--far", command->far, farEnd);
    exec->footer("For example: kelo-board exec cat /proc/net/if_inet6");

    CLI::App *const ip =
        cli.add(hardwareGroup, "ip", "Run ip(8) in the board's network", [&cli, command] {
            const Access board = cli.running();
            board.require(Ability::Network);
            command->words.insert(command->words.begin(), "ip");
            cli.status = runInside(board, *command);
        });
    ip->add_option("ARGUMENT", command->words, "What ip is given")->required();
    ip->add_flag("--far", command->far, farEnd);
    ip->footer("nas0_0 and ppp0 are the WAN, br0 is the LAN with the port lan1.\n"
               "For example: kelo-board ip -6 addr add 2001:db8::1/64 dev nas0_0");
}

void addDaemon(Cli &cli)
{
    const auto name = std::make_shared<std::string>();
    CLI::App *const signalCommand =
        cli.add(daemonGroup, "signal", "Send the daemon a signal", [&cli, name] {
            request(cli.board, {"signal", signalName(signalNumber(*name))});
        });
    signalCommand->add_option("SIGNAL", *name, "Name or number: TERM, STOP, CONT, 9")->required();
    cli.words[signalCommand] = [] {
        return std::vector<std::string>{"TERM", "HUP", "INT", "QUIT", "STOP", "CONT", "KILL"};
    };

    const auto options = std::make_shared<std::vector<std::string>>();
    const auto speed = std::make_shared<int>(1);
    CLI::App *const start = cli.add(
        daemonGroup, "start", "Start the daemon; returns once it runs", [&cli, options, speed] {
            request(cli.board, concat({"start", std::to_string(*speed)}, *options));
        });
    start->add_option("OPTION", *options, "Options for the daemon, after --");
    start->add_option("--speed", *speed, "How many times faster than real its clock runs")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    cli.addRequest(daemonGroup, "stop", "End the daemon and wait until it is gone", {"stop"});
    cli.addRequest(daemonGroup, "restart", "End the daemon and start it again as it was started",
                   {"restart"});
}

} // namespace kelo
