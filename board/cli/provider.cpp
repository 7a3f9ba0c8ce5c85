// The far end's provider, and the terminal's DHCP client.

#include "cli.h"

#include "provider.h"

#include <arpa/inet.h>

#include <cmath>
#include <cstdio>

namespace kelo {

namespace {

struct Options {
    Provider provider;
    std::string preferred = "1m";
    std::string valid = "2m";
    std::string router = "1m";
    std::string down = "1s";
};

/// A length of time in whole seconds, rounded up.
int seconds(const std::string &time)
{
    return static_cast<int>(std::ceil(std::chrono::duration<double>(toDuration(time)).count()));
}

void checkPrefix(const std::string &text)
{
    in6_addr address;
    const size_t slash = text.find('/');
    if (slash == std::string::npos || slash < 2 || text.compare(slash - 2, 2, "::") != 0 ||
        inet_pton(AF_INET6, text.substr(0, slash).c_str(), &address) != 1 ||
        toNumber(text.substr(slash + 1)) > 128)
        throw UsageError("no prefix: \"" + text + "\" (such as 2001:db8:1::/64)");
}

void start(const Cli &cli, const Options &options)
{
    Provider provider = options.provider;
    std::for_each(provider.prefixes.begin(), provider.prefixes.end(), checkPrefix);
    provider.preferred = seconds(options.preferred);
    provider.valid = seconds(options.valid);
    provider.router = seconds(options.router);
    if (provider.preferred > provider.valid)
        throw UsageError("an address cannot be preferred for longer than it is valid");
    if (provider.router > 9000)
        throw UsageError("a router's lifetime is at most 9000 seconds");
    startProvider(cli.running(), provider);
}

} // namespace

void addProvider(Cli &cli)
{
    const auto options = std::make_shared<Options>();
    Provider &chosen = options->provider;
    CLI::App *const provider = cli.app.add_subcommand(
        "provider", "Run a provider at the far end of a link, with real servers");
    CLI::App *const client =
        cli.app.add_subcommand("dhcp", "Run a DHCP client on the terminal's side of a link");
    for (CLI::App *const command : {provider, client}) {
        command->group(hardwareGroup);
        command->require_subcommand(1);
        command->fallthrough();
        command->add_option("--on", chosen.link, "Link: nas0_0, ppp0 or lan1")
            ->type_name("LINK")
            ->check(CLI::IsMember({"nas0_0", "ppp0", "lan1"}))
            ->capture_default_str();
    }
    const auto tell = [&cli, &chosen = chosen, options](const Words &words) {
        fputs(tellProvider(cli.running(), chosen.link, words).c_str(), stdout);
    };

    CLI::App *const begin = cli.addTo(*provider, "start", "Start it, anew if it runs",
                                      [&cli, options] { start(cli, *options); });
    begin->add_option("PREFIX", chosen.prefixes, "What it advertises")->capture_default_str();
    begin->add_option("--preferred", options->preferred, "How long addresses stay preferred")
        ->type_name("TIME")
        ->capture_default_str();
    begin->add_option("--valid", options->valid, "How long they stay at all")
        ->type_name("TIME")
        ->capture_default_str();
    begin->add_option("--router", options->router, "How long the default route stays")
        ->type_name("TIME")
        ->capture_default_str();
    begin->add_flag("--dhcp", chosen.leases, "Lease addresses by DHCPv6 and DHCPv4, too");
    cli.addTo(*provider, "renumber", "Advertise another prefix; the old one is deprecated",
              [&chosen, tell] {
                  std::for_each(chosen.prefixes.begin(), chosen.prefixes.end(), checkPrefix);
                  tell(concat({"renumber"}, chosen.prefixes));
              })
        ->add_option("PREFIX", chosen.prefixes, "The new one")
        ->required();
    cli.addTo(*provider, "stop", "End it with a goodbye: what it advertised is withdrawn",
              [tell] { tell({"stop"}); });
    cli.addTo(*provider, "silence", "End it without a word", [tell] { tell({"silence"}); });
    cli.addTo(*provider, "vanish", "End it without a word and delete the link",
              [tell] { tell({"vanish"}); });
    cli.addTo(*provider, "flap", "Let the link be down for a time",
              [tell, options] {
                  tell({"flap", std::to_string(seconds(options->down))});
              })
        ->add_option("TIME", options->down, "How long")
        ->capture_default_str();
    cli.addTo(*provider, "log", "Print what the servers and the client said",
              [tell] { tell({"log"}); });

    cli.addTo(*client, "start", "Start it: it asks for addresses by DHCPv6 and DHCPv4",
              [tell] { tell({"ask"}); });
    cli.addTo(*client, "stop", "Give the addresses back and end the client",
              [tell] { tell({"release"}); });
}

} // namespace kelo
