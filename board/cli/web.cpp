#include "web/server.h"

#include "cli.h"
#include "host.h"

namespace kelo {

namespace {

struct Options {
    std::string address = "127.0.0.1";
    int port = 0;
};

void serve(const std::string &board, const Options &options)
{
    Descriptor life;
    if (!isRunning(board)) // one that ends with the page
        life = startApart(board, std::vector<std::string>(), Host::KEPT_MEGABYTES, true);
    Server server(board, options.address, options.port);
    puts(server.url().c_str());
    if (fflush(stdout) == 0) // or nobody knows the page
        server.run();
    try {
        if (life)
            endBoard(board);
    } catch (const BoardGone &) {
        // It has ended, which is all that is wanted.
    }
}

} // namespace

void addWeb(Cli &cli)
{
    const auto options = std::make_shared<Options>();
    CLI::App *const command =
        cli.add(runningGroup, "web", "Show the front panel in a browser; prints the address",
                [&cli, options] { serve(cli.board, *options); });
    command->add_option("NAME", cli.board, "Name of the board; a new one if it does not run")
        ->capture_default_str();
    command->add_option("--port", options->port, "Where to listen; 0 is any free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command->add_option("--address", options->address, "The same, for other machines to reach it")
        ->capture_default_str();
    cli.words[command] = runningBoards;
}

} // namespace kelo
