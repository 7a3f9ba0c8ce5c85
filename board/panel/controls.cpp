#include "controls.h"

#include "device.h"
#include "plot.h"
#include "state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
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

constexpr char wanPrefix[] = "2001:db8::";
constexpr char lanPrefix[] = "2001:db8:1::";

std::string firstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

Access accessTo(const std::string &name)
{
    const std::optional<Access> access = findBoard(name);
    if (!access)
        throw BoardGone("the board \"" + name + "\" ended");
    return *access;
}

} // namespace

Controls::Controls(const std::string &name)
    : name_(name), board_(accessTo(name)), worker_(&Controls::work, this)
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

void Controls::chooseMode(const std::string &keyword)
{
    later([this, keyword] {
        board_.writeKeyword(keyword);
        return "wrote \"" + keyword + "\" into the display pipe";
    });
}

void Controls::turnPower(const std::string &laser, double by)
{
    const double power = toPower(laser).value_or(MIN_POWER - by);
    const std::string next = toText(std::clamp(power + by, MIN_POWER, MAX_POWER));
    later([this, next] {
        board_.setLaser(next);
        return "received power is " + next + " dBm";
    });
}

void Controls::turnPowerToBand(const std::string &laser, int direction)
{
    const int band = levelOf(toPower(laser)) + 1;
    const int next = std::clamp(band + direction, 0, static_cast<int>(bandMiddles.size()) - 1);
    const std::string power = toText(bandMiddles[static_cast<size_t>(next)]);
    later([this, power] {
        board_.setLaser(power);
        return "received power is " + power + " dBm";
    });
}

void Controls::turnReading(const std::string &laser)
{
    if (!laser.empty())
        reading_ = laser;
    const std::string next = laser.empty() ? reading_ : "";
    later([this, next] {
        board_.setLaser(next);
        return next.empty() ? "there is no reading" : "received power is " + next + " dBm";
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
        ask("hold");
        pressing_ = true;
        later(
            [this] {
                pressing_ = false;
                ask("release");
                return std::string("pressed the reset button and let go of it");
            },
            pressTime);
        return std::string();
    });
}

void Controls::hold()
{
    later([this] {
        ask("hold");
        return std::string("holding the reset button; r lets go of it");
    });
}

void Controls::release()
{
    later([this] {
        ask("release");
        return std::string("let go of the reset button");
    });
}

void Controls::addWanAddress()
{
    later([this] { return addAddress(wanPrefix, "nas0_0"); });
}

void Controls::removeWanAddress()
{
    later([this] { return removeAddress(wanPrefix, "nas0_0"); });
}

void Controls::addLanAddress()
{
    later([this] { return addAddress(lanPrefix, "br0"); });
}

void Controls::removeLanAddress()
{
    later([this] { return removeAddress(lanPrefix, "br0"); });
}

void Controls::addDefaultRoute()
{
    later([this] {
        ip({"route", "add", "default", "via", "fe80::1", "dev", "nas0_0"});
        return std::string("added a default route via fe80::1 over nas0_0");
    });
}

void Controls::removeDefaultRoute()
{
    later([this] {
        ip({"route", "del", "default", "dev", "nas0_0"});
        return std::string("removed the default route over nas0_0");
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
        // The first process is on the terminal's side.
        ip({"link", "add", "nas0_0", "type", "veth", "peer", "name", "nas0_0", "netns", "1"}, true);
        ip({"link", "set", "nas0_0", "up"}, true);
        ip({"link", "set", "nas0_0", "up"});
        return std::string("made the link nas0_0 again");
    });
}

void Controls::turnFault(const Fault &fault)
{
    later([this, fault] {
        const bool on = !hasFault(board_, fault);
        setFault(board_, fault, on);
        lookUp();
        return std::string(fault.name) + (on ? " is on: " : " is off; it was: ") +
               fault.description;
    });
}

void Controls::sendSignal(int number, const std::string &name)
{
    later([this, number, name] {
        ask("signal " + signalName(number));
        return "sent SIG" + name + " to the daemon";
    });
}

void Controls::startDaemon(const std::vector<std::string> &arguments)
{
    later([this, arguments] {
        Words words{"start", "1"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        ask(toLine(words));
        return std::string("the daemon runs; ? lists the keys");
    });
}

void Controls::restartDaemon()
{
    later([this] {
        tell("restarting the daemon ...", false);
        ask("restart");
        return std::string("the daemon was restarted");
    });
}

void Controls::saveRecording(const std::string &path)
{
    later([this, path] {
        std::ofstream file(path, std::ios::trunc);
        const auto [whole, remark] = recording();
        writeVcd(whole, file);
        if (!file.flush())
            throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
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
            ask("release");
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
    Look look;
    look.process = board_.daemon();
    look.daemon = board_.daemonState();
    for (const Fault &fault : faults()) {
        if (hasFault(board_, fault))
            look.faults.push_back(fault.name);
    }
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

void Controls::ask(const std::string &what) const
{
    request(name_, what);
}

void Controls::ip(const std::vector<std::string> &arguments, bool far) const
{
    board_.require(Ability::Network);
    std::vector<std::string> command{"ip", "-6"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Result result = board_.exec(far ? board_.form().far(command) : command);
    if (result.status != 0)
        throw std::runtime_error("ip: " + firstLine(result.output));
}

int Controls::lastAddress(const std::string &prefix, const std::string &interface) const
{
    std::istringstream words(board_.exec({"ip", "-6", "addr", "show", "dev", interface}).output);
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

std::string Controls::addAddress(const std::string &prefix, const std::string &interface) const
{
    const std::string address = prefix + std::to_string(lastAddress(prefix, interface) + 1) + "/64";
    ip({"addr", "add", address, "dev", interface, "nodad"});
    return "added " + address + " to " + interface;
}

std::string Controls::removeAddress(const std::string &prefix, const std::string &interface) const
{
    const int last = lastAddress(prefix, interface);
    if (last == 0)
        throw std::runtime_error("no panel added an address to " + interface);
    const std::string address = prefix + std::to_string(last) + "/64";
    ip({"addr", "del", address, "dev", interface});
    return "removed " + address + " from " + interface;
}

std::pair<Recording, std::string> Controls::recording() const
{
    const Clock::time_point start = toTime(stateOf(name_)["start"]);
    Clock::time_point from = start;
    std::vector<Event> events;
    readEvents(name_, from, events);
    std::string remark;
    if (from > start) {
        const double seconds = std::chrono::duration<double>(from - start).count();
        remark = ", from second " + std::to_string(std::lround(seconds)) + " on";
    }
    return {makeRecording(events, Clock::now()), remark};
}

} // namespace kelo::panel
