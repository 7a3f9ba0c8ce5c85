#include "server.h"

#include "page.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <random>
#include <sstream>

namespace kelo {

namespace {

using nlohmann::json;

constexpr size_t viewersMax = 8;
constexpr size_t commandsMax = 16;
constexpr size_t sentAhead = 1 << 22; ///< bytes that may wait for a browser
constexpr ev_ssize_t bodyMax = 4096;

/// What the page may do: no command that writes files or runs other programs.
constexpr const char *allowed[] = {"set",  "press",  "hold", "release", "mode",     "fault",
                                   "stop", "signal", "dhcp", "restart", "provider", "start"};

std::string makeToken()
{
    std::random_device random; // the kernel's, or the processor's
    std::ostringstream token;
    for (int i = 0; i < 4; i++)
        token << std::hex << std::setw(8) << std::setfill('0') << random();
    return token.str();
}

/// Takes equally long wherever they differ.
bool isEqual(const std::string &a, const std::string &b)
{
    unsigned difference = a.size() != b.size();
    for (size_t i = 0; i < a.size() && i < b.size(); i++)
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

std::string headerOf(evhttp_request *request, const char *name)
{
    const char *const value = evhttp_find_header(evhttp_request_get_input_headers(request), name);
    return value ? value : "";
}

void answer(evhttp_request *request, int status, const std::string &text,
            const char *type = "text/plain; charset=utf-8")
{
    evkeyvalq *const headers = evhttp_request_get_output_headers(request);
    evhttp_add_header(headers, "Content-Type", type);
    evhttp_add_header(headers, "Cache-Control", "no-store");
    evhttp_add_header(headers, "X-Content-Type-Options", "nosniff");
    evhttp_add_header(headers, "X-Frame-Options", "DENY");
    evhttp_add_header(headers, "Referrer-Policy", "no-referrer");
    evbuffer *const body = evbuffer_new();
    evbuffer_add(body, text.data(), text.size());
    evhttp_send_reply(request, status, nullptr, body);
    evbuffer_free(body);
}

/// Whether a host is meant by its address; a name that leads here may be anybody's.
bool isAddress(const std::string &host, int port)
{
    const std::string end = ":" + std::to_string(port);
    if (!host.ends_with(end))
        return false;
    const std::string name = host.substr(0, host.size() - end.size());
    in6_addr any;
    if (name.size() > 2 && name.front() == '[' && name.back() == ']')
        return inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), &any) == 1;
    return name == "localhost" || inet_pton(AF_INET, name.c_str(), &any) == 1;
}

/// The words of a request; none if the page may not say them.
Words wordsOf(evhttp_request *request)
{
    evbuffer *const body = evhttp_request_get_input_buffer(request);
    std::string text(evbuffer_get_length(body), '\0');
    evbuffer_copyout(body, text.data(), text.size());
    const json list = json::parse(text, nullptr, false);
    Words words;
    for (const json &word : list.is_array() ? list : json::array()) {
        const std::string one = word.is_string() ? word.get<std::string>() : "-";
        const bool isOption = one.starts_with("-") && !(one.size() > 1 && isdigit(one[1]));
        if (isOption || one.find('\0') != std::string::npos)
            return {};
        words.push_back(one);
    }
    const bool known = !words.empty() && std::find(std::begin(allowed), std::end(allowed),
                                                   words[0]) != std::end(allowed);
    return known ? words : Words();
}

/// A word as a shell takes it.
std::string quoted(const std::string &word)
{
    constexpr char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:+-";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string result = "'";
    for (const char character : word)
        result += character == '\'' ? "'\\''" : std::string(1, character);
    return result + "'";
}

double seconds(Clock::duration time)
{
    return std::chrono::duration<double>(time).count();
}

} // namespace

void Server::Close::operator()(evhttp *server) const
{
    evhttp_free(server);
}

