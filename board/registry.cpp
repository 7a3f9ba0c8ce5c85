#include "registry.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

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
    Descriptor result(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!result)
        throw std::system_error(errno, std::generic_category(), "socket");
    return result;
}

/// Who is at the other end; nobody's user when there is none.
ucred peerOf(int fd)
{
    ucred peer{0, uid_t(-1), gid_t(-1)};
    socklen_t length = sizeof peer;
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return peer;
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
    if (bind(socket.get(), address.get(), address.length) < 0 ||
        listen(socket.get(), SOMAXCONN) < 0)
        throw std::runtime_error("a board named \"" + board + "\" runs already");
    return socket;
}

Descriptor acceptClient(int listening)
{
    Descriptor client(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (client && peerOf(client.get()).uid != geteuid())
        client.reset();
    return client;
}

std::shared_ptr<Link> connectTo(const std::string &board, const Link::LoopPointer &loop,
                                pid_t *process, Happened happened, std::function<void()> ended)
{
    const std::string who = "the board \"" + board + "\"";
    const Address address{SocketName(board)};
    Descriptor socket = openSocket();
    if (connect(socket.get(), address.get(), address.length) < 0 && errno == EAGAIN)
        throw std::runtime_error(who + " does not answer");
    const ucred peer = peerOf(socket.get());
    if (peer.uid != geteuid())
        throw BoardGone("no board named \"" + board + "\" is running (start one: kelo-board up " +
                        board + ")");
    if (process)
        *process = peer.pid;
    return std::make_shared<Link>(loop, who, std::move(socket), Descriptor(), std::move(happened),
                                  std::move(ended));
}

RecordReader::RecordReader(const std::string &board, Clock::time_point since,
                           const Link::LoopPointer &loop, std::function<void()> news)
    : board_(board), news_(std::move(news)), loop_(loop),
      link_(connectTo(
          board, loop, nullptr,
          [this](Clock::time_point time, const std::string &kind, const std::string &text) {
              receive(time, kind, text);
          },
          [this] {
              fail("the board \"" + board_ + "\" ended" +
                   (down_ ? "" : ", and nobody asked it to"));
          }))
{
    link_->send(
        {"watch", toText(since)},
        [this](const Answer &answer) {
            if (answer.ok())
                isPastHere_ = true;
            else if (!link_->ended())
                fail(answer.error);
            tell();
        },
        {}, startLimit);
}

void RecordReader::receive(Clock::time_point time, const std::string &kind, const std::string &text)
{
    down_ |= kind == "down";
    if (kind == "dropped")
        fail("the record was dropped before it was read");
    if (const std::optional<EventKind> known = kindOf(kind)) {
        (isPastHere_ ? coming_ : past_).push_back({time, *known, text});
        tell();
    }
}

void RecordReader::fail(const std::string &why)
{
    if (failure_.empty())
        failure_ = why;
    tell();
}

void RecordReader::tell() const
{
    if (news_)
        news_();
}

std::optional<Event> RecordReader::take()
{
    std::deque<Event> &events = past_.empty() ? coming_ : past_;
    if (!events.empty()) {
        Event event = std::move(events.front());
        events.pop_front();
        return event;
    }
    if (failure_.empty())
        return std::nullopt;
    if (!link_->ended())
        throw std::runtime_error(failure_);
    if (down_)
        throw BoardEnded(failure_);
    throw BoardGone(failure_);
}

std::optional<Event> RecordReader::next(Clock::time_point deadline)
{
    std::optional<Event> event;
    while (!(event = take())) {
        // The past has a limit of its own: that of the request for it.
        const Clock::time_point until = isUpToDate() ? deadline : Clock::time_point::max();
        if (until <= Clock::now())
            break;
        loop_->turn(until);
    }
    return event;
}

Words request(const std::string &board, const Words &words, Clock::duration limit)
{
    return connectTo(board, std::make_shared<const Loop>())->ask(words, {}, limit);
}

Access openBoard(const std::string &name, const Link::LoopPointer &loop)
{
    const std::shared_ptr<Link> link = connectTo(name, loop);
    return {Form::of(link->ask({"place"})), link};
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
    pid_t host = 0;
    const std::shared_ptr<Link> link = connectTo(name, std::make_shared<const Loop>(), &host);
    const std::string process = std::to_string(host);
    // What it runs ends with it; whoever stopped it may have stopped that too.
    std::vector<Descriptor> ends;
    ends.push_back(endOf(host));
    std::istringstream children(readFile("/proc/" + process + "/task/" + process + "/children"));
    for (pid_t child; children >> child;)
        ends.push_back(endOf(child));
    try {
        const Words more = link->ask({"patience"}, {}, downPatience);
        link->ask({"down"}, {}, downPatience + std::chrono::milliseconds(atoi(more.at(0).c_str())));
        return;
    } catch (const std::runtime_error &) {
        makeEnd(ends.front(), 1);
    }
    for (const Descriptor &end : ends)
        makeEnd(end, downPatience.count());
}

std::map<std::string, std::string> stateOf(const std::string &board)
{
    auto state = toState(request(board, {"state"}, requestLimit));
    if (state.contains("starting"))
        throw std::runtime_error("the board is only starting");
    return state;
}

std::map<std::string, std::string> toState(const Words &answer)
{
    std::map<std::string, std::string> state;
    for (size_t i = 0; i + 1 < answer.size(); i += 2)
        state[answer[i]] = answer[i + 1];
    return state;
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

} // namespace kelo
