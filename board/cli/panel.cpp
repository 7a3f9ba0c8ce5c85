#include "panel/panel.h"

#include "cli.h"

namespace kelo {

void addPanel(Cli &cli)
{
    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App *const command =
        cli.add(runningGroup, "panel", "Start a board and show its front panel; ? lists the keys",
                [&cli, arguments] {
                    Host host(cli.board);
                    panel::run(host, cli.board, *arguments);
                    return 0;
                });
    command->add_option("name", cli.board, "Name of the new board");
    command->add_option("--daemon-option", *arguments, "Option for the daemon: --daemon-option=-d");
}

} // namespace kelo
