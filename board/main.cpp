// kelo-board: runs the daemon on a simulated board and lets a person play with it.

#include "cli/cli.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int FAILURE = 1;
constexpr int USAGE_ERROR = 2;

constexpr char example[] =
    "A first look:\n"
    "  kelo-board up --detach              start a board in the background\n"
    "  kelo-board leds                     see its LEDs: the bar of received power\n"
    "  kelo-board mode locateme            let it locate: its LEDs flash by halves\n"
    "  kelo-board ip -6 addr add 2001:db8::1/64 dev nas0_0\n"
    "                                      give its WAN side an IPv6 address\n"
    "  kelo-board store                    see that in the configuration store\n"
    "  kelo-board press                    press its button for a reboot\n"
    "  kelo-board events                   read what happened so far\n"
    "  kelo-board plot -o leds.svg         draw it\n"
    "  kelo-board down                     end the board; nothing is left\n"
    "\n"
    "kelo-board COMMAND --help tells more of a command, kelo-board(1) all of it.\n"
    "Exit status: 0 done, 1 it failed, 2 the command line makes no sense.";

int complain(int status, const std::string &text)
{
    fprintf(stderr, "kelo-board: %s\n", text.c_str());
    return status;
}

/// What is wrong with the command line, and which help tells how it goes.
std::string usageMessage(const CLI::App *app, const CLI::Error &error)
{
    const std::vector<std::string> unknown = app->remaining(true);
    std::string command = "kelo-board";
    while (!app->get_subcommands().empty()) {
        app = app->get_subcommands().front();
        command += " " + app->get_name();
    }
    std::string text = error.what();
    const bool isGroup = !app->get_subcommands([](const CLI::App *) { return true; }).empty();
    if (!unknown.empty())
        text = (isGroup ? "unknown command: " : "not expected: ") + unknown.front();
    else if (isGroup && error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError))
        text = "a command is missing";
    if (text.size() > 1 && islower(text[1]))
        text[0] = static_cast<char>(tolower(text[0]));
    return text.substr(0, text.find('\n')) + " (see " + command + " --help)";
}

/// The help of every release of CLI11 alike. From 2.5 on it would fold lines beyond 80 columns,
/// take the columns out of a table, and not say "Usage:".
class Help : public CLI::Formatter {
public:
    Help() { keepLines(*this); }

    std::string make_usage(const CLI::App *app, std::string name) const override
    {
        std::string usage = CLI::Formatter::make_usage(app, std::move(name));
        if (usage.find("Usage:") == std::string::npos)
            usage.insert(usage.find_first_not_of('\n'), "Usage: ");
        return usage;
    }

private:
    template <class Formatter>
    static void keepLines(Formatter &formatter)
    {
        if constexpr (requires { formatter.right_column_width(57); }) {
            formatter.right_column_width(57); // it ends lines with a blank
            formatter.enable_description_formatting(false);
            formatter.enable_footer_formatting(false);
        }
    }
};

/// Lets the help speak of what a person types instead of its type.
void polish(CLI::App &app)
{
    app.formatter(std::make_shared<Help>());
    app.get_formatter()->column_width(22);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("REQUIRED", "");
    app.get_formatter()->label("Positionals", "Arguments");
    app.get_formatter()->label("POSITIONALS", "Arguments");
    for (CLI::Option *const option : app.get_options()) {
        if (option->get_positional())
            option->type_name("");
    }
    for (CLI::App *const command : app.get_subcommands([](CLI::App *) { return true; }))
        polish(*command);
}

/// The arguments from the last to the first, as the parser takes them. The options of a command
/// that is to be run are its own.
std::vector<std::string> arguments(int argc, char **argv)
{
    std::vector<std::string> result(argv + 1, argv + argc);
    size_t command = 0;
    while (command < result.size() && result[command].starts_with("-"))
        command += result[command] == "-b" || result[command] == "--board" ? 2 : 1;
    const auto word = [&](size_t at) { return at < result.size() ? result[at] : "--"; };
    if (word(command) == "exec" || word(command) == "ip") {
        command += word(command + 1) == "--far";
        const std::string next = word(command + 1);
        if (next != "--" && next != "-h" && next != "--help")
            result.insert(result.begin() + static_cast<ptrdiff_t>(command) + 1, "--");
    }
    std::reverse(result.begin(), result.end());
    return result;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): the set-up does not depend on what is typed
int main(int argc, char **argv)
{
    // Where standard descriptors are closed, what is opened next must not take their place.
    int spare;
    while ((spare = open("/dev/null", O_RDONLY)) >= 0 && spare <= STDERR_FILENO)
        ;
    close(spare);

    kelo::Cli cli;
    cli.app.require_subcommand(1);
    cli.app.fallthrough();
    cli.app.add_option("-b,--board", cli.board, "Name of the board to talk to")
        ->envname("KELO_BOARD_NAME")
        ->type_name("NAME")
        ->capture_default_str();

    addUp(cli);
    addPanel(cli);
    addWeb(cli);
    addDown(cli);
    addList(cli);
    addRun(cli);
    addSet(cli);
    addButton(cli);
    addMode(cli);
    addFault(cli);
    addExec(cli);
    addProvider(cli);
    addDaemon(cli);
    addLook(cli);
    addExpect(cli);
    addRecord(cli);
    addPlot(cli);
    addReport(cli);

    addCompletion(cli);
    cli.app.set_version_flag("--version", KELO_VERSION, "Print the version");
    cli.app.footer(example); // now, or the subcommands would have it too
    polish(cli.app);

    try {
        cli.app.parse(arguments(argc, argv));
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            return complain(USAGE_ERROR, usageMessage(&cli.app, error));
        cli.app.exit(error); // prints the help or the version
    } catch (const kelo::UsageError &error) {
        return complain(USAGE_ERROR, error.what());
    } catch (const std::invalid_argument &error) {
        return complain(USAGE_ERROR, error.what());
    } catch (const std::exception &error) {
        return complain(FAILURE, error.what());
    }
    if (fflush(stdout) != 0 || ferror(stdout))
        return complain(FAILURE, std::string("cannot write the output: ") + strerror(errno));
    return cli.status;
}
