/// Programs that the board starts: util-linux, iproute2 and the daemon itself.

#pragma once

#include <spawn.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kelo {

/// A file descriptor that closes itself; -1 is none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset(int fd = -1);
    int release();

private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor read;
    Descriptor write;
};

/// A pipe, close-on-exec, with further pipe2(2) flags. Throws std::system_error.
Pipe makePipe(int flags = 0);

/// Standard descriptors of a program, and descriptor 3; -1 leaves the caller's.
struct Streams {
    int in = -1;
    int out = -1;
    int err = -1;
    int further = -1;
};

/// Starts a program, found through PATH, with flags of posix_spawn(3). Throws std::system_error
/// when it cannot be started.
pid_t spawn(const std::vector<std::string> &command, const Streams &streams, short flags = 0);

/// Starts a program that the terminal's Ctrl-C does not reach.
inline pid_t spawnApart(const std::vector<std::string> &command, const Streams &streams)
{
    return spawn(command, streams, POSIX_SPAWN_SETPGROUP);
}

/// Waits for a child's end; its exit status, or 128 and the signal's number as a shell has it.
int waitFor(pid_t child);

/// A descriptor that is readable once a process has ended; none when there is no such process.
Descriptor endOf(pid_t process);

/// Waits some time for a process's end, by what endOf gave; kills it when that does not come.
void makeEnd(const Descriptor &end, int milliseconds);

struct Result {
    int status;
    std::string output; ///< standard output and standard error together
};

/// Runs a program to its end.
Result run(const std::vector<std::string> &command);

/// Everything up to the end of a descriptor.
std::string readAll(int fd);

/// A whole file, empty when it cannot be read.
std::string readFile(const std::string &path);

/// Writes a whole file. Throws std::runtime_error in one line when it cannot.
void writeFile(const std::string &path, const std::string &text);

} // namespace kelo
