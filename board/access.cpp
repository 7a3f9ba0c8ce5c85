#include "access.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kelo {

namespace {

/// A board that is a machine of its own brings a program that runs commands there.
constexpr char insidePath[] = "/.inside";

[[noreturn]] void fail(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

bool sameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// The fields of /proc/PID/stat from the third on: state, parent, ...; see proc(5).
std::string statFields(const std::string &proc)
{
    const std::string stat = readFile(proc + "/stat");
    const size_t name = stat.rfind(") ");
    return name == std::string::npos ? "" : stat.substr(name + 2);
}

std::filesystem::path userNamespace(const std::string &process)
{
    std::error_code ignored;
    return std::filesystem::read_symlink("/proc/" + process + "/ns/user", ignored);
}

/// Whether a process is the daemon itself: not a zombie, and run under its name.
bool isDaemon(const std::string &proc)
{
    const std::string fields = statFields(proc);
    return !fields.empty() && fields[0] != 'Z' &&
           readFile(proc + "/cmdline").find("kelo-monitord") != std::string::npos;
}

pid_t parentOf(pid_t pid)
{
    const std::string fields = statFields("/proc/" + std::to_string(pid));
    return fields.empty() ? -1 : atoi(fields.c_str() + 2);
}

} // namespace

std::string Access::path(const std::string &boardPath) const
{
    const std::string prefix =
        place_.isolated ? "/proc/" + std::to_string(place_.holder) + "/root" : "";
    return prefix + place_.root + boardPath;
}

void Access::put(const std::string &boardPath, const std::string &text) const
{
    const std::string target = path(boardPath);
    const std::string temporary = target + ".new";
    {
        const Descriptor file(
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file || write(file.get(), text.data(), text.size()) != ssize_t(text.size()))
            fail("cannot write the board's " + boardPath);
    }
    if (rename(temporary.c_str(), target.c_str()) < 0)
        fail("cannot write the board's " + boardPath);
}

void Access::setLaser(const std::string &dbm) const
{
    put("/board/laser_rx_dbm", dbm + "\n");
}

void Access::setGpon(int state) const
{
    put("/board/gpon_state", std::to_string(state) + "\n");
}

void Access::setPort(int port, unsigned long long in, unsigned long long out) const
{
    put("/board/ports/" + std::to_string(port),
        std::to_string(in) + " " + std::to_string(out) + "\n");
}

void Access::removePort(int port) const
{
    std::filesystem::remove(path("/board/ports/" + std::to_string(port)));
}

void Access::setButton(int value) const
{
    if (!std::filesystem::exists(path("/proc/tc3162/reset_button")))
        throw std::runtime_error("the board's button file is gone");
    if (isMachine())
        exec({"sh", "-c", "echo " + std::to_string(value) + " > /proc/tc3162/reset_button"});
    put("/proc/tc3162/reset_button", std::to_string(value) + "\n");
}

void Access::writeKeyword(const std::string &text) const
{
    if (isMachine()) {
        std::string bytes;
        for (const char character : text) {
            char octal[8];
            snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(character));
            bytes += octal;
        }
        const std::string write = "printf '" + bytes + "' > /var/run/kelo-monitord.display";
        if (exec({"timeout", "5", "sh", "-c", write}).status != 0)
            throw std::runtime_error("cannot write into the display pipe");
        return;
    }
    const std::string pipePath = path("/var/run/kelo-monitord.display");
    const auto open = [&] { return ::open(pipePath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC); };
    // Between one writer's end and the next, the daemon has the pipe closed for a moment.
    Descriptor pipe(open());
    for (int attempt = 0; !pipe && errno == ENXIO && attempt < 100 && daemon(); attempt++) {
        usleep(5000);
        pipe.reset(open());
    }
    if (!pipe || write(pipe.get(), text.data(), text.size()) != ssize_t(text.size()))
        fail("cannot write into the display pipe");
    // Held open until the daemon has read it, which a close of its own in between could lose.
    int left = 0;
    for (int attempt = 0; attempt < 100; attempt++) {
        if (ioctl(pipe.get(), FIONREAD, &left) < 0 || left == 0)
            return;
        usleep(5000);
    }
}

