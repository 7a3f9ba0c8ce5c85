// kelo-board: runs the daemon on a simulated board and lets a person play with it.

#include "cli/cli.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int FAILURE = 1;
constexpr int USAGE_ERROR = 2;

int complain(int status, const std::exception &error)
{
    fprintf(stderr, "kelo-board: %s\n", error.what());
    return status;
}

/// The arguments from the last to the first, as the parser takes them. The options of a command
/// that is to be run are its own.
std::vector<std::string> arguments(int argc, char **argv)
{
    std::vector<std::string> result(argv + 1, argv + argc);
    size_t command = 0;
    while (command < result.size() && result[command].starts_with("-"))
        command += result[command] == "-b" || result[command] == "--board" ? 2 : 1;
    if (command + 1 < result.size() && (result[command] == "exec" || result[command] == "ip")) {
        const std::string &next = result[command + 1];
        if (next != "--" && next != "-h" && next != "--help")
            result.insert(result.begin() + static_cast<ptrdiff_t>(command) + 1, "--");
    }
    std::reverse(result.begin(), result.end());
    return result;
}

} // namespace

int main(int argc, char **argv)
{
    kelo::Cli cli;
    cli.app.require_subcommand(1);
    cli.app.fallthrough();
    cli.app.add_option("-b,--board", cli.board, "Name of the board to talk to")
        ->envname("KELO_BOARD_NAME")
        ->capture_default_str();

    addUp(cli);
    addPanel(cli);
    addDown(cli);
    addList(cli);
    addRun(cli);
    addSet(cli);
    addButton(cli);
    addMode(cli);
    addFault(cli);
    addExec(cli);
    addDaemon(cli);
    addLook(cli);
    addExpect(cli);
    addWait(cli);
    addRecord(cli);
    addPlot(cli);

    try {
        cli.app.parse(arguments(argc, argv));
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
