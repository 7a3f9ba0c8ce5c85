#include "controls.h"

#include "device.h"
#include "state.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace kelo::panel {

namespace {

constexpr auto tickTime = std::chrono::milliseconds(250);
constexpr int GPON_DOWN = 3;
constexpr double MAX_POWER = 10;
constexpr double MIN_POWER = -45;

// Of no signal and of the five levels.
constexpr std::array<double, 6> bandMiddles{-42, -34, -26.5, -18, -9.5, -4};

/// Bytes a second at a port's busiest.
constexpr std::array<double, 7> busiest{2.4e6, 8e5, 1.5e4, 600, 1.1e7, 3e5, 5.6e6};

std::string toText(double power)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f", power);
    return text;
}

std::string firstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

} // namespace

Controls::Controls(std::string name, const Access &board) : name_(std::move(name)), board_(board)
{
    tick();
}

void Controls::request(const Words &words, const std::string &done)
{
    board_.link().send(
        words,
        [this, done](const Answer &answer) {
            tell(answer.ok() ? done : firstLine(answer.error), !answer.ok());
        },
        {}, startLimit);
}

void Controls::press()
{
    request({"press", std::to_string(device::pressSeconds)},
            "pressed the reset button and let go of it");
}

void Controls::commands(std::list<Words> all, const std::string &done)
{
    const Words words = std::move(all.front());
    all.pop_front();
    run(words, [=, this](const Result &result) {
        // It says its own name before what it has to say; other words are of what it ran.
        constexpr char name[] = "kelo-board: ";
        const std::string said = firstLine(result.output);
        const std::string text =
            said.starts_with(name) ? said.substr(strlen(name)) : words[0] + ": " + said;
        if (result.status != 0)
            tell(text, true);
        else if (!all.empty())
            commands(all, done);
        else
            tell(said.empty() ? done : done + "; " + text);
    });
}

void Controls::run(const Words &words, const std::function<void(const Result &)> &ended)
{
    if (program_) {
        waiting_.emplace_back([=, this] { run(words, ended); });
        return;
    }
    const auto done = [=, this](const Result &result) {
        late_ = Watch();
        program_.reset();
        ended(result); // which may run what belongs to it first
        if (!program_ && !waiting_.empty()) {
            const auto next = std::move(waiting_.front());
            waiting_.pop_front();
            next();
        }
    };
    try {
        event_base *const base = board_.link().loop().base();
        program_.emplace(base, concat({"/proc/self/exe", "-b", name_}, words), done);
        late_ = Watch(base, startLimit, [=, this] {
            program_->kill();
            done({1, "kelo-board: " + words[0] + " does not end"});
        });
    } catch (const std::runtime_error &error) {
        tell(error.what(), true);
    }
}

void Controls::turnPower(const std::string &laser, double by)
{
    const double power = toPower(laser).value_or(MIN_POWER - by);
    setPower(toText(std::clamp(power + by, MIN_POWER, MAX_POWER)));
}

void Controls::turnPowerToBand(const std::string &laser, int direction)
{
    const int band = levelOf(toPower(laser)) + 1;
    const int next = std::clamp(band + direction, 0, static_cast<int>(bandMiddles.size()) - 1);
    setPower(toText(bandMiddles[static_cast<size_t>(next)]));
}

void Controls::turnReading(const std::string &laser)
{
    if (!laser.empty())
        reading_ = laser;
    setPower(laser.empty() ? reading_ : "");
}

void Controls::setPower(const std::string &dbm)
{
    request({"put", device::laserPath, dbm + "\n"},
            dbm.empty() ? "there is no reading" : "received power is " + dbm + " dBm");
}

void Controls::turnLink(const std::string &gpon)
{
    const std::string next = std::to_string(atoi(gpon.c_str()) == gponUp ? GPON_DOWN : gponUp);
    request({"put", device::gponPath, next + "\n"}, "GPON state is " + next);
}

void Controls::addAddress(const Network &network)
{
    findAddress(network, [this, network](int last) {
        const std::string address = network.prefix + std::to_string(last + 1) + "/64";
        commands({{"ip", "-6", "addr", "add", address, "dev", network.interface, "nodad"}},
                 "added " + address + " to " + network.interface);
    });
}

