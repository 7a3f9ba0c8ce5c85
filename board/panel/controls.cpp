#include "controls.h"

#include "device.h"
#include "plot.h"
#include "state.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace kelo::panel {

namespace {

constexpr auto tickTime = std::chrono::milliseconds(250);
constexpr auto pressTime = std::chrono::milliseconds(1300); // the daemon looks once a second
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

Controls::Controls(const std::string &name)
    : name_(name), board_(openBoard(name)), worker_(&Controls::work, this)
{
    later([this] { return tick(); });
}

Controls::~Controls()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        jobs_.clear();
    }
    changed_.notify_all();
    worker_.join();
}

void Controls::request(const Words &words, const std::string &done)
{
    later([this, words, done] {
        ask(words);
        return done;
    });
}

void Controls::changeNetwork(const Words &arguments, const std::string &done)
{
    later([this, arguments, done] {
        ip(arguments);
        return done;
    });
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
    later([this, dbm] {
        board_.setLaser(dbm);
        return dbm.empty() ? "there is no reading" : "received power is " + dbm + " dBm";
    });
}

void Controls::turnLink(const std::string &gpon)
{
    const int next = atoi(gpon.c_str()) == gponUp ? GPON_DOWN : gponUp;
    later([this, next] {
        board_.setGpon(next);
        return "GPON state is " + std::to_string(next);
    });
}

void Controls::press()
{
    later([this] {
        ask({"hold"});
        pressing_ = true;
        later(
            [this] {
                pressing_ = false;
                ask({"release"});
                return std::string("pressed the reset button and let go of it");
            },
            pressTime);
        return std::string();
    });
}

void Controls::addAddress(const Network &network)
{
    later([this, network] {
        const std::string address =
            network.prefix + std::to_string(lastAddress(network) + 1) + "/64";
        ip({"addr", "add", address, "dev", network.interface, "nodad"});
        return "added " + address + " to " + network.interface;
    });
}

void Controls::removeAddress(const Network &network)
{
    later([this, network] {
        const int last = lastAddress(network);
        if (last == 0)
            throw std::runtime_error(std::string("no panel added an address to ") +
                                     network.interface);
        const std::string address = network.prefix + std::to_string(last) + "/64";
        ip({"addr", "del", address, "dev", network.interface});
        return "removed " + address + " from " + network.interface;
    });
}

void Controls::turnWanLink()
{
    later([this] {
        const bool exists = board_.exec({"ip", "link", "show", "dev", "nas0_0"}).status == 0;
        if (exists) {
            ip({"link", "del", "nas0_0"});
            return std::string("deleted the link nas0_0");
        }
        ip({"link", "add", "nas0_0", "type", "veth", "peer", "name", "nas0_0", "netns",
            board_.form().root() + "/.far"});
        ip({"link", "set", "nas0_0", "up"}, true);
        ip({"link", "set", "nas0_0", "up"});
        return std::string("made the link nas0_0 again");
    });
}

void Controls::turnFault(const Fault &fault)
{
    later([this, fault] {
        const bool on = !faultsOf(board_).contains(fault.name);
        setFault(board_, fault, on);
        lookUp();
        return std::string(fault.name) + (on ? " is on: " : " is off; it was: ") +
               fault.description;
    });
}

void Controls::startDaemon(const std::vector<std::string> &arguments)
{
    request(concat({"start", "1"}, arguments), "the daemon runs; ? lists the keys");
}

void Controls::restartDaemon()
{
    later([this] {
        tell("restarting the daemon ...", false);
        ask({"restart"});
        return std::string("the daemon was restarted");
    });
}

void Controls::saveRecording(const std::string &path)
{
    later([this, path] {
        const auto [whole, remark] = recording();
        writeFile(path, toVcd(whole));
        return "saved the recording in " + path + remark;
    });
}

void Controls::savePicture(const std::string &path)
{
    later([this, path] {
        const auto [whole, remark] = recording();
        kelo::savePicture(plot(whole, 0, whole.length), path);
        return "saved a picture of the recording in " + path + remark;
    });
}

