#include "cli.h"

#include "faults.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace kelo {

namespace {

struct FaultOptions {
    std::string name;
    std::string state = "on";
    int changes = 500;
};

void list(const Cli &cli)
{
    const std::set<std::string> present = faultsOf(cli.running());
    nlohmann::ordered_json object;
    for (const Fault &fault : faults) {
        const bool on = present.contains(fault.name);
        object[fault.name] = on;
        if (!cli.json)
            printf("%-15s  %-3s  %s\n", fault.name, on ? "on" : "off", fault.description);
    }
    if (cli.json)
        puts(object.dump().c_str());
}

void turn(const Cli &cli, const FaultOptions &options)
{
    if (options.name.empty())
        return list(cli);
    const Fault *const fault = findFault(options.name);
    if (!fault)
        throw UsageError("no fault: \"" + options.name + "\" (kelo-board fault --help lists them)");
    if (options.state != "on" && options.state != "off")
        throw UsageError("a fault is on or off, not \"" + options.state + "\"");
    setFault(cli.running(), *fault, options.state == "on");
}

} // namespace

void addFault(Cli &cli)
{
    const auto options = std::make_shared<FaultOptions>();
    CLI::App *const command =
        cli.add(hardwareGroup, "fault", "Break something on the board, or mend it",
                [&cli, options] { turn(cli, *options); });
    command->add_option("FAULT", options->name, "Which; without, all are listed");
    command->add_option("STATE", options->state, "on or off")->capture_default_str();
    cli.addJson(*command);
    std::string footer = "Faults:";
    for (const Fault &fault : faults)
        footer += std::string("\n  ") + fault.name + std::string(17 - strlen(fault.name), ' ') +
                  fault.description;
    footer += "\nSee also: set port PORT none, signal STOP, burst, start --speed";
    command->footer(footer);
    cli.words[command] = [] {
        std::vector<std::string> words{"on", "off"};
        for (const Fault &fault : faults)
            words.emplace_back(fault.name);
        return words;
    };

    CLI::App *const burst =
        cli.add(hardwareGroup, "burst", "Overrun the daemon's netlink socket",
                [&cli, options] { overrunNetlink(cli.running(), options->changes); });
    burst->add_option("COUNT", options->changes, "How many addresses come and go")
        ->check(CLI::Range(1, 60000))
        ->capture_default_str();
}

} // namespace kelo