Server::Server(const std::string &board, const std::string &address, int port)
    : board_(board), start_(toTime(stateOf(board)["start"])), token_(makeToken()),
      http_(evhttp_new(loop_->base())), address_(address)
{
    if (!isAddress(place(), port_))
        throw std::invalid_argument("no address: \"" + address + "\" (such as 0.0.0.0 or ::)");
    evhttp_set_allowed_methods(http_.get(), EVHTTP_REQ_GET | EVHTTP_REQ_POST);
    evhttp_set_max_body_size(http_.get(), bodyMax);
    evhttp_set_max_headers_size(http_.get(), 4 * bodyMax);
    evhttp_set_gencb(
        http_.get(),
        [](evhttp_request *request, void *server) {
            static_cast<Server *>(server)->handle(request);
        },
        this);
    evhttp_bound_socket *const bound = evhttp_bind_socket_with_handle(
        http_.get(), address.c_str(), static_cast<ev_uint16_t>(port));
    if (!bound)
        throw std::runtime_error("cannot listen at " + address + " port " + std::to_string(port) +
                                 ": " + strerror(errno));
    sockaddr_storage place{};
    socklen_t length = sizeof place;
    getsockname(evhttp_bound_socket_get_fd(bound), reinterpret_cast<sockaddr *>(&place), &length);
    // The port is at the same place for both families.
    port_ = ntohs(reinterpret_cast<const sockaddr_in *>(&place)->sin_port);
}

Server::~Server()
{
    for (Command &command : commands_) {
        command.program->kill();
        answer(command.request, 503, "the page's program ended");
    }
}

std::string Server::place() const
{
    const std::string host =
        address_.find(':') == std::string::npos ? address_ : "[" + address_ + "]";
    return host + ":" + std::to_string(port_);
}

std::string Server::url() const
{
    return "http://" + place() + "/" + token_ + "/";
}

void Server::run()
{
    std::vector<Watch> signals;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        signals.push_back(Watch::onSignal(loop_->base(), number, [this] { ending_ = true; }));
    RecordReader end(board_, Clock::now(), loop_);
    std::exception_ptr failure;
    try {
        while (!ending_) {
            loop_->turn(Clock::now() + std::chrono::hours(1));
            while (end.take()) {
            }
        }
    } catch (const BoardEnded &) {
    } catch (...) {
        failure = std::current_exception();
    }
    for (Viewer &viewer : viewers_)
        leave(viewer);
    const Clock::time_point last = Clock::now() + std::chrono::milliseconds(100);
    while (Clock::now() < last) // browsers hear of it
        loop_->turn(last);
    if (failure)
        std::rethrow_exception(failure);
}

void Server::handle(evhttp_request *request)
{
    const std::string host = headerOf(request, "Host");
    const std::string origin = headerOf(request, "Origin");
    const std::string site = headerOf(request, "Sec-Fetch-Site");
    const bool isPost = evhttp_request_get_command(request) == EVHTTP_REQ_POST;
    const char *const given = evhttp_uri_get_path(evhttp_request_get_evhttp_uri(request));
    const std::string path = given ? given : "";
    const size_t slash = path.find('/', 1);
    const std::string what = slash == std::string::npos ? "" : path.substr(slash + 1);

    if (!isAddress(host, port_))
        answer(request, 403, "this is not the host that was asked for");
    else if ((origin.empty() ? isPost : origin != "http://" + host) ||
             (!site.empty() && site != "same-origin" && site != "none"))
        answer(request, 403, "another page asks");
    else if (slash == std::string::npos || !isEqual(path.substr(1, slash - 1), token_))
        answer(request, 403, "the address lacks the secret");
    else
        serve(request, isPost, what);
}

void Server::serve(evhttp_request *request, bool isPost, const std::string &what)
{
    if (isPost && what == "do")
        perform(request);
    else if (!isPost && what == "events")
        watch(request);
    else if (!isPost && what == "scenario")
        answer(request, 200, scenario());
    else if (!isPost && what.empty())
        answer(request, 200, makePage({board_, {}, start_, start_, Clock::now()}, true),
               "text/html; charset=utf-8");
    else
        answer(request, what == "do" ? 405 : 404, "there is nothing here");
}

