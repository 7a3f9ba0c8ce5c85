#include "cli.h"

namespace kelo {

void addExec(Cli &cli)
{
    const auto command = std::make_shared<std::vector<std::string>>();
    cli.add("exec", "Run a command in the board's network: exec -- ip -6 addr",
            [&cli, command] { return waitFor(spawn(cli.running().inside(*command), {})); })
        ->add_option("command", *command, "Command and its arguments, after --")
        ->required();
}

} // namespace kelo
