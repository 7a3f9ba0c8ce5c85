#include "loop.h"

#include <algorithm>
#include <csignal>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace kelo {

namespace {

timeval toTimeval(Clock::duration duration)
{
    const auto left =
        std::max<long long>(0, std::chrono::ceil<std::chrono::microseconds>(duration).count());
    return {left / 1000000, left % 1000000};
}

void call(evutil_socket_t, short, void *action)
{
    // A copy: the action may end its watch.
    const auto copy = *static_cast<std::function<void()> *>(action);
    copy();
}

} // namespace

void Free::operator()(event_base *base) const
{
    event_base_free(base);
}

void Free::operator()(event *event) const
{
    event_free(event);
}

void Free::operator()(bufferevent *stream) const
{
    bufferevent_free(stream);
}

Watch::Watch(event_base *base, int source, short flags, std::function<void()> action)
    : action_(std::make_unique<std::function<void()>>(std::move(action))),
      event_(event_new(base, source, flags, call, action_.get()))
{
    event_add(event_.get(), nullptr);
}

Watch::Watch(event_base *base, int descriptor, std::function<void()> action)
    : Watch(base, descriptor, EV_READ | EV_PERSIST, std::move(action))
{
}

Watch Watch::onSignal(event_base *base, int number, std::function<void()> action)
{
    return {base, number, EV_SIGNAL | EV_PERSIST, std::move(action)};
}

Watch::Watch(event_base *base, Clock::duration time, std::function<void()> action)
    : action_(std::make_unique<std::function<void()>>(std::move(action))),
      event_(evtimer_new(base, call, action_.get()))
{
    const timeval wait = toTimeval(time);
    event_add(event_.get(), &wait);
}

Loop::Loop() : base_(event_base_new())
{
    if (!base_)
        throw std::bad_alloc();
    signal(SIGPIPE, SIG_IGN); // who went away is told by the write
    alarm_.reset(evtimer_new(
        base_.get(), [](evutil_socket_t, short, void *) {}, nullptr));
}

void Loop::turn(Clock::time_point until) const
{
    const auto left = until - Clock::now();
    const bool mayWait = left > Clock::duration::zero();
    const timeval wait = toTimeval(std::min<Clock::duration>(left, std::chrono::hours(1)));
    if (mayWait)
        event_add(alarm_.get(), &wait);
    if (event_base_loop(base_.get(), EVLOOP_ONCE | (mayWait ? 0 : EVLOOP_NONBLOCK)) < 0)
        throw std::logic_error("the loop was turned from within");
    event_del(alarm_.get());
}

Program::Program(event_base *base, const std::vector<std::string> &command,
                 std::function<void(const Result &)> ended)
    : ended_(std::move(ended)), output_(makePipe())
{
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    process_ = spawnApart(command, {nothing.get(), output_.write.get(), output_.write.get()});
    output_.write.reset();
    readable_ = Watch(base, output_.read.get(), [this] { read(); });
}

void Program::read()
{
    char text[4096];
    const ssize_t length = ::read(output_.read.get(), text, sizeof text);
    if (length > 0) {
        text_.append(text, static_cast<size_t>(length));
        return;
    }
    readable_ = Watch();
    const auto ended = std::move(ended_);
    const Result result{waitFor(process_), std::move(text_)};
    ended(result);
}

void Program::kill()
{
    readable_ = Watch();
    ::kill(-process_, SIGKILL);
    waitFor(process_);
}

Stream::Stream(event_base *base, Descriptor in, Descriptor out,
               std::function<void(const std::string &)> line, std::function<void()> end)
    : line_(std::move(line)), end_(std::move(end)), input_(std::move(in)), output_(std::move(out))
{
    const auto onRead = [](bufferevent *stream, void *argument) {
        auto *const self = static_cast<Stream *>(argument);
        const std::shared_ptr<bool> alive = self->alive_;
        while (*alive) {
            size_t length;
            char *const text =
                evbuffer_readln(bufferevent_get_input(stream), &length, EVBUFFER_EOL_LF);
            if (!text)
                return;
            const std::string copy(text, length);
            free(text);
            self->line_(copy);
        }
    };
    const auto onSent = [](bufferevent *, void *argument) {
        if (const auto action = static_cast<Stream *>(argument)->sent_)
            action();
    };
    const auto onEnd = [](bufferevent *, short, void *argument) {
        if (const auto action = std::exchange(static_cast<Stream *>(argument)->end_, nullptr))
            action();
    };
    evutil_make_socket_nonblocking(input_.get());
    in_.reset(bufferevent_socket_new(base, input_.get(), 0));
    writer_ = in_.get();
    if (output_) {
        evutil_make_socket_nonblocking(output_.get());
        out_.reset(bufferevent_socket_new(base, output_.get(), 0));
        writer_ = out_.get();
        bufferevent_setcb(writer_, nullptr, onSent, onEnd, this);
    }
    bufferevent_setcb(in_.get(), onRead, onSent, onEnd, this);
    bufferevent_enable(in_.get(), EV_READ);
}

Stream::~Stream()
{
    *alive_ = false;
}

void Stream::send(const std::string &text)
{
    evbuffer_add(bufferevent_get_output(writer_), text.data(), text.size());
}

size_t Stream::waiting() const
{
    return evbuffer_get_length(bufferevent_get_output(writer_));
}

} // namespace kelo
