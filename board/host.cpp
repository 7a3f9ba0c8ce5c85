#include "host.h"

#include "device.h"
#include "registry.h"

#include <algorithm>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace kelo {

namespace {

constexpr auto startDeadline = std::chrono::seconds(20);
constexpr size_t sentAhead = 1 << 18; // bytes that may wait for a client to read them

// Called on the first tick of the display, so the event loop runs and the display pipe is there.
constexpr char firstTick[] = "syscfg_getLaserInfo";

constexpr char clockLibrary[] = "/usr/lib/libfaketime.so.1";

const Answer done{Answer::Kind::Ok};

Answer failed(const std::string &why)
{
    return {Answer::Kind::Error, {}, why};
}

std::string toLine(const Event &event)
{
    return "event " + toText(event.time) + " " + kindName(event.kind) + " " + toRest(event.text) +
           "\n";
}

bool isPolling(const Event &event)
{
    return event.kind == EventKind::Call && event.text.starts_with("syscfg_get");
}

} // namespace

Host::Host(const std::string &name, const Options &options)
    : isGivenUp_([this, options] { return down_ || options.givenUp(); }), socket_(listenAs(name)),
      accepting_(base(), socket_.get(), [this] { accept(); })
{
    board_ = std::make_unique<Board>(
        Board::Options{options.form, {}, options.keptMegabytes << 20, isGivenUp_}, loop_);
    board_->whenRecorded([this] {
        lookWhetherStarted();
        feedAll();
    });
}

Host::~Host()
{
    board_.reset();
    for (Watch *const watch : {&accepting_, &pressing_, &startLimit_})
        *watch = Watch();
    socket_.reset(); // the name is free
    // Who asked for the end hears of it once it is there, and the others, that it was asked for.
    for (const Answered &answered : awaitEnd_)
        answered(done);
    for (const ClientPointer &client : clients_) {
        client->watches = false; // there is nothing more to send from
        if (down_)
            client->stream->send("event " + toText(Clock::now()) + " down \n");
    }
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(200);
    const auto isSending = [](const ClientPointer &client) {
        return client->stream->waiting() > 0;
    };
    while (std::any_of(clients_.begin(), clients_.end(), isSending) && Clock::now() < end)
        loop_->turn(end);
}

void Host::startDaemon(const std::vector<std::string> &arguments)
{
    const auto answer = std::make_shared<std::optional<Answer>>();
    start(arguments, 1, [answer](const Answer &got) { *answer = got; });
    while (!*answer && !isGivenUp_())
        turn(std::chrono::milliseconds(100));
    if (!*answer)
        throw std::runtime_error("the board ended");
    if (!(*answer)->ok())
        throw std::runtime_error((*answer)->error);
}

void Host::press(Clock::duration time, const Answered &answered)
{
    if (pressed_) {
        answered(failed("the button is being pressed"));
        return;
    }
    // Let go well before the value grows once more, which it does every second.
    const Clock::duration length = std::min<Clock::duration>(
        time, std::chrono::ceil<std::chrono::seconds>(time) - std::chrono::milliseconds(300));
    pressed_ = answered;
    pressing_ = Watch(base(), length, [this] { release([](const Answer &) {}); });
    board_->link().send({"hold", std::to_string(speed_)}, [this](const Answer &answer) {
        if (answer.ok())
            return;
        pressing_ = Watch();
        if (const Answered pressed = std::exchange(pressed_, nullptr))
            pressed(answer);
    });
}

/// Lets go of the button; whoever pressed it for a time hears of it, too.
void Host::release(const Answered &answered)
{
    pressing_ = Watch();
    const Answered pressed = std::exchange(pressed_, nullptr);
    board_->link().send({"button", "0"}, [answered, pressed](const Answer &answer) {
        answered(answer);
        if (pressed)
            pressed(answer);
    });
}

void Host::start(const std::vector<std::string> &arguments, int speed, const Answered &answered)
{
    const auto go = [=, this](const Words &environment) {
        arguments_ = arguments;
        speed_ = speed;
        launch(concat(concat(environment, {device::daemonPath}), arguments), answered);
    };
    if (speed == 1) {
        go({});
        return;
    }
    board_->link().send({"stat", clockLibrary}, [=](const Answer &answer) {
        if (answer.ok())
            go({std::string("LD_PRELOAD=") + clockLibrary,
                "FAKETIME=+0 x" + std::to_string(speed)});
        else
            answered(failed(std::string("this board's clock cannot be sped up: it has no ") +
                            clockLibrary));
    });
}

