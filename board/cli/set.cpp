#include "cli.h"

namespace kelo {

namespace {

struct Values {
    std::string power;
    int state = 0;
    int port = 0;
    unsigned long long in = 0;
    unsigned long long out = 0;
};

} // namespace

void addSet(Cli &cli)
{
    const auto values = std::make_shared<Values>();
    CLI::App *const set = cli.app.add_subcommand("set", "Turn the simulated hardware");
    set->require_subcommand(1);

    cli.addTo(*set, "laser", "Received optical power",
              [&cli, values] {
                  cli.running().setLaser(values->power == "none" ? "" : values->power);
                  return 0;
              })
        ->add_option("dbm", values->power, "dBm, or none for no reading")
        ->required();

    cli.addTo(*set, "gpon", "GPON ONU state",
              [&cli, values] {
                  cli.running().setGpon(values->state);
                  return 0;
              })
        ->add_option("state", values->state, "State; 5 is link up")
        ->required();

    cli.addTo(*set, "button", "Reset button",
              [&cli, values] {
                  cli.running().setButton(values->state);
                  return 0;
              })
        ->add_option("value", values->state, "Value; 0 is released, 5 a long hold")
        ->required();

    CLI::App *const port = cli.addTo(*set, "port", "Byte counters of a port", [&cli, values] {
        cli.running().setPort(values->port, values->in, values->out);
        return 0;
    });
    port->add_option("port", values->port, "Port, 1 to 7")->required()->check(CLI::Range(1, 7));
    port->add_option("in", values->in, "Bytes in")->required();
    port->add_option("out", values->out, "Bytes out")->required();
}

void addMode(Cli &cli)
{
    const auto keyword = std::make_shared<std::string>();
    cli.add("mode", "Write a keyword into the display pipe",
            [&cli, keyword] {
                cli.running().writeKeyword(*keyword);
                return 0;
            })
        ->add_option("keyword", *keyword, "For example locateme")
        ->required();
}

} // namespace kelo
