#include "registry.h"

#include <cerrno>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

struct Address {
    sockaddr_un address{};
    socklen_t length = 0;
};

Address addressOf(const std::string &name)
{
    Address result;
    result.address.sun_family = AF_UNIX;
    const std::string path = "kelo-board/" + std::to_string(geteuid()) + "/" + name;
    if (name.empty() || path.size() + 1 > sizeof result.address.sun_path)
        throw std::runtime_error("no usable board name: \"" + name + "\"");
    path.copy(result.address.sun_path + 1, path.size());
    result.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
    return result;
}

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

Registration::Registration(const std::string &name, Place place)
    : place_(std::move(place)), socket_(openSocket()), end_(makePipe())
{
    const Address address = addressOf(name);
    if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address.address), address.length) <
            0 ||
        listen(socket_.get(), 16) < 0)
        throw std::runtime_error("a board named \"" + name + "\" runs already");
    thread_ = std::thread(&Registration::answer, this);
}

Registration::~Registration()
{
    end_.write.reset();
    thread_.join();
}

void Registration::answer() const
{
    for (;;) {
        pollfd sources[] = {{socket_.get(), POLLIN, 0}, {end_.read.get(), POLLIN, 0}};
        poll(sources, std::size(sources), -1);
        if (sources[1].revents)
            return;
        const Descriptor peer(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!peer || !ownPeer(peer.get()))
            continue;
        std::ostringstream text;
        text << place_.holder << ' ' << place_.isolated << ' ' << place_.root << '\n';
        send(peer.get(), text.str().data(), text.str().size(), MSG_NOSIGNAL);
    }
}

std::optional<Place> findBoard(const std::string &name)
{
    const Descriptor socket = openSocket();
    const Address address = addressOf(name);
    if (connect(socket.get(), reinterpret_cast<const sockaddr *>(&address.address),
                address.length) < 0 ||
        !ownPeer(socket.get()))
        return std::nullopt;
    std::istringstream text(readAll(socket.get()));
    Place place;
    if (!(text >> place.holder >> place.isolated >> std::ws) || !std::getline(text, place.root))
        return std::nullopt;
    return place;
}

} // namespace kelo