void Host::launch(const Words &command, const Answered &answered)
{
    if (starting_) {
        answered(failed("the daemon is being started"));
        return;
    }
    starting_ = answered;
    startPlace_ = board_->recorded();
    drawn_ = 0;
    mark_ = Clock::now();
    startLimit_ = Watch(base(), startDeadline, [this] { started("the daemon did not get going"); });
    board_->link().send(board_->startRequest(command), [this](const Answer &answer) {
        if (!answer.ok())
            started(answer.error);
    });
}

void Host::lookWhetherStarted()
{
    const bool detaches = std::find(arguments_.begin(), arguments_.end(), "-d") != arguments_.end();
    while (starting_) {
        const std::vector<Event> events = board_->next(startPlace_);
        if (events.empty())
            return;
        for (const Event &event : events) {
            // Platform libraries that are not the board's do not tell of calls. The LEDs are drawn
            // at the start and then at the first tick.
            if ((event.kind == EventKind::Call && event.text == firstTick) ||
                (event.kind == EventKind::Leds && ++drawn_ == 2))
                started("");
            else if (event.kind == EventKind::Exit && !(detaches && event.text == "status 0")) {
                accepted_ = Clock::now(); // this tells of it
                started("the daemon ended at once");
            }
        }
    }
}

void Host::started(const std::string &failure)
{
    const Answered answered = std::exchange(starting_, nullptr);
    if (!answered)
        return;
    startLimit_ = Watch();
    if (failure.empty()) {
        answered(done);
        return;
    }
    size_t place;
    board_->heldAt(mark_, place);
    std::string record;
    for (const Event &event : board_->next(place)) {
        if (event.kind == EventKind::Log)
            record = ": " + event.text.substr(0, event.text.find('\n'));
    }
    answered(failed(failure + record));
}

void Host::accept()
{
    Descriptor socket = acceptClient(socket_.get());
    if (!socket)
        return;
    const auto client = std::make_shared<Client>();
    const std::weak_ptr<Client> weak = client;
    client->stream = std::make_unique<Stream>(
        base(), std::move(socket), Descriptor(),
        [this, weak](const std::string &line) {
            if (const ClientPointer known = weak.lock())
                serve(known, line);
        },
        [this, weak] {
            if (const ClientPointer known = weak.lock())
                drop(known);
        });
    clients_.push_back(client);
}

void Host::drop(const ClientPointer &client)
{
    for (const unsigned long command : client->commands) {
        if (board_)
            board_->link().send({"cancel", std::to_string(command)});
    }
    client->watches = false;
    clients_.remove(client);
    // Its stream is at work right now.
    gone_.push_back(client);
    reaping_ = Watch(base(), Clock::duration::zero(), [this] { gone_.clear(); });
}

/// Passes an answer on to a client, if that is still there.
Answered Host::answering(const ClientPointer &client, const std::string &id)
{
    return [weak = std::weak_ptr<Client>(client), id](const Answer &answer) {
        const ClientPointer known = weak.lock();
        if (!known)
            return;
        const bool isLost = answer.kind == Answer::Kind::Lost;
        known->stream->send(id +
                            (answer.ok() ? " ok " + toLine(answer.words)
                                         : (isLost ? " lost " : " error ") + toRest(answer.error)) +
                            "\n");
    };
}

