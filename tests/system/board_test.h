/// A board of its own for every system test, and words for what is to be seen on it.

#pragma once

#include "board.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <span>
#include <thread>

/// Leaves a test out, with the reason, on a form of board that does not have something.
#define NEEDS(ability)                                                                             \
    if (const std::string reason = board.form().lacks(kelo::Ability::ability); !reason.empty())    \
    GTEST_SKIP() << reason

using namespace std::chrono_literals;
using kelo::Event;
using kelo::EventKind;

class BoardTest : public testing::Test {
protected:
    /// Longer than anything takes on a busy machine; every wait ends as soon as it may.
    static constexpr auto deadline = 20s;

    // The tools that check the daemon write down what they find on the board. Leaks are left to
    // valgrind: the sanitizer looks for processes in /proc by number, where the board has none. The
    // library that sets a wall clock is loaded before the sanitizer's.
    kelo::Board board{kelo::Board::Options{
        {},
        {"ASAN_OPTIONS=log_path=/tmp/findings:detect_leaks=0:verify_asan_link_order=0",
         "UBSAN_OPTIONS=log_path=/tmp/findings"}}};

    void TearDown() override
    {
        const char *const form = getenv("KELO_BOARD");
        if (form && (form == std::string("asan") || form == std::string("valgrind")))
            expectNoFindings();
    }

    static size_t occurrences(const std::string &text, const std::string &word)
    {
        size_t result = 0;
        for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
            result++;
        return result;
    }

    /// Ends the daemon and expects that its checker found nothing, at the end either.
    void expectNoFindings()
    {
        board.stopDaemon();
        for (const std::string &name : board.list("/tmp")) {
            if (!name.starts_with("findings"))
                continue;
            const std::string text = board.read("/tmp/" + name).value_or("");
            // A child that goes on as the shell gets no further than valgrind's greeting.
            const bool onlyGreets = text.find("Memcheck") != std::string::npos &&
                                    std::count(text.begin(), text.end(), '\n') <= 6;
            EXPECT_TRUE(onlyGreets || text.find("ERROR SUMMARY: 0 errors") != std::string::npos)
                << text;
            // The pipe, the socket and the event base's three stay open, its precise timer, and
            // what it was just writing when a signal killed it.
            if (text.find("default action of signal") != std::string::npos)
                continue;
            EXPECT_LE(occurrences(text, " Open "), 5 + occurrences(text, "timerfd_create") +
                                                       occurrences(text, "<inherited from parent>"))
                << text;
        }
    }

    /// What happened before this number of events does not count for `sees` and the like.
    size_t from = 0;
    void fromNow() { from = board.mark(); }

    /// Starts the daemon and waits until it is through its start: the display has drawn.
    void start(const std::vector<std::string> &arguments = {})
    {
        fromNow();
        board.startDaemon(arguments);
        ASSERT_TRUE(draws(2));
    }

    using Events = std::span<const Event>;

    /// Waits until what has happened satisfies a condition.
    bool comes(const std::function<bool(Events)> &condition,
               kelo::Clock::duration patience = deadline)
    {
        return board.waitUntil(
            [&](Events events) { return condition(events.subspan(std::min(from, events.size()))); },
            patience);
    }

    /// The same, with what is missed and what happened instead where that never comes.
    testing::AssertionResult sees(const std::function<bool(Events)> &condition,
                                  const std::string &what)
    {
        if (comes(condition))
            return testing::AssertionSuccess();
        return listed("never saw " + what + " but:", board.events(from));
    }

    static testing::AssertionResult listed(const std::string &title, Events events)
    {
        auto failure = testing::AssertionFailure() << title;
        for (const Event &event : events)
            failure << "\n  " << kindName(event.kind) << " " << event.text;
        return failure;
    }

    /// Waits until an event of this kind satisfies the condition.
    testing::AssertionResult sees(EventKind kind,
                                  const std::function<bool(const std::string &)> &condition,
                                  const std::string &what)
    {
        return sees(
            [&](Events events) {
                return std::any_of(events.begin(), events.end(), [&](const Event &event) {
                    return event.kind == kind && condition(event.text);
                });
            },
            what);
    }

    testing::AssertionResult sees(EventKind kind, const std::string &text)
    {
        return sees(
            kind, [&](const std::string &seen) { return seen == text; },
            std::string(kindName(kind)) + " " + text);
    }

    struct Thing {
        EventKind kind;
        std::string text; ///< a part of the event's

        bool isIn(const Event &event) const
        {
            return event.kind == kind && event.text.find(text) != std::string::npos;
        }
    };

