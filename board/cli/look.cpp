#include "cli.h"

#include "device.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <poll.h>
#include <unistd.h>

namespace kelo {

namespace {

struct LookOptions {
    bool follow = false;
    bool all = false;
    std::string attribute;
};

/// Whether the output cannot be written, or nobody reads it any more, as when grep -m 1 has found
/// it.
bool readerIsGone()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    return ferror(stdout) || (poll(&output, 1, 0) > 0 && (output.revents & POLLERR));
}

/// Prints the record of a board, of one kind or of all, and goes on as it grows if asked to.
void printRecord(const Cli &cli, const LookOptions &options, std::optional<EventKind> kind)
{
    auto state = stateOf(cli.board);
    const Clock::time_point start = toTime(state["start"]);
    sayRecordBegins(start, toTime(state["since"]));
    EventPrinter printer(start, cli.json);
    RecordReader record(cli.board, start);
    const auto patience = std::chrono::milliseconds(options.follow ? 200 : 0);
    try {
        while (!readerIsGone()) {
            const auto event = record.next(Clock::now() + patience);
            if (!event && !options.follow)
                break;
            if (event && options.all)
                printer.print(*event);
            else if (event && (!kind || event->kind == *kind))
                printer.printNews(*event);
        }
    } catch (const BoardEnded &) {
    }
}

void printJson(const nlohmann::ordered_json &value)
{
    puts(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

/// Prints texts by their names, in columns or as JSON.
void print(const nlohmann::ordered_json &texts, bool json, int width)
{
    if (json)
        return printJson(texts);
    for (const auto &[name, text] : texts.items())
        printf("%-*s  %s\n", width, name.c_str(), text.get<std::string>().c_str());
}

void leds(const Cli &cli)
{
    const std::string flags = stateOf(cli.board)["leds"];
    if (flags.empty())
        throw Failure("nothing has set the LEDs yet");
    if (!cli.json) {
        puts(flags.c_str());
        return;
    }
    nlohmann::ordered_json lit;
    for (size_t led = 0; led < std::min(flags.size(), std::size(device::ledGpios)); led++)
        lit[std::to_string(device::ledGpios[led])] = flags[led] == '1';
    printJson({{"leds", flags}, {"gpio", lit}});
}

void store(const Cli &cli, const std::string &attribute)
{
    const Access board = cli.running();
    if (!attribute.empty()) {
        const auto value = board.stored(device::statusNode, attribute);
        if (!value)
            throw Failure("the store has no \"" + attribute + "\"");
        if (cli.json)
            printJson(*value);
        else
            puts(value->c_str());
        return;
    }
    nlohmann::json node = nlohmann::json::object();
    for (const std::string &name :
         board.list(std::string(device::storeFolder) + device::statusNode)) {
        if (!name.starts_with("."))
            node[name] = board.stored(device::statusNode, name).value_or("");
    }
    print(node, cli.json, 14);
}

/// Prints the port counter snapshot: the file itself, or an object for every port.
void snapshot(const Cli &cli)
{
    const auto file = cli.running().read(device::snapshotPath);
    if (!file)
        throw Failure("there is no snapshot yet");
    const std::string &text = *file;
    if (!cli.json) {
        fputs(text.c_str(), stdout);
        return;
    }
    nlohmann::ordered_json ports = nlohmann::json::array();
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        nlohmann::ordered_json port;
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, ',');) {
            const size_t equals = std::min(field.find('='), field.size() - 1);
            const std::string value = field.substr(equals + 1);
            if (field.starts_with("port="))
                port["port"] = value;
            else
                port[field.substr(0, equals)] = strtoull(value.c_str(), nullptr, 10);
        }
        ports.push_back(port);
    }
    printJson(ports);
}

/// A reading as a number, as text where it is none, or null where there is no reading.
nlohmann::json reading(const std::string &text)
{
    const nlohmann::json number = nlohmann::json::parse(text, nullptr, false);
    return text.empty() ? nlohmann::json() : number.is_number() ? number : nlohmann::json(text);
}

void status(const Cli &cli)
{
    auto state = stateOf(cli.board);
    nlohmann::ordered_json object{{"name", cli.board},
                                  {"daemon", cli.running().daemonState()},
                                  {"mode", modeName(state["mode"])},
                                  {"leds", state["leds"]}};
    for (const char *const key : {"laser", "gpon", "button"})
        object[key] = cli.json ? reading(state[key]) : nlohmann::json(state[key]);
    if (!state["exit"].empty() && object["daemon"] == "ended")
        object["exit"] = state["exit"];
    print(object, cli.json, 8);
}

} // namespace

void addLook(Cli &cli)
{
    const auto options = std::make_shared<LookOptions>();

    CLI::App *const statusCommand =
        cli.add(lookGroup, "status", "Print what the board is doing", [&cli] { status(cli); });
    CLI::App *const ledsCommand =
        cli.add(lookGroup, "leds", "Print the LEDs: GPIO 6, 7, 8, 2, 3, 4; 1 is lit",
                [&cli] { leds(cli); });
    CLI::App *const storeCommand =
        cli.add(lookGroup, "store", "Print the IPv6 status in the configuration store",
                [&cli, options] { store(cli, options->attribute); });
    storeCommand->add_option("ATTRIBUTE", options->attribute,
                             "Only this one, for example wanAddress");
    cli.words[storeCommand] = [] {
        return std::vector<std::string>(std::begin(device::storeAttributes),
                                        std::end(device::storeAttributes));
    };
    CLI::App *const snapshotCommand = cli.add(
        lookGroup, "snapshot", "Print the port counter snapshot", [&cli] { snapshot(cli); });
    CLI::App *const logCommand =
        cli.add(lookGroup, "log", "Print the daemon's log",
                [&cli, options] { printRecord(cli, *options, EventKind::Log); });
    CLI::App *const eventsCommand =
        cli.add(lookGroup, "events", "Print everything that happened on the board",
                [&cli, options] { printRecord(cli, *options, std::nullopt); });
    eventsCommand->add_flag("--all", options->all,
                            "Also LEDs and snapshots that are as they were before");
    const auto file = std::make_shared<std::string>("/");
    cli.add(lookGroup, "path", "Print where a board's file is for this machine",
            [&cli, file] {
                const std::string path = cli.running().path(*file);
                if (!std::filesystem::exists(std::filesystem::symlink_status(path)))
                    throw Failure("the board has no " + *file);
                puts(path.c_str());
            })
        ->add_option("FILE", *file, "The file as the daemon names it")
        ->capture_default_str();
    for (CLI::App *const command : {logCommand, eventsCommand})
        command->add_flag("-f,--follow", options->follow, "Go on as more happens");
    for (CLI::App *const command :
         {statusCommand, ledsCommand, storeCommand, snapshotCommand, logCommand, eventsCommand})
        cli.addJson(*command);
}

} // namespace kelo
