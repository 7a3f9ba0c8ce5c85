#include "panel/panel.h"

#include "cli.h"
#include "host.h"

namespace kelo {

namespace {

int panelOf(const std::string &board, const std::vector<std::string> &daemonArguments)
{
    if (!findBoard(board)) {
        // Apart, so that stopping the panel leaves the board running; it ends with the panel.
        const Descriptor life = startApart(board, std::nullopt, Host::KEPT_MEGABYTES, true);
        panel::run(board, daemonArguments);
        if (findBoard(board))
            endBoard(board);
    } else if (daemonArguments.empty()) {
        panel::run(board, std::nullopt);
    } else {
        throw Failure("the board \"" + board + "\" runs already: --daemon-option is for a new one");
    }
    return 0;
}

} // namespace

void addPanel(Cli &cli)
{
    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App *const command = cli.add(runningGroup, "panel", "Show a front panel; ? lists its keys",
                                      [&cli, arguments] { return panelOf(cli.board, *arguments); });
    command->add_option("NAME", cli.board, "Name of the board; a new one if it does not run")
        ->capture_default_str();
    command
        ->add_option("--daemon-option", *arguments,
                     "Option for a new board's daemon: --daemon-option=-d")
        ->type_name("OPTION");
    cli.words[command] = runningBoards;
}

} // namespace kelo
