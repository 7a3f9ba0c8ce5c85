#include "board.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

// The order in which the daemon writes them, and in which an LED event shows them.
constexpr char ledGpios[] = {6, 7, 8, 2, 3, 4};
constexpr int lastGpio = 4;

constexpr size_t eventsAtOnce = 4096;
constexpr off_t longestCalls = 1 << 20; ///< bytes that the file of calls may have

struct Holder {
    pid_t unshare;
    Descriptor input;
    Place place;
    std::string complaint; ///< what it said instead of starting
};

Holder startHolder(const std::string &rootfs, bool isolated, bool asUser)
{
    std::vector<std::string> command;
    // A root file system for a machine of its own brings the program that has this machine.
    const std::string own = rootfs + "/.hold";
    const bool isMachine = access(own.c_str(), X_OK) == 0;
    isolated = isolated && !isMachine;
    if (isolated) {
        command = {"unshare", "--mount",      "--net",         "--pid",
                   "--fork",  "--kill-child", "--propagation", "unchanged"};
        if (asUser)
            command.insert(command.end(), {"--user", "--map-root-user"});
    }
    if (isMachine)
        command = {own};
    else
        command.insert(command.end(), {"sh", KELO_BOARD_DIR "/board-init",
                                       isolated ? "isolated" : "plain", rootfs});
    Pipe in = makePipe();
    Pipe out = makePipe();
    Pipe err = makePipe();
    Holder holder{spawnApart(command, {in.read.get(), out.write.get(), err.write.get()}),
                  std::move(in.write),
                  {},
                  {}};
    out.write.reset();
    err.write.reset();

    std::string line;
    char character;
    while (read(out.read.get(), &character, 1) == 1 && character != '\n')
        line += character;
    std::istringstream words(line);
    words >> holder.place.holder;
    std::getline(words >> std::ws, holder.place.root);
    holder.place.isolated = isolated;
    if (holder.place.root.empty()) {
        holder.complaint = readAll(err.read.get());
        holder.input.reset();
        waitFor(holder.unshare);
    }
    return holder;
}

/// The root file system of the form of the board that KELO_BOARD names: host, mips, mips-sf, ...
std::string defaultRootfs()
{
    const char *const form = getenv("KELO_BOARD");
    if (!form || std::string(form) == "host")
        return KELO_ROOTFS;
    return std::string(KELO_BUILDS "/") + form + "/rootfs";
}

std::string advice()
{
    const auto number = [](const char *path) { return atoi(readFile(path).c_str()); };
    const auto is = [&](const char *path, int value) {
        return access(path, R_OK) == 0 && number(path) == value;
    };
    if (geteuid() == 0)
        return "root here lacks the right to make namespaces (CAP_SYS_ADMIN): start the container "
               "with it, or run outside the container";
    if (is("/proc/sys/kernel/unprivileged_userns_clone", 0))
        return "user namespaces are off: sysctl kernel.unprivileged_userns_clone=1, or run as root";
    if (is("/proc/sys/user/max_user_namespaces", 0))
        return "user namespaces are off: sysctl user.max_user_namespaces=15000, or run as root";
    if (is("/proc/sys/kernel/apparmor_restrict_unprivileged_userns", 1))
        return "user namespaces are restricted: sysctl "
               "kernel.apparmor_restrict_unprivileged_userns=0, or run as root";
    return "user namespaces are refused, as they are inside a chroot: run as root";
}

std::string firstWord(const std::string &text)
{
    return text.substr(0, text.find(' '));
}

/// What an event takes in memory, as good as exactly.
size_t sizeOf(const Event &event)
{
    const bool isApart = event.text.capacity() > std::string().capacity();
    return sizeof event + (isApart ? event.text.capacity() + 2 * sizeof(void *) : 0);
}

using EventRange = std::vector<Event>::const_iterator;

/// The last event of every subject.
std::vector<Event> lastOfEach(EventRange begin, EventRange end)
{
    std::set<std::string> subjects;
    std::vector<Event> result;
    while (end != begin) {
        const std::string of = subject(*--end);
        if (!of.empty() && subjects.insert(of).second)
            result.push_back(*end);
    }
    std::reverse(result.begin(), result.end());
    return result;
}

} // namespace