    /// Waits until these things have happened in this order, whatever else did in between.
    testing::AssertionResult happens(const std::vector<Thing> &things)
    {
        std::string missing;
        const bool all = comes([&](Events events) {
            auto next = things.begin();
            for (const Event &event : events)
                next += next != things.end() && next->isIn(event);
            missing =
                next == things.end() ? "" : std::string(kindName(next->kind)) + " " + next->text;
            return next == things.end();
        });
        return all ? testing::AssertionSuccess()
                   : listed("no " + missing + " in its place:", board.events(from));
    }

    /// Waits for the counters' next snapshot.
    testing::AssertionResult seesSnapshot() { return happens({{EventKind::Snapshot, ""}}); }

    /// Waits for a log record that contains this text.
    testing::AssertionResult logs(const std::string &text)
    {
        return happens({{EventKind::Log, text}});
    }

    /// Writes a command into the display pipe and waits until the daemon has taken it and opened
    /// the pipe again: what comes while it is closed for a moment may be lost.
    void send(const std::string &command)
    {
        fromNow();
        board.writeKeyword(command);
        ASSERT_TRUE(logs("received \"" + command.substr(0, 127)));
        ASSERT_TRUE(logs("received len: 0\n"));
        const auto end = kelo::Clock::now() + deadline;
        while (board.ask({"daemon"}).at(2) != "S") {
            ASSERT_LT(kelo::Clock::now(), end);
            std::this_thread::sleep_for(1ms);
        }
    }

    /// How many events of a kind contain a text.
    static size_t countIn(Events events, EventKind kind, const std::string &text = "")
    {
        const Thing thing{kind, text};
        return static_cast<size_t>(std::count_if(
            events.begin(), events.end(), [&](const Event &event) { return thing.isIn(event); }));
    }

    /// The same of what has happened so far.
    size_t count(EventKind kind, const std::string &text = "")
    {
        return countIn(board.events(from), kind, text);
    }

    /// Waits for this many LED frames.
    testing::AssertionResult draws(size_t frames)
    {
        return sees([=](Events events) { return countIn(events, EventKind::Leds) >= frames; },
                    std::to_string(frames) + " frames");
    }

    static std::vector<std::string> framesIn(Events events)
    {
        std::vector<std::string> result;
        for (const Event &event : events) {
            if (event.kind == EventKind::Leds)
                result.push_back(event.text);
        }
        return result;
    }

    /// The LED frames drawn, in order.
    std::vector<std::string> frames() { return framesIn(board.events(from)); }

    /// Waits until these frames were drawn one after the other.
    testing::AssertionResult plays(const std::vector<std::string> &pattern)
    {
        return sees(
            [&](Events events) {
                const std::vector<std::string> drawn = framesIn(events);
                return std::search(drawn.begin(), drawn.end(), pattern.begin(), pattern.end()) !=
                       drawn.end();
            },
            "the pattern");
    }

    /// The median time between frames drawn from now on.
    kelo::Clock::duration interval(size_t frameCount)
    {
        fromNow();
        EXPECT_TRUE(draws(frameCount + 1));
        std::vector<kelo::Clock::time_point> times;
        for (const Event &event : board.events(from)) {
            if (event.kind == EventKind::Leds)
                times.push_back(event.time);
        }
        std::vector<kelo::Clock::duration> steps;
        for (size_t i = 1; i < times.size(); i++)
            steps.push_back(times[i] - times[i - 1]);
        std::sort(steps.begin(), steps.end());
        return steps[steps.size() / 2];
    }

    /// Runs a command in the board's network and expects it to succeed.
    void ip(const std::string &arguments)
    {
        const kelo::Result result = board.exec({"sh", "-c", "ip " + arguments});
        ASSERT_EQ(0, result.status) << "ip " << arguments << ": " << result.output;
    }

    bool isFifo(const std::string &boardPath)
    {
        return board.statusOf(boardPath).starts_with("p ");
    }

    /// What the store holds; "(unset)" before it was set.
    std::string stored(const std::string &attribute)
    {
        return board.stored("Kelo_Ipv6Status", attribute).value_or("(unset)");
    }

    /// Waits until the daemon has handled all network changes so far: one more comes through. That
    /// one may be lost as well, where the socket is full of those before.
    void settle()
    {
        const auto end = kelo::Clock::now() + deadline;
        for (;;) {
            const std::string text = "New IPv4 address 192.0.2." + std::to_string(++settled_) + "/";
            ip("addr add 192.0.2." + std::to_string(settled_) + "/32 dev lo");
            const bool seen =
                comes([&](Events events) { return countIn(events, EventKind::Log, text) > 0; }, 2s);
            if (seen || testing::Test::HasFatalFailure())
                return;
            ASSERT_LT(kelo::Clock::now(), end) << "the daemon does not go on";
        }
    }

private:
    int settled_ = 0;
};
