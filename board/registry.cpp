#include "registry.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

constexpr Clock::duration startLimit = std::chrono::seconds(25);
constexpr auto downPatience = std::chrono::milliseconds(1500);

std::string prefix()
{
    return "kelo-board/" + std::to_string(geteuid()) + "/";
}

struct Address {
    explicit Address(const SocketName &name)
    {
        address.sun_family = AF_UNIX;
        name.path.copy(address.sun_path + 1, name.path.size());
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.path.size());
    }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address); }

    sockaddr_un address{};
    socklen_t length;
};

Descriptor openSocket()
{
    Descriptor result(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!result)
        throw std::system_error(errno, std::generic_category(), "socket");
    return result;
}

bool ownPeer(int fd)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == geteuid();
}

} // namespace

SocketName::SocketName(const std::string &board) : path(prefix() + board)
{
    const auto usable = [](unsigned char character) {
        return isgraph(character) && character != '/';
    };
    if (board.empty() || board.front() == '-' || path.size() + 1 > sizeof(sockaddr_un::sun_path) ||
        !std::all_of(board.begin(), board.end(), usable))
        throw std::invalid_argument("no usable board name: \"" + board + "\"");
}

Descriptor listenAs(const std::string &board)
{
    Descriptor socket = openSocket();
    const Address address{SocketName(board)};
    if (bind(socket.get(), address.get(), address.length) < 0 || listen(socket.get(), 64) < 0)
        throw std::runtime_error("a board named \"" + board + "\" runs already");
    return socket;
}

Descriptor acceptClient(int listening)
{
    Descriptor client(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (client && !ownPeer(client.get()))
        client.reset();
    return client;
}

Connection::Connection(const std::string &board, const Words &request)
    : board_(board), socket_(openSocket())
{
    const Address address{SocketName(board)};
    const std::string line = toLine(request) + "\n";
    if (connect(socket_.get(), address.get(), address.length) < 0 || !ownPeer(socket_.get()) ||
        send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL) != ssize_t(line.size()))
        throw BoardGone("no board named \"" + board + "\" is running (start one: kelo-board up " +
                        board + ")");
}

pid_t Connection::process() const
{
    ucred peer{};
    socklen_t length = sizeof peer;
    getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return peer.pid;
}

std::optional<std::string> Connection::line(Clock::time_point deadline)
{
    size_t end;
    while ((end = text_.find('\n')) == std::string::npos) {
        int timeout = -1;
        if (deadline != Clock::time_point::max()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            timeout = static_cast<int>(std::clamp<long long>(left.count(), 0, 1000000));
        }
        pollfd source{socket_.get(), POLLIN, 0};
        const int ready = poll(&source, 1, timeout);
        if (ready == 0)
            return std::nullopt;
        if (ready < 0)
            continue; // a signal
        char buffer[65536];
        const ssize_t length = read(socket_.get(), buffer, sizeof buffer);
        if (length <= 0)
            throw BoardGone("the board \"" + board_ + "\" ended, and nobody asked it to");
        text_.append(buffer, static_cast<size_t>(length));
    }
    std::string result = text_.substr(0, end);
    text_.erase(0, end + 1);
    if (result.starts_with("error "))
        throw std::runtime_error(unescaped(result.substr(6)));
    if (result.starts_with("refused "))
        throw Refused(unescaped(result.substr(8)));
    if (result == "ok" || result.starts_with("ok ")) {
        answer_ = toWords(result.substr(2));
        throw BoardEnded("the board \"" + board_ + "\" ended");
    }
    return result;
}

Words Connection::answer(Clock::duration limit, const Printed &printed)
{
    const Clock::time_point end = Clock::now() + limit;
    try {
        while (const auto next = line(end)) {
            if (next->starts_with("out ") && printed)
                printed(unescaped(next->substr(4)));
        }
    } catch (const BoardEnded &) {
        return answer_;
    }
    throw NoAnswer("the board \"" + board_ + "\" does not answer");
}

RecordReader::RecordReader(const std::string &board, Clock::time_point since)
    : connection_(board, {"watch", toText(since)})
{
}

