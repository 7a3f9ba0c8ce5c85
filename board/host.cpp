#include "host.h"

#include "registry.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace kelo {

namespace {

constexpr auto startDeadline = std::chrono::seconds(20);

// Called on the first tick of the display, so the event loop runs and the display pipe is there.
constexpr char firstTick[] = "syscfg_getLaserInfo";

bool isPolling(const Event &event)
{
    return event.kind == EventKind::Call && event.text.starts_with("syscfg_get");
}

bool sendText(int socket, const std::string &text)
{
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t length = send(socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (length <= 0)
            return false;
        sent += static_cast<size_t>(length);
    }
    return true;
}

std::string readLine(int socket)
{
    std::string line;
    char character;
    while (line.size() < 65536 && read(socket, &character, 1) == 1) {
        if (character == '\n')
            return line;
        line += character;
    }
    return {};
}

bool hungUp(int socket)
{
    pollfd source{socket, POLLRDHUP, 0};
    return poll(&source, 1, 0) > 0;
}

std::string lastLog(const std::vector<Event> &events)
{
    std::string text;
    for (const Event &event : events) {
        if (event.kind == EventKind::Log)
            text = event.text.substr(0, event.text.find('\n'));
    }
    return text.empty() ? "" : ": " + text;
}

} // namespace

Host::Host(const std::string &name, size_t keptMegabytes)
    : socket_(listenAs(name)), board_({.rootfs = "", .keep = keptMegabytes << 20}), button_(board_),
      end_(makePipe()), acceptor_(&Host::acceptLoop, this)
{
}

Host::~Host()
{
    ending_ = true;
    end_.write.reset();
    acceptor_.join();
    for (Client &client : clients_) {
        // Who follows the board is told of its end, unless he does not read.
        for (int attempt = 0; attempt < 100 && !client.done; attempt++)
            usleep(5000);
        if (!client.awaitsEnd)
            shutdown(client.socket.get(), SHUT_RDWR);
        client.thread.join();
    }
}

void Host::startDaemon(const std::vector<std::string> &arguments, int speed)
{
    const std::lock_guard lock(daemonMutex_);
    start(arguments, speed);
}

void Host::stopDaemon()
{
    const std::lock_guard lock(daemonMutex_);
    board_.stopDaemon();
}

void Host::restartDaemon()
{
    const std::lock_guard lock(daemonMutex_);
    board_.stopDaemon();
    start(arguments_, speed_);
}

void Host::start(const std::vector<std::string> &arguments, int speed)
{
    if (board_.daemon())
        throw std::runtime_error("the daemon runs already");
    std::vector<std::string> command = speed == 1 ? std::vector<std::string>() : fastClock(speed);
    command.push_back("/usr/sbin/kelo-monitord");
    command.insert(command.end(), arguments.begin(), arguments.end());
    arguments_ = arguments;
    speed_ = speed;
    button_.setSpeed(speed);
    const bool detaches = std::find(arguments.begin(), arguments.end(), "-d") != arguments.end();
    const size_t from = board_.mark();
    const Clock::time_point mark = Clock::now();
    mark_ = mark;
    board_.startBy(command);
    bool ended = false;
    const bool runs = board_.waitUntil(
        [&](const std::vector<Event> &events) {
            for (auto event = events.rbegin(); event != events.rend() && event->time >= mark;
                 ++event) {
                if (event->kind == EventKind::Call && event->text == firstTick)
                    return true;
                ended |= event->kind == EventKind::Exit && !(detaches && event->text == "status 0");
            }
            return ended;
        },
        startDeadline);
    if (ended) {
        accepted_ = Clock::now(); // this tells of it
        throw std::runtime_error("the daemon ended at once" + lastLog(board_.events(from)));
    }
    if (!runs)
        throw std::runtime_error("the daemon did not get going" + lastLog(board_.events(from)));
}

/// A command that runs the command behind it with a fast clock.
std::vector<std::string> Host::fastClock(int speed) const
{
    constexpr char library[] = "/usr/lib/libfaketime.so.1";
    if (!std::filesystem::exists(board_.path(library)))
        throw std::runtime_error(std::string("this board's clock cannot be sped up: it has no ") +
                                 library);
    return {"/bin/busybox", "env", std::string("LD_PRELOAD=") + library,
            "FAKETIME=+0 x" + std::to_string(speed)};
}