const char *kindName(EventKind kind)
{
    constexpr const char *names[] = {"leds",     "log",   "mode", "call",   "store", "omci",
                                     "snapshot", "laser", "gpon", "button", "exit"};
    return names[static_cast<size_t>(kind)];
}

std::string subject(const Event &event)
{
    switch (event.kind) {
    case EventKind::Leds:
    case EventKind::Mode:
    case EventKind::Laser:
    case EventKind::Gpon:
    case EventKind::Button:
    case EventKind::Exit:
        return kindName(event.kind);
    case EventKind::Store:
        return event.text.substr(0, event.text.find(' ', event.text.find(' ') + 1));
    default:
        return {};
    }
}

Board::Board(const Options &options)
    : Access(Place{}), environment_(options.environment), keep_(options.keep)
{
    environment_.insert(environment_.begin(), "PATH=/usr/sbin:/usr/bin:/sbin:/bin");
    const std::string rootfs = options.rootfs.empty() ? defaultRootfs() : options.rootfs;
    if (!std::filesystem::exists(rootfs + "/usr/sbin/kelo-monitord"))
        throw std::runtime_error("no board to start in " + rootfs + ": build it first");
    if (access("/proc/self/stat", R_OK) != 0)
        throw std::runtime_error("the board needs /proc: mount -t proc proc /proc");

    // Only a user namespace can have an emulator of its own for programs of another machine; where
    // root is refused one, board-init gets by without.
    const bool isRoot = geteuid() == 0;
    const bool emulated = std::filesystem::exists(rootfs + "/.emulator");
    Holder holder = startHolder(rootfs, true, !isRoot || emulated);
    if (holder.place.root.empty() && isRoot && emulated)
        holder = startHolder(rootfs, true, false);
    if (holder.place.root.empty()) {
        const bool refused = holder.complaint.starts_with("unshare:");
        const std::string reason = holder.complaint + (refused ? advice() : "");
        if (!isRoot || !refused)
            throw std::runtime_error(reason);
        fprintf(stderr,
                "%s\ngoing on without: in a plain chroot, on this machine's network, which "
                "is listened to but not changed\n",
                reason.c_str());
        holder = startHolder(rootfs, false, false);
        if (holder.place.root.empty())
            throw std::runtime_error(holder.complaint);
    }
    unshare_ = holder.unshare;
    holderInput_ = std::move(holder.input);
    place_ = holder.place;

    // Held open for writing too, so that the daemon's closing is no end of file.
    leds_ =
        Descriptor(open(path("/proc/tc3162/gpio_output").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    calls_ = Descriptor(open(path("/board/calls").c_str(), O_RDONLY | O_CLOEXEC));
    log_ = makePipe(O_DIRECT | O_NONBLOCK); // packets: one read is one record
    fcntl(log_.write.get(), F_SETFL, O_DIRECT);
    wake_ = makePipe(O_NONBLOCK);
    files_ = Descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!leds_ || !calls_ || !files_)
        throw std::system_error(errno, std::generic_category(), "cannot watch the board");
    for (const char *folder : {"/board", "/proc/tc3162", "/var/run"}) {
        const int watch = inotify_add_watch(files_.get(), path(folder).c_str(),
                                            IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO);
        watched_[watch] = folder;
    }
    noteHardware("laser_rx_dbm", EventKind::Laser, "/board/laser_rx_dbm");
    noteHardware("gpon_state", EventKind::Gpon, "/board/gpon_state");
    noteHardware("reset_button", EventKind::Button, "/proc/tc3162/reset_button");
    recorder_ = std::thread(&Board::recordLoop, this);
}

Board::~Board()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake();
    if (recorder_.joinable())
        recorder_.join();
    holderInput_.reset(); // ends the holder, and with it everything in its namespaces
    if (unshare_ > 0)
        waitFor(unshare_);
    if (child_ > 0) {
        kill(child_, SIGCONT); // nsenter(1), if the daemon was stopped
        waitFor(child_);
    }
}

