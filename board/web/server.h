/// The page of a running board, live, for a browser: it shows what happens as it happens, and its
/// buttons do what a kelo-board command of the same words does.
///
/// Other people's pages cannot drive it. The address holds a secret, a request has to come from
/// this page, and names that lead here are not believed: the host is an address or localhost.

#pragma once

#include "registry.h"

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct evhttp;
struct evhttp_request;

namespace kelo {

class Server {
public:
    /// Serves a running board at an address and a port; 0 is any free one. Throws BoardGone when
    /// there is no such board, std::invalid_argument when that is no address, and
    /// std::runtime_error when it cannot listen there.
    Server(const std::string &board, const std::string &address, int port);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /// Where the page is.
    std::string url() const;

    /// Serves until somebody asks this program or the board to end. Throws BoardGone when the board
    /// ends otherwise.
    void run();

private:
    struct Viewer {
        Server *server;
        evhttp_request *request; ///< whose answer does not end
        std::unique_ptr<RecordReader> record{};
        std::map<EventKind, std::string> before{}; ///< what was sent last
        Watch feeding{};                           ///< news, all of it at once
        bool gone = false;
    };
    struct Command {
        evhttp_request *request;
        Words words;
        Clock::time_point begin;
        std::unique_ptr<Program> program{};
    };
    /// What was done, for the scenario.
    struct Done {
        Words words;
        Clock::time_point begin;
        Clock::time_point end;
    };

    std::string place() const;
    void handle(evhttp_request *request);
    void serve(evhttp_request *request, bool isPost, const std::string &what);
    void watch(evhttp_request *request);
    void feed(Viewer &viewer);
    void leave(Viewer &viewer);
    void perform(evhttp_request *request);
    void finish(std::list<Command>::iterator command, const Result &result);
    std::string scenario() const;
    void reapLater();

    const std::string board_;
    const Clock::time_point start_; ///< of the board
    const std::string token_;
    const Link::LoopPointer loop_ = std::make_shared<const Loop>();
    struct Close {
        void operator()(evhttp *server) const;
    };
    std::unique_ptr<evhttp, Close> http_;
    std::string address_;
    int port_ = 0;
    std::list<Viewer> viewers_;
    std::list<Command> commands_;
    std::vector<Done> session_;
    Watch reaping_;
    bool ending_ = false;
};

} // namespace kelo
