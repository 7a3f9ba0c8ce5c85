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

std::string escaped(const std::string &text)
{
    std::string result;
    for (const char character : text) {
        if (character == '\n')
            result += "\\n";
        else if (character == '\\')
            result += "\\\\";
        else
            result += character;
    }
    return result;
}

std::string unescaped(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\' || i + 1 == text.size())
            result += text[i];
        else
            result += text[++i] == 'n' ? '\n' : text[i];
    }
    return result;
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

Connection::Connection(const std::string &board, const std::string &request)
    : board_(board), socket_(openSocket())
{
    const Address address{SocketName(board)};
    const std::string line = request + "\n";
    if (connect(socket_.get(), address.get(), address.length) < 0 || !ownPeer(socket_.get()) ||
        send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL) != ssize_t(line.size()))
        throw BoardGone("no board named \"" + board + "\" is running (start one: kelo-board up " +
                        board + ")");
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
        throw std::runtime_error(result.substr(6));
    if (result == "end")
        throw BoardEnded("the board \"" + board_ + "\" ended");
    return result;
}

std::vector<std::string> Connection::rest()
{
    std::vector<std::string> lines;
    try {
        for (;;)
            lines.push_back(*line());
    } catch (const BoardGone &) {
        return lines;
    }
}

void request(const std::string &board, const std::string &text)
{
    Connection(board, text).rest();
}

std::optional<Place> findBoard(const std::string &name)
{
    try {
        std::istringstream text(Connection(name, "place").line().value());
        Place place;
        if (text >> place.holder >> place.isolated >> std::ws && std::getline(text, place.root))
            return place;
    } catch (const BoardGone &) {
    }
    return std::nullopt;
}

std::map<std::string, std::string> stateOf(const std::string &board)
{
    std::map<std::string, std::string> state;
    for (const std::string &line : Connection(board, "state").rest()) {
        const size_t space = std::min(line.find(' '), line.size());
        state[line.substr(0, space)] = unescaped(line.substr(std::min(space + 1, line.size())));
    }
    return state;
}

void readEvents(const std::string &board, Clock::time_point &from, std::vector<Event> &events,
                const std::function<bool()> &goesOn)
{
    from = std::max(from, toTime(stateOf(board)["since"]));
    Connection connection(board, "watch " + toText(from));
    for (bool isUpToDate = false; !isUpToDate || (goesOn && goesOn());) {
        const auto line = connection.line(isUpToDate ? Clock::now() + std::chrono::milliseconds(50)
                                                     : Clock::time_point::max());
        isUpToDate |= line == "now";
        std::optional<Event> event = line ? fromLine(*line) : std::nullopt;
        // An attribute that was stored before, or a daemon that ended, is no news.
        const bool isNews = event && event->time >= from;
        if (!event ||
            (!isNews && (event->kind == EventKind::Store || event->kind == EventKind::Exit)))
            continue;
        event->time = std::max(event->time, from);
        events.push_back(std::move(*event));
    }
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
    return toText(event.time) + " " + kindName(event.kind) + " " + escaped(event.text);
}

std::optional<Event> fromLine(const std::string &line)
{
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first + 1);
    if (first == std::string::npos || second == std::string::npos)
        return std::nullopt;
    const std::string kind = line.substr(first + 1, second - first - 1);
    for (int i = 0; i <= static_cast<int>(EventKind::Exit); i++) {
        if (kind == kindName(static_cast<EventKind>(i)))
            return Event{toTime(line.substr(0, first)), static_cast<EventKind>(i),
                         unescaped(line.substr(second + 1))};
    }
    return std::nullopt;
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
