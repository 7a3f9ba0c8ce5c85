// kelo-board: runs the daemon on a simulated board and lets a person play with it.

#include "cli/cli.h"

#include <cstdio>

namespace {

constexpr int FAILURE = 1;
constexpr int USAGE_ERROR = 2;

int complain(int status, const std::exception &error)
{
    fprintf(stderr, "kelo-board: %s\n", error.what());
    return status;
}

} // namespace

kelo::Access kelo::Cli::running() const
{
    const std::optional<Place> place = findBoard(board);
    if (!place)
        throw Failure("no board named \"" + board + "\" is running (start one: kelo-board up " +
                      board + ")");
    return Access(*place);
}

int main(int argc, char **argv)
{
    kelo::Cli cli;
    cli.app.require_subcommand(1);
    cli.app.fallthrough();
    cli.app.add_option("-b,--board", cli.board, "Name of the board to talk to")
        ->envname("KELO_BOARD")
        ->capture_default_str();

    addUp(cli);
    addSet(cli);
    addMode(cli);
    addExec(cli);

    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int status = cli.app.exit(error);
        return status == 0 ? 0 : USAGE_ERROR;
    } catch (const kelo::UsageError &error) {
        return complain(USAGE_ERROR, error);
    } catch (const std::exception &error) {
        return complain(FAILURE, error);
    }
    return cli.status;
}