std::optional<std::string> Access::stored(const std::string &node,
                                          const std::string &attribute) const
{
    std::ifstream file(path("/board/store/" + node + "/" + attribute));
    std::string value;
    if (!file || !std::getline(file, value))
        return std::nullopt;
    return value;
}

std::vector<std::string> Access::inside(const std::vector<std::string> &command) const
{
    std::vector<std::string> result;
    if (isMachine()) {
        result = {path(insidePath)};
    } else if (place_.isolated) {
        // The root again, because the board may be inside a chroot, and a folder that is in it.
        const std::string holder = std::to_string(place_.holder);
        result = {"nsenter", "--target", holder,  "--mount",
                  "--root",  "--net",    "--pid", "--wd=/proc/" + holder + "/root"};
        if (userNamespace(holder) != userNamespace("self"))
            result.insert(result.end(), {"--user", "--preserve-credentials"});
        result.push_back("--");
    }
    result.insert(result.end(), command.begin(), command.end());
    return result;
}

bool Access::isMachine() const
{
    return access(path(insidePath).c_str(), X_OK) == 0;
}

std::vector<std::string> Access::insideRoot(const std::vector<std::string> &command) const
{
    if (isMachine())
        return inside(command);
    std::vector<std::string> result{"chroot", place_.root};
    result.insert(result.end(), command.begin(), command.end());
    return inside(result);
}

Result Access::exec(const std::vector<std::string> &command) const
{
    return run(inside(command));
}

std::optional<pid_t> Access::daemon() const
{
    if (isMachine()) {
        // A child that the daemon forked has its name too, and a higher number.
        std::istringstream numbers(exec({"pidof", "kelo-monitord"}).output);
        const std::set<pid_t> sorted{std::istream_iterator<pid_t>(numbers), {}};
        return sorted.empty() ? std::nullopt : std::optional(*sorted.begin());
    }
    struct stat root;
    if (stat(path("/").c_str(), &root) < 0)
        return std::nullopt;
    // A child that the daemon forked has its name too, and a higher number.
    std::optional<pid_t> found;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string proc = entry.path();
        const pid_t pid = atoi(entry.path().filename().c_str());
        struct stat itsRoot;
        if (pid > 0 && (!found || pid < *found) && stat((proc + "/root/").c_str(), &itsRoot) == 0 &&
            sameFile(itsRoot, root) && isDaemon(proc))
            found = pid;
    }
    return found;
}

std::string Access::daemonFile(const std::string &name) const
{
    const std::optional<pid_t> pid = daemon();
    if (!pid)
        return {};
    const std::string file = "/proc/" + std::to_string(*pid) + "/" + name;
    return isMachine() ? exec({"cat", file}).output : readFile(file);
}

std::string Access::daemonState() const
{
    const std::string stat = daemonFile("stat");
    const size_t name = stat.rfind(") "); // see proc(5)
    if (name == std::string::npos)
        return "ended";
    const char state = stat[name + 2];
    return state == 'T' || state == 't' ? "stopped" : state == 'Z' ? "zombie" : "running";
}

bool Access::signalDaemon(int signal) const
{
    const std::optional<pid_t> pid = daemon();
    if (pid && isMachine())
        // By name: its kernel may number them differently.
        return exec({"kill", std::string("-") + sigabbrev_np(signal), std::to_string(*pid)})
                   .status == 0;
    if (!pid || kill(*pid, signal) != 0)
        return false;
    // nsenter(1) stops with its child and does not see it go on.
    const std::string parent = std::to_string(parentOf(*pid));
    if (signal == SIGCONT && readFile("/proc/" + parent + "/comm") == "nsenter\n")
        kill(atoi(parent.c_str()), SIGCONT);
    return true;
}

} // namespace kelo
