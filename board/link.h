/// The line protocol of agent/wire.h as the side has it that asks: the program that runs a board
/// asks its agent, and other programs ask that program.

#pragma once

#include "loop.h"
#include "words.h"

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace kelo {

/// Longest time for what is done at once, for what waits for the daemon, and for a command.
constexpr auto requestLimit = std::chrono::seconds(10);
constexpr auto startLimit = std::chrono::seconds(25);
constexpr auto commandLimit = std::chrono::hours(24);

/// What the other side answers to a request that it cannot do.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Answer {
    enum class Kind {
        Ok,    ///< done
        Error, ///< the other side cannot do it
        Lost   ///< there was no answer
    };
    Kind kind;
    Words words{};
    std::string error{}; ///< why not

    bool ok() const { return kind == Kind::Ok; }
};
using Answered = std::function<void(const Answer &)>;

/// Gets what a command prints, as it comes.
using Printed = std::function<void(const std::string &)>;

/// What the other side says of itself: when, what kind, and the rest.
using Happened =
    std::function<void(Clock::time_point, const std::string &kind, const std::string &text)>;

/// A time as the protocol has it, "SECONDS.NANOSECONDS".
std::string toText(Clock::time_point time);
Clock::time_point toTime(const std::string &text);

class Link {
public:
    using LoopPointer = std::shared_ptr<const Loop>;

    /// Over a descriptor to read and one to write, which may be none where both are one. `who` is
    /// at the other end, "the board"; `ended` is called when it is no more.
    Link(LoopPointer loop, std::string who, Descriptor in, Descriptor out, Happened happened = {},
         std::function<void()> ended = {});

    /// Sends a request; the answer comes later, if only that there is none. Returns its number.
    unsigned long send(const Words &request, Answered answered = {}, Printed printed = {},
                       Clock::duration limit = requestLimit);
    /// Sends a request and turns the loop until its answer is there; not for callbacks. Throws
    /// Refused, or std::runtime_error that says why there is no answer.
    Words ask(const Words &request, const Printed &printed = {},
              Clock::duration limit = requestLimit);

    bool ended() const { return ended_; }
    const Loop &loop() const { return *loop_; }

private:
    struct Pending {
        Answered answered;
        Printed printed;
        Watch limit;
    };

    void take(const std::string &line);
    void answer(unsigned long id, const Answer &answer);
    void end();

    LoopPointer loop_;
    std::string who_;
    Happened happened_;
    std::function<void()> whenEnded_;
    std::map<unsigned long, Pending> pending_;
    unsigned long lastId_ = 0;
    bool ended_ = false;
    Stream stream_;
};

} // namespace kelo
