/// What a person does to the board from the panel. Nothing here waits: what takes time is done in
/// the background, one thing after the other, and what came of it is told by message().

#pragma once

#include "recording.h"
#include "registry.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
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

class Controls {
public:
    /// Of the running board of this name. Throws BoardGone when there is none.
    explicit Controls(const std::string &name);
    ~Controls();
    Controls(const Controls &) = delete;
    Controls &operator=(const Controls &) = delete;

    void chooseMode(const std::string &keyword);

    void turnPower(const std::string &laser, double by);
    /// To the middle of the band above (1) or below (-1).
    void turnPowerToBand(const std::string &laser, int direction);
    /// To no reading, or back from it.
    void turnReading(const std::string &laser);
    void turnLink(const std::string &gpon);

    void press();
    void hold();
    void release();

    void turnTraffic() { traffic_ = !traffic_; }
    bool traffic() const { return traffic_; }

    void addWanAddress();
    void removeWanAddress();
    void addLanAddress();
    void removeLanAddress();
    void addDefaultRoute();
    void removeDefaultRoute();
    /// Deletes the WAN link, or makes it again.
    void turnWanLink();

    void sendSignal(int number, const std::string &name);
    void startDaemon(const std::vector<std::string> &arguments);
    void restartDaemon();

    void saveRecording(const std::string &path);
    void savePicture(const std::string &path);

    std::optional<Message> message() const;

    const Access &board() const { return board_; }

private:
    /// Does something in the background; it returns what to tell, or throws.
    void later(std::function<std::string()> job);
    void work();
    void moveTraffic();
    void tell(const std::string &text, bool failure);
    /// Has the program that runs the board do something.
    void ask(const std::string &what) const;
    /// Changes the board's network.
    void ip(const std::vector<std::string> &arguments) const;
    /// Addresses that a panel adds end in a number: the highest that an interface has, 0 if none.
    int lastAddress(const std::string &prefix, const std::string &interface) const;
    std::string addAddress(const std::string &prefix, const std::string &interface) const;
    std::string removeAddress(const std::string &prefix, const std::string &interface) const;
    /// What happened so far, and what to say of it beside.
    std::pair<Recording, std::string> recording() const;

    const std::string name_;
    const Access board_;
    std::string reading_ = "-18.5"; ///< before it was turned to none
    std::atomic<bool> traffic_{false};
    double trafficTime_ = 0;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<std::string()>> jobs_;
    std::optional<Message> message_;
    bool ending_ = false;
    std::thread worker_;
};

} // namespace kelo::panel
