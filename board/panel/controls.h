/// What a person does to the board from the panel. Nothing here waits: requests go out one after
/// the other, what a kelo-board command does is done by that, beside the loop, and what came of it
/// is told by message(). What no event tells of the board is looked up, too.

#pragma once

#include "access.h"
#include "faults.h"

#include <deque>
#include <list>
#include <optional>
#include <set>
#include <string>

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
    /// Of the running board of this name.
    Controls(std::string name, const Access &board);
    Controls(const Controls &) = delete;
    Controls &operator=(const Controls &) = delete;

    /// Has the board do something, and tells when it is done.
    void request(const Words &words, const std::string &done);
    /// The same by commands of kelo-board, one after the other.
    void commands(std::list<Words> all, const std::string &done);

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
    void restartDaemon();

    const std::optional<Message> &message() const { return message_; }
    const Look &look() const { return look_; }

private:
    void setPower(const std::string &dbm);
    /// Runs a command of kelo-board once those before it have ended.
    void run(const Words &words, const std::function<void(const Result &)> &ended);
    /// Finds the highest number of the addresses that a panel added; 0 if none.
    void findAddress(const Network &network, const std::function<void(int)> &found);
    /// What is done over and over.
    void tick();
    void lookUp();
    void moveTraffic();
    void movePort(int number, const std::string &counters);
    void tell(const std::string &text, bool failure = false);

    const std::string name_;
    const Access &board_;
    std::string reading_ = "-18.5"; ///< before it was turned to none
    bool traffic_ = false;
    double trafficTime_ = 0;
    unsigned ticks_ = 0;
    bool looks_ = false; ///< and has no answer yet
    std::optional<Message> message_;
    Look look_;
    std::optional<Program> program_;
    Watch late_;                                ///< ends it when it takes too long
    std::deque<std::function<void()>> waiting_; ///< to run programs after that
    Watch ticking_;
};

} // namespace kelo::panel
