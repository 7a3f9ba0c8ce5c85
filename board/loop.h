/// The one loop of a program that runs boards or talks to them, on libevent.

#pragma once

#include "process.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

struct bufferevent;
struct event;
struct event_base;

namespace kelo {

using Clock = std::chrono::steady_clock;

struct Free {
    void operator()(event_base *base) const;
    void operator()(event *event) const;
    void operator()(bufferevent *stream) const;
};

/// Calls back when a descriptor is readable, a time has come or a signal comes.
class Watch {
public:
    Watch() = default;
    /// Whenever the descriptor is readable.
    Watch(event_base *base, int descriptor, std::function<void()> action);
    /// Once, after a time.
    Watch(event_base *base, Clock::duration time, std::function<void()> action);

    /// Whenever the signal comes; of one loop in a program only.
    static Watch onSignal(event_base *base, int number, std::function<void()> action);

private:
    Watch(event_base *base, int source, short flags, std::function<void()> action);

    std::unique_ptr<std::function<void()>> action_;
    std::unique_ptr<event, Free> event_;
};

class Loop {
public:
    Loop();
    event_base *base() const { return base_.get(); }
    /// Waits until something happens, a time at the latest, and handles it.
    void turn(Clock::time_point until) const;

private:
    std::unique_ptr<event_base, Free> base_;
    std::unique_ptr<event, Free> alarm_;
};

/// A program that runs beside the loop, apart from the terminal and with nothing to read.
class Program {
public:
    /// `ended` gets its exit status and all that it printed, and may destroy this. Throws
    /// std::system_error when it cannot be started.
    Program(event_base *base, const std::vector<std::string> &command,
            std::function<void(const Result &)> ended);
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    /// Kills it, with all that it started, and waits for its end; `ended` is not called.
    void kill();

private:
    void read();

    std::function<void(const Result &)> ended_;
    Pipe output_;
    pid_t process_;
    std::string text_;
    Watch readable_;
};

/// A stream of lines over a descriptor to read and one to write, which may be the same.
class Stream {
public:
    /// `line` gets every line, without its end; `end` is called once when there will be no more.
    Stream(event_base *base, Descriptor in, Descriptor out,
           std::function<void(const std::string &)> line, std::function<void()> end);
    ~Stream();

    void send(const std::string &text);
    /// Bytes that wait to be sent.
    size_t waiting() const;
    /// Calls back whenever all has been sent.
    void whenSent(std::function<void()> sent) { sent_ = std::move(sent); }

private:
    std::function<void(const std::string &)> line_;
    std::function<void()> end_;
    std::function<void()> sent_;
    Descriptor input_;
    Descriptor output_;
    std::unique_ptr<bufferevent, Free> in_;
    std::unique_ptr<bufferevent, Free> out_; ///< none where it is the one to read
    bufferevent *writer_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace kelo
