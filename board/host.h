/// A board that this process runs under a name, and answers for until it is destroyed.

#pragma once

#include "board.h"

#include <list>
#include <memory>
#include <set>
#include <string>

namespace kelo {

class Host {
public:
    static constexpr size_t KEPT_MEGABYTES = 64; ///< of the record, unless told otherwise

    struct Options {
        size_t keptMegabytes = KEPT_MEGABYTES;
        std::string form{};                                   ///< see form.h
        std::function<bool()> givenUp = [] { return false; }; ///< ends the wait for the start
    };

    /// Throws std::runtime_error when a board of this name runs already, or as Board does.
    explicit Host(const std::string &name, const Options &options);
    explicit Host(const std::string &name) : Host(name, Options()) {}
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    const Board &board() const { return *board_; }
    Clock::time_point startTime() const { return startTime_; }
    /// An end of the daemon before this, which nobody asked for, is known and accepted.
    Clock::time_point accepted() const { return accepted_; }
    event_base *base() const { return loop_->base(); }
    /// Answers for the board until something has happened, for some time at the most.
    void turn(Clock::duration time) const { loop_->turn(Clock::now() + time); }

    /// Starts the daemon and waits until its event loop runs. Throws std::runtime_error that says
    /// why it does not.
    void startDaemon(const std::vector<std::string> &arguments);

    /// Whether somebody asked for the board's end.
    bool wantsDown() const { return down_; }

private:
    struct Client {
        std::unique_ptr<Stream> stream{};
        bool watches = false;
        size_t place = 0;                   ///< of the record, to go on from
        size_t now = 0;                     ///< what is behind this place is news
        Answered upToDate{};                ///< waits for that
        std::set<unsigned long> commands{}; ///< that it has run
    };
    using ClientPointer = std::shared_ptr<Client>;

    void accept();
    void drop(const ClientPointer &client);
    void serve(const ClientPointer &client, const std::string &line);
    void pass(const ClientPointer &client, const std::string &id, const Words &request);
    static Answered answering(const ClientPointer &client, const std::string &id);
    void tellState(const Answered &answered);
    void watch(const ClientPointer &client, Clock::time_point since, const Answered &answered);
    void feed(Client &client);
    void feedAll();

    void press(Clock::duration time, const Answered &answered);
    void release(const Answered &answered);
    void start(const std::vector<std::string> &arguments, int speed, const Answered &answered);
    void launch(const Words &command, const Answered &answered);
    void lookWhetherStarted();
    void started(const std::string &failure);

    const Clock::time_point startTime_ = Clock::now();
    const Link::LoopPointer loop_ = std::make_shared<const Loop>();
    const std::function<bool()> isGivenUp_;
    Descriptor socket_;
    std::list<ClientPointer> clients_;
    std::list<ClientPointer> gone_;
    Watch reaping_;
    Watch accepting_;
    bool down_ = false;
    std::vector<Answered> awaitEnd_; ///< of those who asked for it
    std::unique_ptr<Board> board_;   ///< none while it comes up or goes down

    std::vector<std::string> arguments_; ///< of the last start
    int speed_ = 1;
    Clock::time_point mark_ = startTime_;
    Clock::time_point accepted_{};
    Answered starting_;     ///< waits for the daemon's first tick
    size_t startPlace_ = 0; ///< of the record
    int drawn_ = 0;         ///< how often the LEDs were, since
    Watch startLimit_;
    Answered pressed_; ///< while the button is pressed for a time
    Watch pressing_;   ///< waits to let go of it
};

} // namespace kelo
