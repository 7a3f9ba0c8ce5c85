/// A board's agent, as the program that runs the board has it.

#pragma once

#include "form.h"
#include "loop.h"

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>

namespace kelo {

/// Longest time for what the agent does at once, and for what it waits for.
constexpr auto requestLimit = std::chrono::seconds(10);
constexpr auto commandLimit = std::chrono::hours(24);

/// Gets what a command prints, as it comes.
using Printed = std::function<void(const std::string &)>;

/// What the agent answers to a request that it cannot do.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Answer {
    bool ok;
    bool refused; ///< by the agent; otherwise there was no answer
    Words words;
    std::string error;
};
using Answered = std::function<void(const Answer &)>;

/// What the agent says of itself: when, what kind, and the rest.
using Happened =
    std::function<void(Clock::time_point, const std::string &kind, const std::string &text)>;

/// An agent that this process started, and that ends with this object.
class AgentLink {
public:
    /// Starts the agent of one of the forms, the first that the machine does not refuse. Throws
    /// std::runtime_error that says what is refused and how to allow it, or when `givenUp` says so
    /// meanwhile.
    AgentLink(const Loop &loop, const std::string &form, Happened happened,
              const std::function<bool()> &givenUp);
    ~AgentLink();

    std::shared_ptr<const Form> form() const { return form_; }
    /// Sends a request and waits for its answer. Throws std::runtime_error that says why there is
    /// none.
    Words ask(const Words &request, const Printed &printed = {},
              Clock::duration limit = requestLimit);

    /// Sends a request; the answer comes later. Returns its number.
    unsigned long send(const Words &request, Answered answered, const Printed &printed = {},
                       Clock::duration limit = requestLimit);
    /// Whether the agent has ended by itself.
    bool ended() const { return ended_; }

private:
    struct Pending {
        Answered answered;
        Printed printed;
        Watch limit;
    };

    void begin();
    void finish(int patience);
    void take(const std::string &line);
    void takeEvent(const std::string &line);
    void end();
    void answer(unsigned long id, const Answer &answer);
    void compareClocks();

    const Loop &loop_;
    std::shared_ptr<Form> form_;
    Form::Agent agent_;
    Happened happened_;
    std::unique_ptr<Stream> stream_;
    std::map<unsigned long, Pending> pending_;
    unsigned long lastId_ = 0;
    std::optional<Clock::duration> offset_; ///< to the agent's clock
    bool ended_ = false;
};

} // namespace kelo