void Controls::removeAddress(const Network &network)
{
    findAddress(network, [this, network](int last) {
        const std::string address = network.prefix + std::to_string(last) + "/64";
        if (last == 0)
            tell(std::string("no panel added an address to ") + network.interface, true);
        else
            commands({{"ip", "-6", "addr", "del", address, "dev", network.interface}},
                     "removed " + address + " from " + network.interface);
    });
}

void Controls::findAddress(const Network &network, const std::function<void(int)> &found)
{
    run({"ip", "-6", "addr", "show", "dev", network.interface},
        [prefix = std::string(network.prefix), found](const Result &result) {
            std::istringstream words(result.output);
            int last = 0;
            for (std::string word; words >> word;) {
                int number;
                int end = 0;
                if (word.starts_with(prefix) &&
                    sscanf(word.c_str() + prefix.size(), "%d/64%n", &number, &end) == 1 && end > 0)
                    last = std::max(last, number);
            }
            found(last);
        });
}

void Controls::turnWanLink()
{
    run({"ip", "link", "show", "dev", wan.interface}, [this](const Result &result) {
        if (result.status == 0)
            commands({{"ip", "link", "del", wan.interface}}, "deleted the link nas0_0");
        else
            commands({{"ip", "link", "add", wan.interface, "type", "veth", "peer", "name",
                       wan.interface, "netns", board_.form().root() + "/.far"},
                      {"ip", "--far", "link", "set", wan.interface, "up"},
                      {"ip", "link", "set", wan.interface, "up"}},
                     "made the link nas0_0 again");
    });
}

void Controls::turnFault(const Fault &fault)
{
    const bool on = !look_.faults.contains(fault.name);
    commands({{"fault", fault.name, on ? "on" : "off"}},
             std::string(fault.name) + (on ? " is on: " : " is off; it was: ") + fault.description);
}

void Controls::restartDaemon()
{
    tell("restarting the daemon ...");
    request({"restart"}, "the daemon was restarted");
}

void Controls::tick()
{
    ticking_ = Watch(board_.link().loop().base(), tickTime, [this] { tick(); });
    if (traffic_)
        moveTraffic();
    if (ticks_++ % 2 == 0 && !looks_)
        lookUp();
}

void Controls::lookUp()
{
    looks_ = true;
    board_.link().send({"daemon"}, [this](const Answer &answer) {
        if (!answer.ok())
            return;
        look_.daemon = Access::daemonState(answer.words);
        look_.process.reset();
        if (!answer.words.empty())
            look_.process = board_.form().outside(atoi(answer.words[0].c_str()));
    });
    board_.link().send(faultsRequest, [this](const Answer &answer) {
        looks_ = false;
        if (answer.ok())
            look_.faults = toFaults(answer.words.at(0));
    });
}

void Controls::moveTraffic()
{
    trafficTime_ += std::chrono::duration<double>(tickTime).count();
    for (int number = 1; number <= static_cast<int>(busiest.size()); number++)
        board_.link().send({"read", device::portsFolder + std::to_string(number)},
                           [this, number](const Answer &answer) {
                               if (answer.ok())
                                   movePort(number, answer.words.at(0));
                           });
}

/// Goes on from whatever the counters hold; a port that cannot be read stays so.
void Controls::movePort(int number, const std::string &counters)
{
    unsigned long long in;
    unsigned long long out;
    if (sscanf(counters.c_str(), "%llu %llu", &in, &out) != 2)
        return;
    const double step = std::chrono::duration<double>(tickTime).count();
    const double most = step * busiest[static_cast<size_t>(number) - 1];
    const auto wave = [&](double period) {
        return 0.55 + 0.45 * std::sin(trafficTime_ * 6.283 / period + (number - 1) * 0.9);
    };
    in += static_cast<unsigned long long>(most * wave(9));
    out += static_cast<unsigned long long>(most * wave(14) / 6);
    board_.link().send(Access::portRequest(number, in, out));
}

void Controls::tell(const std::string &text, bool failure)
{
    message_ = Message{text, failure, Clock::now()};
}

} // namespace kelo::panel
