/// A board that this process runs under a name, and answers for until it is destroyed.

#pragma once

#include "board.h"
#include "button.h"

#include <atomic>
#include <list>
#include <string>
#include <thread>

namespace kelo {

class Host {
public:
    static constexpr size_t KEPT_MEGABYTES = 64; ///< of the record, unless told otherwise

    /// Throws std::runtime_error when a board of this name runs already, or as Board does.
    explicit Host(const std::string &name, size_t keptMegabytes = KEPT_MEGABYTES);
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    const Board &board() const { return board_; }
    Clock::time_point startTime() const { return startTime_; }
    /// An end of the daemon before this, which nobody asked for, is known and accepted.
    Clock::time_point accepted() const { return accepted_; }

    /// Starts the daemon, whose clock runs at a multiple of the real one, and waits until its event
    /// loop runs. Throws std::runtime_error that says why it does not.
    void startDaemon(const std::vector<std::string> &arguments, int speed = 1);
    /// Ends the daemon, if it runs.
    void stopDaemon();
    /// Both, with the arguments of the last start.
    void restartDaemon();

    /// Whether somebody asked for the board's end.
    bool wantsDown() const { return down_; }

private:
    struct Client {
        Descriptor socket;
        bool awaitsEnd = false; ///< asked for the board's end, and hears of it by the socket's
        std::atomic<bool> done{false};
        std::thread thread{};
    };

    void start(const std::vector<std::string> &arguments, int speed);
    std::vector<std::string> fastClock(int speed) const;
    void acceptLoop();
    void serve(Client &client);
    void answer(Client &client, const std::string &request);
    void watch(const Client &client, Clock::time_point since) const;
    std::string state() const;

    const Clock::time_point startTime_ = Clock::now();
    Descriptor socket_;
    std::list<Client> clients_;
    Board board_;
    ResetButton button_;
    std::mutex daemonMutex_;
    std::vector<std::string> arguments_;
    int speed_ = 1;
    std::atomic<Clock::time_point> mark_{Clock::now()};
    std::atomic<Clock::time_point> accepted_{Clock::time_point()};
    std::atomic<bool> down_{false};
    std::atomic<bool> ending_{false};
    Pipe end_;
    std::thread acceptor_;
};

} // namespace kelo