void Board::startDaemon(const std::vector<std::string> &arguments)
{
    std::vector<std::string> command{"/usr/sbin/kelo-monitord"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    startBy(command);
}

void Board::startBy(const std::vector<std::string> &command)
{
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    {
        const std::lock_guard lock(mutex_);
        if (child_ > 0)
            throw std::runtime_error("the daemon runs already");
        asked_ = 0;
        child_ = spawnApart(insideRoot(command),
                            {nothing.get(), log_.write.get(), log_.write.get()}, environment_);
        childEnd_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, child_, 0)));
        fcntl(childEnd_.get(), F_SETFD, FD_CLOEXEC);
    }
    wake();
}

void Board::stopDaemon()
{
    const auto start = Clock::now();
    bool forced = false;
    while (signalDaemon(forced ? SIGKILL : SIGTERM)) {
        forced = Clock::now() - start > std::chrono::seconds(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return child_ < 0; });
}

bool Board::signalDaemon(int signal)
{
    {
        const std::lock_guard lock(mutex_);
        asked_ = signal;
    }
    return Access::signalDaemon(signal);
}

std::vector<Event> Board::events(size_t from) const
{
    const std::lock_guard lock(mutex_);
    const size_t start = std::clamp(from, firstPlace(), count_) - firstPlace();
    return {events_.begin() + static_cast<ptrdiff_t>(start), events_.end()};
}

size_t Board::mark() const
{
    const std::lock_guard lock(mutex_);
    return count_;
}

std::vector<Event> Board::next(size_t &place, Clock::duration patience) const
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return count_ > place; });
    place = std::max(place, firstPlace());
    const auto begin = events_.begin() + static_cast<ptrdiff_t>(place - firstPlace());
    const size_t length = std::min(count_ - place, eventsAtOnce);
    place += length;
    return {begin, begin + static_cast<ptrdiff_t>(length)};
}

std::vector<Event> Board::heldAt(Clock::time_point time, size_t &place) const
{
    const std::lock_guard lock(mutex_);
    const auto first =
        std::lower_bound(events_.begin(), events_.end(), time,
                         [](const Event &event, Clock::time_point t) { return event.time < t; });
    place = firstPlace() + static_cast<size_t>(first - events_.begin());
    return lastOfEach(events_.begin(), first);
}

Clock::time_point Board::keptSince() const
{
    const std::lock_guard lock(mutex_);
    return keptSince_;
}

bool Board::waitUntil(const std::function<bool(const std::vector<Event> &)> &condition,
                      Clock::duration deadline) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return condition(events_); });
}

void Board::record(EventKind kind, std::string text)
{
    const std::lock_guard lock(mutex_);
    append(kind, std::move(text));
}

/// Records an event under the record's lock. A record that is too long loses its oldest quarter,
/// but for what still holds.
void Board::append(EventKind kind, std::string text)
{
    events_.push_back({Clock::now(), kind, std::move(text)});
    count_++;
    bytes_ += sizeOf(events_.back());
    if (bytes_ > keep_) {
        auto first = events_.begin();
        for (size_t dropped = 0; dropped < keep_ / 4 && first + 1 != events_.end(); ++first)
            dropped += sizeOf(*first);
        keptSince_ = first->time;
        std::vector<Event> held = lastOfEach(events_.begin(), first);
        events_.erase(std::move(held.begin(), held.end(), events_.begin()), first);
        bytes_ = 0;
        for (const Event &event : events_)
            bytes_ += sizeOf(event);
    }
    changed_.notify_all();
}

void Board::wake() const
{
    // A full pipe wakes as well.
    [[maybe_unused]] const ssize_t written = write(wake_.write.get(), "", 1);
}

void Board::recordLoop()
{
    for (;;) {
        int childEnd;
        {
            const std::lock_guard lock(mutex_);
            if (ending_)
                return;
            childEnd = childEnd_.get();
        }
        pollfd sources[] = {{leds_.get(), POLLIN, 0},
                            {log_.read.get(), POLLIN, 0},
                            {files_.get(), POLLIN, 0},
                            {wake_.read.get(), POLLIN, 0},
                            {childEnd, POLLIN, 0}};
        poll(sources, std::size(sources), -1);
        if (sources[1].revents)
            readLog();
        if (sources[0].revents)
            readLeds();
        if (sources[2].revents)
            readFileEvents();
        if (sources[3].revents)
            readAll(wake_.read.get());
        if (sources[4].revents) {
            // What the daemon did last comes before its end.
            readLog();
            readLeds();
            readFileEvents();
            reapDaemon();
        }
    }
}