void Host::acceptLoop()
{
    for (;;) {
        pollfd sources[] = {{socket_.get(), POLLIN, 0}, {end_.read.get(), POLLIN, 0}};
        poll(sources, std::size(sources), -1);
        if (sources[1].revents)
            return;
        clients_.remove_if([](Client &client) {
            const bool finished = client.done && !client.awaitsEnd;
            if (finished)
                client.thread.join();
            return finished;
        });
        Descriptor socket = acceptClient(socket_.get());
        if (!socket)
            continue;
        const timeval patience{5, 0};
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        Client &client = clients_.emplace_back();
        client.socket = std::move(socket);
        client.thread = std::thread(&Host::serve, this, std::ref(client));
    }
}

void Host::serve(Client &client)
{
    try {
        answer(client, readLine(client.socket.get()));
    } catch (const std::exception &error) {
        std::string text = error.what();
        std::replace(text.begin(), text.end(), '\n', ' ');
        sendText(client.socket.get(), "error " + text + "\n");
    }
    if (!client.awaitsEnd)
        shutdown(client.socket.get(), SHUT_RDWR);
    client.done = true;
}

void Host::answer(Client &client, const std::string &request)
{
    std::istringstream words(request);
    std::string verb;
    words >> verb;
    std::vector<std::string> arguments;
    for (std::string word; words >> word;)
        arguments.push_back(word);

    if (verb == "place") {
        const Place &place = board_.place();
        std::ostringstream text;
        text << place.holder << ' ' << place.isolated << ' ' << place.root << '\n';
        sendText(client.socket.get(), text.str());
    } else if (verb == "state") {
        sendText(client.socket.get(), state());
    } else if (verb == "watch" && !arguments.empty()) {
        watch(client, toTime(arguments[0]));
    } else if (verb == "mark") {
        mark_ = Clock::now();
    } else if (verb == "accept") {
        accepted_ = Clock::now();
    } else if (verb == "signal" && !arguments.empty()) {
        if (!board_.signalDaemon(atoi(arguments[0].c_str())))
            throw std::runtime_error("the daemon does not run");
    } else if (verb == "start" && !arguments.empty()) {
        startDaemon({arguments.begin() + 1, arguments.end()}, atoi(arguments[0].c_str()));
    } else if (verb == "stop") {
        stopDaemon();
    } else if (verb == "restart") {
        restartDaemon();
    } else if (verb == "hold") {
        button_.hold();
    } else if (verb == "release") {
        button_.release();
    } else if (verb == "down") {
        client.awaitsEnd = true;
        down_ = true;
    } else {
        throw std::runtime_error("unknown request \"" + verb + "\"");
    }
}

void Host::watch(const Client &client, Clock::time_point since) const
{
    size_t place;
    std::vector<Event> events = board_.heldAt(since, place);
    const size_t now = board_.mark();
    bool isUpToDate = false;
    // Who waits for more hears of the board's end by the end of the stream.
    while (!ending_ && !down_ && !hungUp(client.socket.get())) {
        std::string text;
        for (const Event &event : events) {
            if (!isPolling(event))
                text += toLine(event) + "\n";
        }
        if (!isUpToDate && place >= now) {
            text += "now\n";
            isUpToDate = true;
        }
        if (!text.empty() && !sendText(client.socket.get(), text))
            return;
        const size_t before = place;
        events = board_.next(place, std::chrono::milliseconds(100));
        if (place - events.size() > before)
            throw std::runtime_error("the record was dropped before it was read");
    }
    if (ending_ || down_)
        sendText(client.socket.get(), "end\n");
}

std::string Host::state() const
{
    std::map<EventKind, std::string> last;
    size_t end;
    for (const Event &event : board_.heldAt(Clock::time_point::max(), end))
        last[event.kind] = event.text;
    std::ostringstream text;
    for (const EventKind kind : {EventKind::Leds, EventKind::Mode, EventKind::Laser,
                                 EventKind::Gpon, EventKind::Button, EventKind::Exit})
        text << kindName(kind) << ' ' << last[kind] << '\n';
    text << "pid " << getpid() << "\ndaemon " << board_.daemon().value_or(0) << "\nstart "
         << toText(startTime_) << "\nsince " << toText(board_.keptSince()) << "\nmark "
         << toText(mark_) << "\naccepted " << toText(accepted_) << '\n';
    return text.str();
}

} // namespace kelo
