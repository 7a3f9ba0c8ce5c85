#include "process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kelo {

namespace {

std::vector<char *> pointers(const std::vector<std::string> &strings)
{
    std::vector<char *> result;
    result.reserve(strings.size() + 1);
    for (const std::string &string : strings)
        result.push_back(const_cast<char *>(string.c_str()));
    result.push_back(nullptr);
    return result;
}

} // namespace

void Descriptor::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

int Descriptor::release()
{
    return std::exchange(fd_, -1);
}

Pipe makePipe(int flags)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | flags) < 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

pid_t spawn(const std::vector<std::string> &command, const Streams &streams, short flags)
{
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_SETSIGDEF));
    sigset_t ignoredHere;
    sigemptyset(&ignoredHere);
    sigaddset(&ignoredHere, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &ignoredHere);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int wanted[] = {streams.in, streams.out, streams.err, streams.further};
    for (int fd = 0; fd <= 3; fd++) {
        if (wanted[fd] >= 0)
            posix_spawn_file_actions_adddup2(&actions, wanted[fd], fd);
    }
    pid_t child = -1;
    const int error = posix_spawnp(&child, command[0].c_str(), &actions, &attributes,
                                   pointers(command).data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error)
        throw std::system_error(error, std::generic_category(), "cannot start " + command[0]);
    return child;
}

int waitFor(pid_t child)
{
    int status;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Descriptor endOf(pid_t process)
{
    return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

void makeEnd(const Descriptor &end, int milliseconds)
{
    pollfd source{end.get(), POLLIN, 0};
    if (end && poll(&source, 1, milliseconds) == 0) {
        syscall(SYS_pidfd_send_signal, end.get(), SIGKILL, nullptr, 0);
        poll(&source, 1, milliseconds);
    }
}

Result run(const std::vector<std::string> &command)
{
    Pipe pipe = makePipe();
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const pid_t child = spawn(command, {nothing.get(), pipe.write.get(), pipe.write.get()});
    pipe.write.reset();
    std::string output = readAll(pipe.read.get());
    return {waitFor(child), std::move(output)};
}

std::string readAll(int fd)
{
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t length = read(fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return text;
        text.append(buffer, static_cast<size_t>(length));
    }
}

std::string readFile(const std::string &path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file ? readAll(file.get()) : std::string();
}

void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::trunc);
    file << text;
    if (!file.flush())
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
}

} // namespace kelo
