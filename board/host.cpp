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

bool isPolling(const Event &event)
{
    return event.kind == EventKind::Call && event.text.starts_with("syscfg_get");
}

} // namespace

Host::Host(const std::string &name, const Options &options)
    : socket_(listenAs(name)), accepting_(loop_.base(), socket_.get(), [this] { accept(); })
{
    board_ = std::make_unique<Board>(
        Board::Options{options.form,
                       {},
                       options.keptMegabytes << 20,
                       [this, options] { return down_ || options.givenUp(); }},
        &loop_);
    board_->whenRecorded([this] {
        lookWhetherStarted();
        feedAll();
    });
}

Host::~Host()
{
    board_.reset();
    accepting_ = Watch();
    socket_.reset(); // the name is free
    // Who asked for the end hears of it once it is there, and who watched, that it was asked for.
    for (const ClientPointer &client : clients_) {
        if (client->awaitsEnd || (client->watches && down_))
            client->stream->send("ok\n");
    }
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(200);
    const auto isSending = [](const ClientPointer &client) {
        return client->stream->waiting() > 0;
    };
    while (std::any_of(clients_.begin(), clients_.end(), isSending) && Clock::now() < end)
        loop_.turn(end);
}

void Host::startDaemon(const std::vector<std::string> &arguments, int speed)
{
    std::optional<std::string> failure;
    start(arguments, speed, [&](const std::string &text) { failure = text; });
    while (!failure)
        turn(startDeadline);
    if (!failure->empty())
        throw std::runtime_error(*failure);
}

void Host::start(const std::vector<std::string> &arguments, int speed, const Done &done)
{
    const auto go = [=, this](const Words &environment) {
        arguments_ = arguments;
        speed_ = speed;
        launch(concat(concat(environment, {device::daemonPath}), arguments), done);
    };
    if (speed == 1) {
        go({});
        return;
    }
    board_->agent().send({"stat", clockLibrary}, [=](const Answer &answer) {
        if (answer.ok)
            go({std::string("LD_PRELOAD=") + clockLibrary,
                "FAKETIME=+0 x" + std::to_string(speed)});
        else
            done(std::string("this board's clock cannot be sped up: it has no ") + clockLibrary);
    });
}

