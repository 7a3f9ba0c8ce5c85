/// What a person does to the board from the panel. Nothing here waits: what takes time is done in
/// the background, one thing after the other, and what came of it is told by message(). What no
/// event tells of the board is looked up there, too.

#pragma once

#include "faults.h"
#include "recording.h"
#include "registry.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kelo::panel {

struct Message {
    std::string text;
    bool failure = false;
    Clock::time_point time;
};

/// Where addresses are added.
struct Network {
    const char *interface;
    const char *prefix; ///< before a number
};
constexpr Network wan{"nas0_0", "2001:db8::"};
constexpr Network lan{"br0", "2001:db8:1::"};

/// What no event tells.
struct Look {
    std::string daemon; ///< its state; empty before the first look
    std::optional<pid_t> process;
    std::set<std::string> faults; ///< those that are on
};

class Controls {
public:
    /// Of the running board of this name. Throws BoardGone when there is none.
    explicit Controls(const std::string &name);
    ~Controls();
    Controls(const Controls &) = delete;
    Controls &operator=(const Controls &) = delete;

    /// Has the board do something, and tells when it is done.
    void request(const Words &words, const std::string &done);
    /// The same by ip -6.
    void changeNetwork(const Words &arguments, const std::string &done);

    void turnPower(const std::string &laser, double by);
    /// To the middle of the band above (1) or below (-1).
    void turnPowerToBand(const std::string &laser, int direction);
    /// To no reading, or back from it.
    void turnReading(const std::string &laser);
    void turnLink(const std::string &gpon);

    void press();

    void turnTraffic() { traffic_ = !traffic_; }
    bool traffic() const { return traffic_; }

    void addAddress(const Network &network);
    void removeAddress(const Network &network);
    /// Deletes the WAN link, or makes it again.
    void turnWanLink();

    void turnFault(const Fault &fault);

    void startDaemon(const std::vector<std::string> &arguments);
    void restartDaemon();

    void saveRecording(const std::string &path);
    void savePicture(const std::string &path);

    std::optional<Message> message() const;
    Look look() const;

private:
    void setPower(const std::string &dbm);
    /// Does something in the background, now or after a while; it returns what to tell, if
    /// anything, or throws.
    void later(std::function<std::string()> job, Clock::duration delay = Clock::duration::zero());
    void work();
    /// What is done over and over.
    std::string tick();
    void moveTraffic();
    void lookUp();
    void tell(const std::string &text, bool failure);
    /// Has the program that runs the board do something.
    void ask(const Words &words) const;
    /// Changes the board's network.
    void ip(const Words &arguments, bool far = false) const;
    /// The highest number of the addresses that a panel added; 0 if none.
    int lastAddress(const Network &network) const;
    /// What happened so far, and what to say of it beside.
    std::pair<Recording, std::string> recording() const;

    const std::string name_;
    const Access board_;
    std::string reading_ = "-18.5"; ///< before it was turned to none
    std::atomic<bool> traffic_{false};
    double trafficTime_ = 0;
    unsigned ticks_ = 0;
    bool pressing_ = false; ///< a job that lets go of the button is to come

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, std::function<std::string()>> jobs_; ///< by when they are due
    std::optional<Message> message_;
    Look look_;
    bool ending_ = false;
    std::thread worker_;
};

} // namespace kelo::panel