void Board::readLeds()
{
    ledText_ += readAll(leds_.get());
    size_t end;
    while ((end = ledText_.find('\n')) != std::string::npos) {
        int gpio;
        int level;
        if (sscanf(ledText_.c_str(), "active %d %d", &gpio, &level) == 2) {
            const auto *const led = std::find(std::begin(ledGpios), std::end(ledGpios), gpio);
            if (led != std::end(ledGpios))
                flags_[static_cast<size_t>(led - ledGpios)] = level == 0 ? '1' : '0';
            if (gpio == lastGpio)
                record(EventKind::Leds, flags_);
        }
        ledText_.erase(0, end + 1);
    }
}

void Board::readLog()
{
    char buffer[4096];
    ssize_t length;
    while ((length = read(log_.read.get(), buffer, sizeof buffer)) > 0) {
        std::string text(buffer, static_cast<size_t>(length));
        int from;
        int to;
        const bool isSwitch =
            sscanf(text.c_str(), "kelo-monitord: switch display mode %d -> %d", &from, &to) == 2;
        record(EventKind::Log, std::move(text));
        if (isSwitch)
            record(EventKind::Mode, std::to_string(to));
    }
}

void Board::readFileEvents()
{
    alignas(inotify_event) char buffer[4096];
    ssize_t length;
    while ((length = read(files_.get(), buffer, sizeof buffer)) > 0) {
        for (const char *position = buffer; position < buffer + length;) {
            const auto *const event = reinterpret_cast<const inotify_event *>(position);
            position += sizeof(inotify_event) + event->len;
            const std::string name = event->len ? event->name : "";
            const std::string file = watched_[event->wd] + "/" + name;
            if (file == "/board/calls") {
                readCalls();
            } else if (event->mask & IN_MODIFY) {
                continue; // its end is reported too
            } else if (file == "/var/run/kelo-monitord.netinfo") {
                record(EventKind::Snapshot, readFile(path(file)));
            } else {
                noteHardware("laser_rx_dbm", EventKind::Laser, file);
                noteHardware("gpon_state", EventKind::Gpon, file);
                noteHardware("reset_button", EventKind::Button, file);
            }
        }
    }
}

/// Records a hardware file that holds something new.
void Board::noteHardware(const std::string &name, EventKind kind, const std::string &boardPath)
{
    if (std::filesystem::path(boardPath).filename() != name)
        return;
    std::string text = readFile(path(boardPath));
    text.erase(std::find(text.begin(), text.end(), '\n'), text.end());
    const auto known = hardware_.find(kind);
    if (known != hardware_.end() && known->second == text)
        return;
    hardware_[kind] = text;
    record(kind, text);
}

void Board::readCalls()
{
    // A writer that opened the file before it was replaced may have come since.
    if (callsBefore_)
        callText_ += readAll(callsBefore_.get());
    callText_ += readAll(calls_.get());
    if (lseek(calls_.get(), 0, SEEK_CUR) > longestCalls) {
        put("/board/calls", "");
        callText_ += readAll(calls_.get());
        callsBefore_ = std::move(calls_);
        calls_ = Descriptor(open(path("/board/calls").c_str(), O_RDONLY | O_CLOEXEC));
    }
    size_t end;
    while ((end = callText_.find('\n')) != std::string::npos) {
        const std::string line = callText_.substr(0, end);
        callText_.erase(0, end + 1);
        const std::string function = firstWord(line);
        const std::string arguments = line.substr(std::min(line.size(), function.size() + 1));
        if (function.starts_with("tcapiSet"))
            record(EventKind::Store, arguments);
        else if (function == "omci")
            record(EventKind::Omci, arguments);
        else
            record(EventKind::Call, line);
    }
}

void Board::reapDaemon()
{
    const std::lock_guard lock(mutex_);
    if (child_ < 0)
        return;
    const int status = waitFor(child_);
    child_ = -1;
    childEnd_.reset();
    // Who detaches leaves the daemon behind.
    const bool asked = asked_ ? status == 0 || status == 128 + asked_ : status == 0 && daemon();
    append(EventKind::Exit, (status > 128 ? std::string("signal ") + sigabbrev_np(status - 128)
                                          : "status " + std::to_string(status)) +
                                (asked ? "" : " unasked"));
}

} // namespace kelo
