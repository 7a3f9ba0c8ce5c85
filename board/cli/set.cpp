#include "cli.h"

#include "device.h"

#include <algorithm>
#include <cstdio>

namespace kelo {

namespace {

struct Values {
    std::string text;
    std::string in;
    std::string out = "0";
};

std::string powerText(const std::string &text)
{
    if (text == "none")
        return "";
    const auto dbm = parsed<double>(text);
    if (!dbm || *dbm < -100 || *dbm > 40)
        throw UsageError("no optical power: \"" + text +
                         "\" (dBm from -100 to 40, such as -18.5, or nan or none)");
    return text;
}

int toInteger(const std::string &text, const std::string &what)
{
    if (const auto number = parsed<int>(text))
        return *number;
    throw UsageError("no " + what + ": \"" + text + "\" (a whole number)");
}

void setPort(const Cli &cli, const std::string &name, const std::string &in, const std::string &out)
{
    const int port = portNumber(name);
    if (in == "none") {
        cli.running().removePort(port);
    } else {
        const unsigned long long inCount = toNumber(in);
        const unsigned long long outCount = toNumber(out);
        cli.running().setPort(port, inCount, outCount);
    }
}

void press(const std::string &board, const std::string &time)
{
    const Clock::duration duration = toDuration(time);
    request(board, {"press", toText(Clock::time_point(duration))}, duration + startLimit);
}

void send(const Access &board, const std::string &text)
{
    board.writeKeyword(text);
    const std::vector<std::string> known = modeKeywords();
    if (std::none_of(known.begin(), known.end(),
                     [&](const std::string &keyword) { return text.starts_with(keyword); }))
        fprintf(stderr, "kelo-board: no display mode is called \"%s\"; sent it all the same\n",
                text.c_str());
}

} // namespace

int portNumber(const std::string &name)
{
    for (int port = 1; port <= static_cast<int>(std::size(device::portNames)); port++) {
        if (name == device::portNames[port - 1] || name == std::to_string(port))
            return port;
    }
    throw UsageError("no port: \"" + name + "\" (lan1 to lan4, wan, wifi2, wifi5, or 1 to 7)");
}

void addSet(Cli &cli)
{
    const auto values = std::make_shared<Values>();
    CLI::App *const set =
        cli.app.add_subcommand("set", "Turn the optics, the link, the button or a port's counters");
    set->group(hardwareGroup);
    set->require_subcommand(1);

    cli.addTo(*set, "laser", "Received optical power",
              [&cli, values] {
                  const std::string power = powerText(values->text);
                  cli.running().setLaser(power);
              })
        ->add_option("DBM", values->text, "dBm, such as -18.5; nan, or none for no reading")
        ->required();

    cli.addTo(*set, "gpon", "GPON ONU state",
              [&cli, values] {
                  const int state = toInteger(values->text, "GPON state");
                  cli.running().setGpon(state);
              })
        ->add_option("STATE", values->text, "5 is link up, anything else is down")
        ->required();

    cli.addTo(*set, "button", "Value of the reset button",
              [&cli, values] {
                  const int value = toInteger(values->text, "button value");
                  cli.running().setButton(value);
              })
        ->add_option("VALUE", values->text, "0 is released, from 5 on a long hold")
        ->required();

    CLI::App *const port = cli.addTo(*set, "port", "Byte counters of a port", [&cli, values] {
        setPort(cli, values->text, values->in, values->out);
    });
    port->add_option("PORT", values->text, "lan1 to lan4, wan, wifi2, wifi5, or 1 to 7")
        ->required();
    port->add_option("IN", values->in, "Bytes in, or none for a port that cannot be read")
        ->required();
    port->add_option("OUT", values->out, "Bytes out")->capture_default_str();
    cli.words[port] = [] {
        return std::vector<std::string>(std::begin(device::portNames), std::end(device::portNames));
    };
}

void addButton(Cli &cli)
{
    constexpr char effect[] =
        "Released before its value is 5, the button reboots the device; at 5 it restores\n"
        "the defaults. Then the daemon no longer looks at it, as the device is about to\n"
        "go down: kelo-board restart starts the daemon afresh.";
    const auto time = std::make_shared<std::string>(std::to_string(device::pressSeconds) + "s");
    CLI::App *const pressCommand =
        cli.add(hardwareGroup, "press", "Press the reset button and release it",
                [&cli, time] { press(cli.board, *time); });
    pressCommand->add_option("TIME", *time, "How long; the daemon looks once a second")
        ->capture_default_str();
    pressCommand->footer(effect);
    cli.addRequest(hardwareGroup, "hold",
                   "Hold the reset button down; its value grows every second", {"hold"})
        ->footer(effect);
    cli.addRequest(hardwareGroup, "release", "Release the reset button", {"release"});
}

void addMode(Cli &cli)
{
    const auto keyword = std::make_shared<std::string>();
    CLI::App *const command =
        cli.add(hardwareGroup, "mode", "Write a keyword into the display pipe, or print the mode",
                [&cli, keyword] {
                    if (keyword->empty())
                        puts(modeName(stateOf(cli.board)["mode"]).c_str());
                    else if (stateOf(cli.board)["daemon"] == "0")
                        throw Failure("the daemon does not run (kelo-board start)");
                    else
                        send(cli.running(), *keyword);
                });
    command->add_option("KEYWORD", *keyword, "One of those below, or any text");
    command->footer("Keywords:\n"
                    "  none         all LEDs off\n"
                    "  signal       received power as a bar, blinking while the link is down\n"
                    "  reboot       about to reboot\n"
                    "  restore      restoring the defaults\n"
                    "  errora12     a steady light\n"
                    "  locateme     halves in turn for 30 s, then signal again\n"
                    "  ledtest      all on and all off\n"
                    "  facttest     factory test\n"
                    "  facttesterr  factory test failed");
    cli.words[command] = modeKeywords;
}

} // namespace kelo