std::optional<Message> Controls::message() const
{
    const std::lock_guard lock(mutex_);
    return message_;
}

Look Controls::look() const
{
    const std::lock_guard lock(mutex_);
    return look_;
}

void Controls::later(std::function<std::string()> job, Clock::duration delay)
{
    {
        const std::lock_guard lock(mutex_);
        jobs_.emplace(Clock::now() + delay, std::move(job));
    }
    changed_.notify_all();
}

void Controls::work()
{
    std::unique_lock lock(mutex_);
    while (!ending_) {
        if (jobs_.empty()) {
            changed_.wait(lock);
            continue;
        }
        const Clock::time_point due = jobs_.begin()->first;
        if (due > Clock::now()) {
            changed_.wait_until(lock, due);
            continue;
        }
        const std::function<std::string()> job = jobs_.extract(jobs_.begin()).mapped();
        lock.unlock();
        try {
            const std::string text = job();
            if (!text.empty())
                tell(text, false);
        } catch (const std::exception &error) {
            tell(firstLine(error.what()), true);
        }
        lock.lock();
    }
    lock.unlock();
    if (pressing_) {
        try {
            ask({"release"});
        } catch (const std::exception &) {
            // The board is gone, and its button.
        }
    }
}

std::string Controls::tick()
{
    later([this] { return tick(); }, tickTime);
    if (traffic_)
        moveTraffic();
    if (ticks_++ % 2 == 0)
        lookUp();
    return {};
}

void Controls::lookUp()
{
    Look look{board_.daemonState(), board_.daemon(), faultsOf(board_)};
    const std::lock_guard lock(mutex_);
    look_ = std::move(look);
}

/// Goes on from whatever the counters hold; a port that cannot be read stays so.
void Controls::moveTraffic()
{
    const double step = std::chrono::duration<double>(tickTime).count();
    trafficTime_ += step;
    for (size_t port = 0; port < busiest.size(); port++) {
        const int number = static_cast<int>(port) + 1;
        unsigned long long in;
        unsigned long long out;
        const std::string file =
            board_.read(device::portsFolder + std::to_string(number)).value_or("");
        if (sscanf(file.c_str(), "%llu %llu", &in, &out) != 2)
            continue;
        const double phase = static_cast<double>(port) * 0.9;
        const auto wave = [&](double period) {
            return 0.55 + 0.45 * std::sin(trafficTime_ * 6.283 / period + phase);
        };
        board_.setPort(number, in + static_cast<unsigned long long>(busiest[port] * step * wave(9)),
                       out + static_cast<unsigned long long>(busiest[port] * step * wave(14) / 6));
    }
}

void Controls::tell(const std::string &text, bool failure)
{
    const std::lock_guard lock(mutex_);
    message_ = Message{text, failure, Clock::now()};
}

void Controls::ask(const Words &words) const
{
    kelo::request(name_, words);
}

void Controls::ip(const Words &arguments, bool far) const
{
    board_.require(Ability::Network);
    const Words command = concat({"ip", "-6"}, arguments);
    const Result result = board_.exec(far ? board_.form().far(command) : command);
    if (result.status != 0)
        throw std::runtime_error("ip: " + firstLine(result.output));
}

int Controls::lastAddress(const Network &network) const
{
    const std::string prefix = network.prefix;
    const Result shown = board_.exec({"ip", "-6", "addr", "show", "dev", network.interface});
    std::istringstream words(shown.output);
    int last = 0;
    for (std::string word; words >> word;) {
        int number;
        int end = 0;
        if (word.starts_with(prefix) &&
            sscanf(word.c_str() + prefix.size(), "%d/64%n", &number, &end) == 1 && end > 0)
            last = std::max(last, number);
    }
    return last;
}

std::pair<Recording, std::string> Controls::recording() const
{
    const Past past(name_);
    std::string remark;
    if (past.from > past.start) {
        const double seconds = std::chrono::duration<double>(past.from - past.start).count();
        remark = ", from second " + std::to_string(std::lround(seconds)) + " on";
    }
    return {makeRecording(past.events, Clock::now()), remark};
}

} // namespace kelo::panel
