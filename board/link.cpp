#include "link.h"

#include <cstdio>
#include <optional>
#include <utility>

namespace kelo {

std::string toText(Clock::time_point time)
{
    using std::chrono::nanoseconds;
    const long long count =
        std::chrono::duration_cast<nanoseconds>(time.time_since_epoch()).count();
    char text[40];
    snprintf(text, sizeof text, "%lld.%09lld", count / std::nano::den, count % std::nano::den);
    return text;
}

Clock::time_point toTime(const std::string &text)
{
    long long whole = 0;
    long long rest = 0;
    sscanf(text.c_str(), "%lld.%lld", &whole, &rest);
    return Clock::time_point(std::chrono::seconds(whole) + std::chrono::nanoseconds(rest));
}

Link::Link(LoopPointer loop, std::string who, Descriptor in, Descriptor out, Happened happened,
           std::function<void()> ended)
    : loop_(std::move(loop)), who_(std::move(who)), happened_(std::move(happened)),
      whenEnded_(std::move(ended)),
      stream_(
          loop_->base(), std::move(in), std::move(out),
          [this](const std::string &line) { take(line); }, [this] { end(); })
{
}

unsigned long Link::send(const Words &request, Answered answered, Printed printed,
                         Clock::duration limit)
{
    const unsigned long id = ++lastId_;
    Watch late(loop_->base(), limit, [this, id] {
        answer(id, {Answer::Kind::Lost, {}, who_ + " does not answer"});
    });
    pending_.emplace(id, Pending{std::move(answered), std::move(printed), std::move(late)});
    if (ended_)
        end();
    else
        stream_.send(std::to_string(id) + " " + toLine(request) + "\n");
    return id;
}

Words Link::ask(const Words &request, const Printed &printed, Clock::duration limit)
{
    std::optional<Answer> got;
    send(
        request, [&](const Answer &answer) { got = answer; }, printed, limit);
    while (!got)
        loop_->turn(Clock::now() + limit);
    if (got->kind == Answer::Kind::Error)
        throw Refused(got->error);
    if (!got->ok())
        throw std::runtime_error(got->error);
    return got->words;
}

void Link::take(const std::string &line)
{
    const size_t second = line.find(' ') + 1;
    const size_t third = std::min(line.find(' ', second), line.size());
    const std::string first = line.substr(0, second);
    const std::string verb = line.substr(second, third - second);
    const std::string text = line.substr(std::min(third + 1, line.size()));
    if (first == "event ") {
        const size_t rest = std::min(text.find(' '), text.size());
        if (happened_)
            happened_(toTime(verb), text.substr(0, rest),
                      unescaped(text.substr(std::min(rest + 1, text.size()))));
        return;
    }
    const unsigned long id = strtoul(first.c_str(), nullptr, 10);
    const auto pending = pending_.find(id);
    if (verb == "ok")
        answer(id, {Answer::Kind::Ok, toWords(text)});
    else if (verb == "error")
        answer(id, {Answer::Kind::Error, {}, unescaped(text)});
    else if (verb == "lost")
        answer(id, {Answer::Kind::Lost, {}, unescaped(text)});
    else if (pending != pending_.end() && pending->second.printed)
        pending->second.printed(unescaped(text));
}

void Link::answer(unsigned long id, const Answer &answer)
{
    auto found = pending_.extract(id);
    if (found && found.mapped().answered)
        found.mapped().answered(answer);
}

void Link::end()
{
    const bool isNews = !std::exchange(ended_, true);
    while (!pending_.empty())
        answer(pending_.begin()->first, {Answer::Kind::Lost, {}, who_ + " ended"});
    if (isNews && whenEnded_)
        whenEnded_();
}

} // namespace kelo