void Host::serve(const ClientPointer &client, const std::string &line)
{
    Words request = toWords(line);
    if (request.size() < 2)
        return;
    const std::string id = request[0];
    request.erase(request.begin());
    const std::string &verb = request[0];
    const Answered answered = answering(client, id);
    if (verb == "down") {
        awaitEnd_.push_back(answered);
        down_ = true;
    } else if (verb == "patience") {
        answered({Answer::Kind::Ok, {std::to_string(board_ ? board_->patience() : 0)}});
    } else if (verb == "state") {
        tellState(answered);
    } else if (!board_) {
        answered(failed("the board is only starting"));
    } else if (verb == "place") {
        answered({Answer::Kind::Ok, board_->form().words()});
    } else if (verb == "watch" && request.size() > 1) {
        watch(client, toTime(request[1]), answered);
    } else if (verb == "mark") {
        board_->link().send({"look"}, [this, answered](const Answer &answer) {
            mark_ = Clock::now();
            answered(answer);
        });
    } else if (verb == "accept") {
        accepted_ = Clock::now();
        answered(done);
    } else if (verb == "start" && request.size() > 1) {
        start({request.begin() + 2, request.end()}, atoi(request[1].c_str()), answered);
    } else if (verb == "restart") {
        board_->link().send({"stop"}, [this, answered](const Answer &answer) {
            if (answer.ok())
                start(arguments_, speed_, answered);
            else
                answered(answer);
        });
    } else if (verb == "press" && request.size() > 1) {
        press(toTime(request[1]).time_since_epoch(), answered);
    } else if (verb == "hold") {
        pass(client, id, {"hold", std::to_string(speed_)});
    } else if (verb == "release") {
        release(answered);
    } else {
        pass(client, id, request);
    }
}

/// Has the agent do what a client wants.
void Host::pass(const ClientPointer &client, const std::string &id, const Words &request)
{
    const bool isCommand = request[0] == "run";
    const std::weak_ptr<Client> weak = client;
    const auto command = std::make_shared<unsigned long>();
    const Answered answered = answering(client, id);
    *command = board_->link().send(
        request,
        [weak, command, answered](const Answer &answer) {
            if (const ClientPointer known = weak.lock())
                known->commands.erase(*command);
            answered(answer);
        },
        [weak, id](const std::string &text) {
            if (const ClientPointer known = weak.lock())
                known->stream->send(id + " out " + toRest(text) + "\n");
        },
        isCommand ? Clock::duration(commandLimit) : Clock::duration(requestLimit));
    if (isCommand)
        client->commands.insert(*command);
}

void Host::tellState(const Answered &answered)
{
    const Words process{"pid", std::to_string(getpid()), "start", toText(startTime_)};
    if (!board_) {
        answered({Answer::Kind::Ok, concat({"starting", "yes"}, process)});
        return;
    }
    board_->link().send({"daemon"}, [this, answered, process](const Answer &answer) {
        if (!answer.ok()) {
            answered(answer);
            return;
        }
        const bool runs = answer.words.size() > 2;
        const pid_t daemon = runs ? board_->form().outside(atoi(answer.words[0].c_str())) : 0;
        Words state =
            concat(process, {"daemon", std::to_string(daemon), "process",
                             runs ? answer.words[2] : "", "since", toText(board_->keptSince()),
                             "mark", toText(mark_), "accepted", toText(accepted_)});
        size_t end;
        for (const Event &event : board_->heldAt(Clock::time_point::max(), end)) {
            if (event.kind != EventKind::Store)
                state.insert(state.end(), {kindName(event.kind), event.text});
        }
        answered({Answer::Kind::Ok, state});
    });
}

void Host::watch(const ClientPointer &client, Clock::time_point since, const Answered &answered)
{
    for (const Event &event : board_->heldAt(since, client->place)) {
        if (!isPolling(event))
            client->stream->send(toLine(event));
    }
    client->now = board_->recorded();
    client->upToDate = answered;
    client->watches = true;
    client->stream->whenSent([this, weak = std::weak_ptr<Client>(client)] {
        if (const ClientPointer known = weak.lock())
            feed(*known);
    });
    feed(*client);
}

/// Sends a client what happened, as far as it reads it.
void Host::feed(Client &client)
{
    while (client.watches && client.stream->waiting() < sentAhead) {
        const size_t before = client.place;
        const std::vector<Event> events = board_->next(client.place);
        if (client.place - events.size() > before) {
            client.watches = false;
            client.stream->send("event " + toText(Clock::now()) + " dropped \n");
            return;
        }
        for (const Event &event : events) {
            if (!isPolling(event))
                client.stream->send(toLine(event));
        }
        if (client.upToDate && client.place >= client.now)
            std::exchange(client.upToDate, nullptr)(done);
        if (events.empty())
            return;
    }
}

void Host::feedAll()
{
    for (const ClientPointer &client : clients_)
        feed(*client);
}

} // namespace kelo
