#include "controls.h"

#include "plot.h"
#include "recording.h"
#include "state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kelo::panel {

namespace {

constexpr auto trafficStep = std::chrono::milliseconds(250);
constexpr auto pressTime = std::chrono::milliseconds(1300); // the daemon looks once a second
constexpr int GPON_UP = 5;
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

std::string wanAddress(int number)
{
    return "2001:db8::" + std::to_string(number) + "/64";
}

std::string lanAddress(int number)
{
    return "2001:db8:1::" + std::to_string(number) + "/64";
}

std::string firstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

} // namespace

Controls::Controls(Host &host) : host_(host), board_(host.board()), worker_(&Controls::work, this)
{
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
    const int next = atoi(gpon.c_str()) == GPON_UP ? GPON_DOWN : GPON_UP;
    later([this, next] {
        board_.setGpon(next);
        return "GPON state is " + std::to_string(next);
    });
}

void Controls::press()
{
    later([this] {
        host_.button().hold();
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, pressTime, [this] { return ending_; });
        lock.unlock();
        host_.button().release();
        return std::string("pressed the reset button and let go of it");
    });
}

void Controls::hold()
{
    later([this] {
        host_.button().hold();
        return std::string("holding the reset button; r lets go of it");
    });
}

void Controls::release()
{
    later([this] {
        host_.button().release();
        return std::string("let go of the reset button");
    });
}

void Controls::addWanAddress()
{
    later([this] {
        const std::string address = wanAddress(wanAddresses_ + 1);
        ip({"addr", "add", address, "dev", "nas0_0", "nodad"});
        wanAddresses_++;
        return "added " + address + " to nas0_0";
    });
}

void Controls::removeWanAddress()
{
    later([this] {
        if (wanAddresses_ == 0)
            throw std::runtime_error("the panel added no address to nas0_0");
        const std::string address = wanAddress(wanAddresses_--);
        ip({"addr", "del", address, "dev", "nas0_0"});
        return "removed " + address + " from nas0_0";
    });
}

void Controls::addLanAddress()
{
    later([this] {
        const std::string address = lanAddress(lanAddresses_ + 1);
        ip({"addr", "add", address, "dev", "br0", "nodad"});
        lanAddresses_++;
        return "added " + address + " to br0";
    });
}

void Controls::removeLanAddress()
{
    later([this] {
        if (lanAddresses_ == 0)
            throw std::runtime_error("the panel added no address to br0");
        const std::string address = lanAddress(lanAddresses_--);
        ip({"addr", "del", address, "dev", "br0"});
        return "removed " + address + " from br0";
    });
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
            wanAddresses_ = 0;
            return std::string("deleted the link nas0_0");
        }
        ip({"link", "add", "nas0_0", "type", "veth", "peer", "name", "nas0_0_end"});
        ip({"link", "set", "nas0_0_end", "up"});
        ip({"link", "set", "nas0_0", "up"});
        return std::string("made the link nas0_0 again");
    });
}

void Controls::sendSignal(int number, const std::string &name)
{
    later([this, number, name] {
        if (!board_.signalDaemon(number))
            throw std::runtime_error("the daemon does not run; R starts it");
        return "sent SIG" + name + " to the daemon";
    });
}

void Controls::startDaemon(const std::vector<std::string> &arguments)
{
    later([this, arguments] {
        host_.startDaemon(arguments);
        return std::string("the daemon runs; ? lists the keys");
    });
}

void Controls::restartDaemon()
{
    later([this] {
        tell("restarting the daemon ...", false);
        host_.restartDaemon();
        return std::string("the daemon was restarted");
    });
}

void Controls::saveRecording(const std::string &path)
{
    later([this, path] {
        std::ofstream file(path, std::ios::trunc);
        writeVcd(makeRecording(board_.events(), Clock::now()), file);
        if (!file.flush())
            throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
        return "saved the recording in " + path;
    });
}

void Controls::savePicture(const std::string &path)
{
    later([this, path] {
        const Recording recording = makeRecording(board_.events(), Clock::now());
        kelo::savePicture(plot(recording, 0, recording.length), path);
        return "saved a picture of the recording in " + path;
    });
}

std::optional<Message> Controls::message() const
{
    const std::lock_guard lock(mutex_);
    return message_;
}

void Controls::later(std::function<std::string()> job)
{
    {
        const std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    changed_.notify_all();
}

void Controls::work()
{
    Clock::time_point nextTraffic = Clock::now();
    std::unique_lock lock(mutex_);
    while (!ending_) {
        changed_.wait_until(lock, nextTraffic, [this] { return ending_ || !jobs_.empty(); });
        if (ending_)
            return;
        std::function<std::string()> job;
        if (!jobs_.empty()) {
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        lock.unlock();
        try {
            if (job)
                tell(job(), false);
            if (Clock::now() >= nextTraffic) {
                nextTraffic = Clock::now() + trafficStep;
                if (traffic_)
                    moveTraffic();
            }
        } catch (const std::exception &error) {
            tell(firstLine(error.what()), true);
        }
        lock.lock();
    }
}

/// Goes on from whatever the counters hold; a port that cannot be read stays so.
void Controls::moveTraffic()
{
    const double step = std::chrono::duration<double>(trafficStep).count();
    trafficTime_ += step;
    for (size_t port = 0; port < busiest.size(); port++) {
        const int number = static_cast<int>(port) + 1;
        unsigned long long in;
        unsigned long long out;
        const std::string file = readFile(board_.path("/board/ports/" + std::to_string(number)));
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

void Controls::ip(const std::vector<std::string> &arguments) const
{
    if (!board_.place().isolated)
        throw std::runtime_error("this board is on the machine's network, which stays as it is");
    std::vector<std::string> command{"ip", "-6"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Result result = board_.exec(command);
    if (result.status != 0)
        throw std::runtime_error("ip: " + firstLine(result.output));
}

} // namespace kelo::panel