/// Answers with all events, those that come too.
void Server::watch(evhttp_request *request)
{
    if (viewers_.size() >= viewersMax) {
        answer(request, 503, "nobody else can look on");
        return;
    }
    viewers_.push_back({this, request});
    Viewer &viewer = viewers_.back();
    try {
        viewer.record = std::make_unique<RecordReader>(board_, start_, loop_, [this, &viewer] {
            viewer.feeding =
                Watch(loop_->base(), Clock::duration::zero(), [this, &viewer] { feed(viewer); });
        });
    } catch (const std::runtime_error &error) {
        viewers_.pop_back();
        answer(request, 503, error.what());
        return;
    }
    evkeyvalq *const headers = evhttp_request_get_output_headers(request);
    evhttp_add_header(headers, "Content-Type", "text/event-stream");
    evhttp_add_header(headers, "Cache-Control", "no-store");
    evhttp_send_reply_start(request, 200, nullptr);
    evhttp_connection_set_closecb(
        evhttp_request_get_connection(request),
        [](evhttp_connection *, void *argument) {
            auto *const gone = static_cast<Viewer *>(argument);
            gone->server->leave(*gone);
        },
        &viewer);
}

void Server::feed(Viewer &viewer)
{
    if (viewer.gone)
        return;
    json events = json::array();
    bool ended = false;
    try {
        while (const auto event = viewer.record->take()) {
            const bool holds = event->kind == EventKind::Leds || event->kind == EventKind::Snapshot;
            if (holds && std::exchange(viewer.before[event->kind], event->text) == event->text)
                continue;
            events.push_back({seconds(event->time - start_), kindName(event->kind), event->text});
        }
    } catch (const std::runtime_error &) {
        ended = true;
    }
    const json message{{"now", seconds(Clock::now() - start_)}, {"events", events}};
    evbuffer *const text = evbuffer_new();
    const std::string dumped = message.dump(-1, ' ', false, json::error_handler_t::replace);
    evbuffer_add_printf(text, "data: %s\n\n", dumped.c_str());
    evhttp_send_reply_chunk(viewer.request, text);
    evbuffer_free(text);
    evhttp_connection *const connection = evhttp_request_get_connection(viewer.request);
    const size_t waiting =
        evbuffer_get_length(bufferevent_get_output(evhttp_connection_get_bufferevent(connection)));
    if (ended || (viewer.record->isUpToDate() && waiting > sentAhead))
        leave(viewer);
}

void Server::leave(Viewer &viewer)
{
    if (viewer.gone)
        return;
    viewer.gone = true;
    evhttp_connection *const connection = evhttp_request_get_connection(viewer.request);
    if (connection)
        evhttp_connection_set_closecb(connection, nullptr, nullptr);
    evhttp_send_reply_end(viewer.request);
    reapLater();
}

/// Runs a kelo-board command and answers with what it prints.
void Server::perform(evhttp_request *request)
{
    const Words words = wordsOf(request);
    if (words.empty() || commands_.size() >= commandsMax) {
        answer(request, words.empty() ? 400 : 503, "that cannot be done from here");
        return;
    }
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const Words command = concat({self, "-b", board_}, words);
    const auto added = commands_.insert(commands_.end(), {request, words, Clock::now()});
    added->program = std::make_unique<Program>(
        loop_->base(), command, [this, added](const Result &result) { finish(added, result); });
}

void Server::finish(std::list<Command>::iterator command, const Result &result)
{
    const bool succeeded = result.status == 0;
    if (succeeded && command->words != Words{"fault"})
        session_.push_back({command->words, command->begin, Clock::now()});
    const json outcome{{"done", succeeded}, {"text", result.output}};
    answer(command->request, 200, outcome.dump(-1, ' ', false, json::error_handler_t::replace),
           "application/json");
    commands_.erase(command);
}

/// A script that does the same again, with the same pauses.
std::string Server::scenario() const
{
    std::string text = "# A session at the board's page.\n";
    Clock::time_point end = session_.empty() ? Clock::time_point() : session_.front().begin;
    for (const Done &done : session_) {
        char pause[64];
        snprintf(pause, sizeof pause, "kelo-board wait %.2fs\n", seconds(done.begin - end));
        if (done.begin - end > std::chrono::milliseconds(10))
            text += pause;
        text += "kelo-board";
        for (const std::string &word : done.words)
            text += " " + quoted(word);
        text += "\n";
        end = done.end;
    }
    return text;
}

/// Not at once: the callback of what has ended is still running.
void Server::reapLater()
{
    reaping_ = Watch(loop_->base(), Clock::duration::zero(), [this] {
        viewers_.remove_if([](const Viewer &viewer) { return viewer.gone; });
    });
}

} // namespace kelo
