#include "cli.h"

namespace kelo {

namespace {

constexpr const char *portNames[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};

struct Values {
    std::string power;
    int number = 0;
    std::string port;
    std::string in;
    unsigned long long out = 0;
};

int portNumber(const std::string &name)
{
    for (int port = 1; port <= static_cast<int>(std::size(portNames)); port++) {
        if (name == portNames[port - 1] || name == std::to_string(port))
            return port;
    }
    throw UsageError("no port: \"" + name + "\" (lan1 to lan4, wan, wifi2, wifi5, or 1 to 7)");
}

void setPort(const Access &board, const Values &values)
{
    const int port = portNumber(values.port);
    unsigned long long in;
    if (values.in == "none")
        board.removePort(port);
    else if (CLI::detail::lexical_cast(values.in, in) && values.in[0] != '-')
        board.setPort(port, in, values.out);
    else
        throw UsageError("no byte count: \"" + values.in + "\"");
}

void setLaser(const Access &board, const std::string &power)
{
    double dbm;
    if (power != "none" && !CLI::detail::lexical_cast(power, dbm))
        throw UsageError("no optical power: \"" + power + "\" (dBm, such as -18.5, or none)");
    board.setLaser(power == "none" ? "" : power);
}

int press(const std::string &board, const std::string &time)
{
    const Clock::duration duration = toDuration(time);
    request(board, "hold");
    letPass(board, duration);
    request(board, "release");
    return 0;
}

} // namespace

void addSet(Cli &cli)
{
    const auto values = std::make_shared<Values>();
    CLI::App *const set =
        cli.app.add_subcommand("set", "Turn the optics, the link, the button or a port's counters");
    set->group(hardwareGroup);
    set->require_subcommand(1);

    cli.addTo(*set, "laser", "Received optical power",
              [&cli, values] {
                  setLaser(cli.running(), values->power);
                  return 0;
              })
        ->add_option("dbm", values->power, "dBm, such as -18.5, or none for no reading")
        ->required();

    cli.addTo(*set, "gpon", "GPON ONU state",
              [&cli, values] {
                  cli.running().setGpon(values->number);
                  return 0;
              })
        ->add_option("state", values->number, "State; 5 is link up, anything else is down")
        ->required();

    cli.addTo(*set, "button", "Reset button, to the very value",
              [&cli, values] {
                  cli.running().setButton(values->number);
                  return 0;
              })
        ->add_option("value", values->number, "Value; 0 is released, from 5 on a long hold")
        ->required();

    CLI::App *const port = cli.addTo(*set, "port", "Byte counters of a port", [&cli, values] {
        setPort(cli.running(), *values);
        return 0;
    });
    port->add_option("port", values->port, "lan1 to lan4, wan, wifi2, wifi5, or 1 to 7")
        ->required();
    port->add_option("in", values->in, "Bytes in, or none for a port that cannot be read")
        ->required();
    port->add_option("out", values->out, "Bytes out");
}

void addButton(Cli &cli)
{
    const auto time = std::make_shared<std::string>("2s");
    cli.add(hardwareGroup, "press", "Press the reset button and let go of it",
            [&cli, time] { return press(cli.board, *time); })
        ->add_option("time", *time, "How long; the daemon looks once a second")
        ->capture_default_str();
    cli.add(hardwareGroup, "hold", "Hold the reset button down; its value grows every second",
            [&cli] {
                request(cli.board, "hold");
                return 0;
            });
    cli.add(hardwareGroup, "release", "Let go of the reset button", [&cli] {
        request(cli.board, "release");
        return 0;
    });
}

void addMode(Cli &cli)
{
    const auto keyword = std::make_shared<std::string>();
    cli.add(hardwareGroup, "mode",
            "Write a keyword into the daemon's display pipe, or print the display mode",
            [&cli, keyword] {
                if (keyword->empty())
                    puts(modeName(stateOf(cli.board)["mode"]).c_str());
                else
                    cli.running().writeKeyword(*keyword);
                return 0;
            })
        ->add_option("keyword", *keyword,
                     "none, signal, reboot, restore, errora12, locateme, ledtest, facttest, "
                     "facttesterr; or any text");
}

void addWait(Cli &cli)
{
    const auto time = std::make_shared<std::string>();
    cli.add(testGroup, "wait", "Let time pass; fails when the board ends meanwhile",
            [&cli, time] {
                letPass(cli.board, toDuration(*time));
                return 0;
            })
        ->add_option("time", *time, "How long: 3, 1.5s, 250ms, 2m")
        ->required();
}

} // namespace kelo