std::optional<Event> RecordReader::next(Clock::time_point deadline)
{
    while (const auto line = connection_.line(isUpToDate_ ? deadline : Clock::now() + startLimit)) {
        if (*line != "now")
            return fromLine(*line);
        isUpToDate_ = true;
    }
    if (!isUpToDate_)
        throw NoAnswer("the board does not answer");
    return std::nullopt;
}

void request(const std::string &board, const Words &words)
{
    Connection(board, words).answer(startLimit);
}

Access openBoard(const std::string &name)
{
    return {Form::of(Connection(name, {"place"}).answer()),
            [name](const Words &request, const Printed &printed, Clock::duration limit) {
                return Connection(name, request).answer(limit, printed);
            }};
}

bool isRunning(const std::string &name)
{
    try {
        openBoard(name);
        return true;
    } catch (const BoardGone &) {
        return false;
    }
}

void endBoard(const std::string &name)
{
    Connection connection(name, {"down"});
    const pid_t host = connection.process();
    const std::string process = std::to_string(host);
    // What it runs ends with it; whoever stopped it may have stopped that too.
    std::vector<Descriptor> ends;
    ends.push_back(endOf(host));
    std::istringstream children(readFile("/proc/" + process + "/task/" + process + "/children"));
    for (pid_t child; children >> child;)
        ends.push_back(endOf(child));
    try {
        connection.answer(downPatience);
        return;
    } catch (const std::runtime_error &) {
        makeEnd(ends.front(), 1);
    }
    for (const Descriptor &end : ends)
        makeEnd(end, downPatience.count());
}

std::map<std::string, std::string> stateOf(const std::string &board)
{
    return toState(Connection(board, {"state"}).answer());
}

std::map<std::string, std::string> toState(const Words &answer)
{
    std::map<std::string, std::string> state;
    for (size_t i = 0; i + 1 < answer.size(); i += 2)
        state[answer[i]] = answer[i + 1];
    return state;
}

void readEvents(const std::string &board, Clock::time_point &from, std::vector<Event> &events,
                const std::function<bool()> &goesOn)
{
    from = std::max(from, toTime(stateOf(board)["since"]));
    RecordReader record(board, from);
    const auto patience = std::chrono::milliseconds(goesOn ? 50 : 0);
    for (bool more = true; more;) {
        auto event = record.next(Clock::now() + patience);
        more = !record.isUpToDate() || (goesOn ? goesOn() : event.has_value());
        // An attribute that was stored before, or a daemon that ended, is no news.
        const bool isNews = event && event->time >= from;
        if (!event ||
            (!isNews && (event->kind == EventKind::Store || event->kind == EventKind::Exit)))
            continue;
        event->time = std::max(event->time, from);
        events.push_back(std::move(*event));
    }
}

Past::Past(const std::string &board) : start(toTime(stateOf(board)["start"])), from(start)
{
    readEvents(board, from, events);
}

std::vector<std::string> runningBoards()
{
    std::vector<std::string> names;
    std::ifstream sockets("/proc/net/unix");
    std::string line;
    const std::string sign = " @" + prefix();
    while (std::getline(sockets, line)) {
        const size_t start = line.find(sign);
        if (start != std::string::npos)
            names.push_back(line.substr(start + sign.size()));
    }
    std::sort(names.begin(), names.end());
    // A connection that waits to be accepted is listed under the same name.
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string toLine(const Event &event)
{
    return toText(event.time) + " " + kindName(event.kind) + " " + toRest(event.text);
}

std::optional<Event> fromLine(const std::string &line)
{
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first + 1);
    if (first == std::string::npos || second == std::string::npos)
        return std::nullopt;
    const std::string kind = line.substr(first + 1, second - first - 1);
    const std::optional<EventKind> known = kindOf(kind);
    if (!known)
        return std::nullopt;
    return Event{toTime(line.substr(0, first)), *known, unescaped(line.substr(second + 1))};
}

std::string toText(Clock::time_point time)
{
    return std::to_string(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

Clock::time_point toTime(const std::string &text)
{
    return Clock::time_point(std::chrono::nanoseconds(atoll(text.c_str())));
}

} // namespace kelo
