#include "panel/panel.h"

#include "cli.h"
#include "host.h"

namespace kelo {

namespace {

void panelOf(const std::string &board, const std::vector<std::string> &daemonArguments)
{
    if (!isRunning(board)) {
        // Apart, so that stopping the panel leaves the board running; it ends with the panel.
        const Descriptor life = startApart(board, std::nullopt, Host::KEPT_MEGABYTES, true);
        panel::run(board, daemonArguments);
        if (isRunning(board))
            endBoard(board);
    } else if (daemonArguments.empty()) {
        panel::run(board, std::nullopt);
    } else {
        throw Failure("the board \"" + board + "\" runs already: --daemon-option is for a new one");
    }
}

} // namespace

void addPanel(Cli &cli)
{
    const auto arguments = std::make_shared<std::vector<std::string>>();
    CLI::App *const command = cli.add(runningGroup, "panel", "Show a front panel; ? lists its keys",
                                      [&cli, arguments] { panelOf(cli.board, *arguments); });
    command->add_option("NAME", cli.board, "Name of the board; a new one if it does not run")
        ->capture_default_str();
    command
        ->add_option("--daemon-option", *arguments,
                     "Option for a new board's daemon: --daemon-option=-d")
        ->type_name("OPTION");
    addForm(*command);
    cli.words[command] = runningBoards;
}

} // namespace kelo
