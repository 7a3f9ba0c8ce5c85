#include "link.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kelo {

namespace {

constexpr auto startLimit = std::chrono::seconds(60);
constexpr int clockTries = 20;

constexpr char endedText[] = "the board ended";

Clock::duration toDuration(const std::string &seconds)
{
    long long whole = 0;
    long long rest = 0;
    sscanf(seconds.c_str(), "%lld.%lld", &whole, &rest);
    return std::chrono::seconds(whole) + std::chrono::nanoseconds(rest);
}

} // namespace

AgentLink::AgentLink(const Loop &loop, const std::string &form, Happened happened,
                     const std::function<bool()> &givenUp)
    : loop_(loop), happened_(std::move(happened))
{
    std::vector<std::unique_ptr<Form>> forms = Form::named(form);
    for (size_t i = 0; i < forms.size(); i++) {
        form_ = std::move(forms[i]);
        begin();
        bool known = false;
        send(
            {"clock"}, [&](const Answer &answer) { known = answer.ok; }, {}, startLimit);
        while (!pending_.empty() && !givenUp())
            loop_.turn(Clock::now() + std::chrono::milliseconds(100));
        if (known) {
            compareClocks();
            return;
        }
        const bool late = !ended_;
        stream_.reset();
        finish(late ? 0 : agent_.patience);
        pending_.clear();
        fcntl(agent_.complaints.get(), F_SETFL, O_NONBLOCK);
        std::string complaint = readAll(agent_.complaints.get());
        while (complaint.ends_with('\n'))
            complaint.pop_back();
        if (givenUp())
            throw std::runtime_error(endedText);
        const bool refused = complaint.find("unshare:") != std::string::npos;
        if (refused)
            complaint += "\n" + namespaceAdvice();
        if (!refused || i + 1 == forms.size())
            throw std::runtime_error(!complaint.empty() ? complaint
                                     : late             ? "the board does not start"
                                                        : "the board ended as it started");
        if (!forms[i + 1]->lacks(Ability::Network).empty())
            fprintf(stderr,
                    "%s\ngoing on without: in a plain chroot, on this machine's network, which is "
                    "listened to but not changed\n",
                    complaint.c_str());
    }
}

AgentLink::~AgentLink()
{
    stream_.reset(); // ends the agent, and with it everything of the board
    form_.reset();
    finish(agent_.patience);
}

void AgentLink::finish(int patience)
{
    makeEnd(endOf(agent_.process), patience);
    waitpid(agent_.process, nullptr, WNOHANG);
}

void AgentLink::begin()
{
    ended_ = false;
    agent_ = form_->start();
    stream_ = std::make_unique<Stream>(
        loop_.base(), std::move(agent_.out), std::move(agent_.in),
        [this](const std::string &line) { take(line); }, [this] { end(); });
}

/// Finds out how far the agent's clock is from this one: the shortest of some exchanges tells best.
void AgentLink::compareClocks()
{
    Clock::duration shortest = Clock::duration::max();
    for (int i = 0; i < clockTries; i++) {
        const Clock::time_point before = Clock::now();
        const Clock::duration there = toDuration(ask({"clock"}).at(0));
        const Clock::duration length = Clock::now() - before;
        if (length >= shortest)
            continue;
        shortest = length;
        offset_ = before.time_since_epoch() + length / 2 - there;
        // As good as equal is the same clock.
        if (std::chrono::abs(*offset_) <= length) {
            offset_ = Clock::duration::zero();
            return;
        }
    }
}

unsigned long AgentLink::send(const Words &request, Answered answered, const Printed &printed,
                              Clock::duration limit)
{
    const unsigned long id = ++lastId_;
    Watch late(loop_.base(), limit, [this, id] {
        answer(id, {false, false, {}, "the board does not answer"});
    });
    pending_.emplace(id, Pending{std::move(answered), printed, std::move(late)});
    if (ended_)
        answer(id, {false, false, {}, endedText});
    else
        stream_->send(std::to_string(id) + " " + toLine(request) + "\n");
    return id;
}

Words AgentLink::ask(const Words &request, const Printed &printed, Clock::duration limit)
{
    std::optional<Answer> got;
    send(
        request, [&](const Answer &answer) { got = answer; }, printed, limit);
    while (!got)
        loop_.turn(Clock::now() + limit);
    if (got->refused)
        throw Refused(got->error);
    if (!got->ok)
        throw std::runtime_error(got->error);
    return got->words;
}

void AgentLink::take(const std::string &line)
{
    const size_t space = line.find(' ');
    if (line.starts_with("event ")) {
        takeEvent(line.substr(space + 1));
        return;
    }
    const size_t rest = std::min(line.find(' ', space + 1), line.size());
    if (space == std::string::npos)
        return;
    const unsigned long id = strtoul(line.c_str(), nullptr, 10);
    const std::string verb = line.substr(space + 1, rest - space - 1);
    const std::string text = line.substr(std::min(rest + 1, line.size()));
    if (verb == "out") {
        const auto pending = pending_.find(id);
        if (pending != pending_.end() && pending->second.printed)
            pending->second.printed(unescaped(text));
    } else if (verb == "ok") {
        answer(id, {true, false, toWords(text), {}});
    } else {
        answer(id, {false, true, {}, unescaped(text)});
    }
}

void AgentLink::takeEvent(const std::string &line)
{
    const size_t kind = line.find(' ') + 1;
    const size_t text = std::min(line.find(' ', kind) + 1, line.size());
    const Clock::time_point time =
        offset_ ? Clock::time_point(toDuration(line) + *offset_) : Clock::now();
    happened_(time, line.substr(kind, text - 1 - kind), unescaped(line.substr(text)));
}

void AgentLink::answer(unsigned long id, const Answer &answer)
{
    const auto found = pending_.find(id);
    if (found == pending_.end())
        return;
    const Pending pending = std::move(found->second);
    pending_.erase(found);
    pending.answered(answer);
}

void AgentLink::end()
{
    ended_ = true;
    while (!pending_.empty())
        answer(pending_.begin()->first, {false, false, {}, endedText});
}

} // namespace kelo