void Host::launch(const Words &command, const Done &done)
{
    if (starting_) {
        done("the daemon is being started");
        return;
    }
    starting_ = done;
    startPlace_ = board_->recorded();
    drawn_ = 0;
    mark_ = Clock::now();
    startLimit_ =
        Watch(loop_.base(), startDeadline, [this] { started("the daemon did not get going"); });
    board_->agent().send(board_->startRequest(command), [this](const Answer &answer) {
        if (!answer.ok)
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
    const Done done = std::exchange(starting_, nullptr);
    if (!done)
        return;
    startLimit_ = Watch();
    std::string text = failure;
    size_t place;
    board_->heldAt(mark_, place);
    if (!failure.empty()) {
        std::string record;
        for (const Event &event : board_->next(place)) {
            if (event.kind == EventKind::Log)
                record = ": " + event.text.substr(0, event.text.find('\n'));
        }
        text += record;
    }
    done(text);
}

void Host::accept()
{
    Descriptor socket = acceptClient(socket_.get());
    if (!socket)
        return;
    const auto client = std::make_shared<Client>();
    const std::weak_ptr<Client> weak = client;
    client->stream = std::make_unique<Stream>(
        loop_.base(), std::move(socket), Descriptor(),
        [this, weak](const std::string &line) {
            if (const ClientPointer known = weak.lock())
                serve(known, toWords(line));
        },
        [this, weak] {
            if (const ClientPointer known = weak.lock())
                drop(known);
        });
    clients_.push_back(client);
}

void Host::drop(const ClientPointer &client)
{
    if (client->command && board_)
        board_->agent().send({"cancel", std::to_string(client->command)}, [](const Answer &) {});
    client->watches = false;
    clients_.remove(client);
    // Its stream is at work right now.
    gone_.push_back(client);
    reaping_ = Watch(loop_.base(), Clock::duration::zero(), [this] { gone_.clear(); });
}

/// Tells a client, if it is still there, how its request ended.
Host::Done Host::answering(const ClientPointer &client)
{
    return [weak = std::weak_ptr<Client>(client)](const std::string &failure) {
        if (const ClientPointer known = weak.lock())
            known->stream->send(failure.empty() ? "ok\n" : "error " + toRest(failure) + "\n");
    };
}

void Host::serve(const ClientPointer &client, const Words &request)
{
    const std::string verb = request.empty() ? "" : request[0];
    const Done done = answering(client);
    if (verb == "down") {
        client->awaitsEnd = true;
        down_ = true;
    } else if (verb == "state") {
        tellState(client);
    } else if (!board_) {
        done("the board is only starting");
    } else if (verb == "place") {
        client->stream->send("ok " + toLine(board_->form().words()) + "\n");
    } else if (verb == "watch" && request.size() > 1) {
        watch(client, toTime(request[1]));
    } else if (verb == "mark") {
        board_->agent().send({"look"}, [this, done](const Answer &answer) {
            mark_ = Clock::now();
            done(answer.error);
        });
    } else if (verb == "accept") {
        accepted_ = Clock::now();
        done("");
    } else if (verb == "start" && request.size() > 1) {
        start({request.begin() + 2, request.end()}, atoi(request[1].c_str()), done);
    } else if (verb == "restart") {
        board_->agent().send({"stop"}, [this, done](const Answer &answer) {
            if (answer.ok)
                start(arguments_, speed_, done);
            else
                done(answer.error);
        });
    } else if (verb == "hold") {
        pass(client, {"hold", std::to_string(speed_)});
    } else if (verb == "release") {
        pass(client, {"button", "0"});
    } else {
        pass(client, request);
    }
}

/// Has the agent do what a client wants.
void Host::pass(const ClientPointer &client, const Words &request)
{
    const std::weak_ptr<Client> weak = client;
    const bool isCommand = !request.empty() && request[0] == "run";
    const unsigned long id = board_->agent().send(
        request,
        [weak](const Answer &answer) {
            const ClientPointer known = weak.lock();
            if (!known)
                return;
            known->command = 0;
            const char *const verb = answer.refused ? "refused " : "error ";
            known->stream->send(answer.ok ? "ok " + toLine(answer.words) + "\n"
                                          : verb + toRest(answer.error) + "\n");
        },
        [weak](const std::string &text) {
            if (const ClientPointer known = weak.lock())
                known->stream->send("out " + toRest(text) + "\n");
        },
        isCommand ? Clock::duration(commandLimit) : Clock::duration(requestLimit));
    client->command = isCommand ? id : 0;
}

void Host::tellState(const ClientPointer &client)
{
    const Words process{"pid", std::to_string(getpid()), "start", toText(startTime_)};
    if (!board_) {
        client->stream->send("ok starting yes " + toLine(process) + "\n");
        return;
    }
    const std::weak_ptr<Client> weak = client;
    board_->agent().send({"daemon"}, [this, weak, process](const Answer &answer) {
        const ClientPointer known = weak.lock();
        if (!known)
            return;
        if (!answer.ok) {
            known->stream->send("error " + toRest(answer.error) + "\n");
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
        known->stream->send("ok " + toLine(state) + "\n");
    });
}

void Host::watch(const ClientPointer &client, Clock::time_point since)
{
    std::string text;
    for (const Event &event : board_->heldAt(since, client->place)) {
        if (!isPolling(event))
            text += toLine(event) + "\n";
    }
    client->stream->send(text);
    client->now = board_->recorded();
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
            client.stream->send("error the record was dropped before it was read\n");
            return;
        }
        std::string text;
        for (const Event &event : events) {
            if (!isPolling(event))
                text += toLine(event) + "\n";
        }
        if (!client.knowsNow && client.place >= client.now) {
            text += "now\n";
            client.knowsNow = true;
        }
        if (!text.empty())
            client.stream->send(text);
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
