#include "files.h"

#include "faults.h"
#include "journal.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/types.h>

using fakes::files;
using fakes::firstDescriptor;
using fakes::misuse;
using fakes::note;

namespace {

std::map<int, std::string> &descriptors()
{
    static auto &paths = *new std::map<int, std::string>; // outlives every other static object
    return paths;
}

/// The path behind a descriptor, or the descriptor itself.
std::string nameOf(int fd)
{
    const auto found = descriptors().find(fd);
    return found == descriptors().end() ? std::to_string(fd) : found->second;
}

bool isForeign(int fd)
{
    return fd < firstDescriptor && !descriptors().contains(fd);
}

bool isOurs(const char *path)
{
    const std::string_view name = path;
    return name.starts_with("/proc/tc3162/") || name.starts_with("/var/run/kelo-monitord");
}

/// The result of a call that fails with `error`, or succeeds where that is 0.
int result(int error)
{
    if (error != 0)
        errno = error;
    return error == 0 ? 0 : -1;
}

int errorOf(const std::map<std::string, int> &errors, const std::string &path)
{
    const auto found = errors.find(path);
    return found == errors.end() ? 0 : found->second;
}

/// Why a file cannot be opened, 0 when it was.
int openError(const std::string &path, bool anew)
{
    if (const int error = errorOf(files().openErrors, path))
        return error;
    if (anew)
        files().content[path].clear();
    else if (!files().content.contains(path))
        return ENOENT;
    files().openCount++;
    return 0;
}

void append(const std::string &path, const char *bytes, size_t size)
{
    note("write %s: %.*s", path.c_str(), static_cast<int>(size), bytes);
    if (!files().writesFail)
        files().content[path].append(bytes, size);
}

/// An open stream, the cookie of fopencookie(3).
struct Stream {
    std::string path;
    size_t position;
};

ssize_t readStream(void *cookie, char *buffer, size_t size)
{
    auto *const stream = static_cast<Stream *>(cookie);
    if (fakes::fails("fread", stream->path))
        return -1;
    const size_t read = files().content[stream->path].copy(buffer, size, stream->position);
    stream->position += read;
    return static_cast<ssize_t>(read);
}

ssize_t writeStream(void *cookie, const char *bytes, size_t size)
{
    if (fakes::fails("fwrite", static_cast<Stream *>(cookie)->path))
        return 0;
    append(static_cast<Stream *>(cookie)->path, bytes, size);
    return files().writesFail ? 0 : static_cast<ssize_t>(size);
}

int closeStream(void *cookie)
{
    auto *const stream = static_cast<Stream *>(cookie);
    note("close %s", stream->path.c_str());
    const bool failure = fakes::fails("fclose", stream->path);
    delete stream;
    files().openCount--;
    return failure || files().closeFails ? EOF : 0;
}

} // namespace

fakes::Files &fakes::files()
{
    static auto &instance = *new Files; // outlives every other static object
    return instance;
}

extern "C" {

int __real_open(const char *path, int flags, ...);
ssize_t __real_read(int fd, void *buffer, size_t size);
int __real_close(int fd);
FILE *__real_fopen(const char *path, const char *mode);
int __real_unlink(const char *path);
int __real_mkfifo(const char *path, mode_t mode);
int __real_rename(const char *from, const char *to);

int __wrap_open(const char *path, int flags, ...)
{
    if (!isOurs(path)) {
        va_list arguments;
        va_start(arguments, flags);
        const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
        va_end(arguments);
        return __real_open(path, flags, mode);
    }
    note("open %s 0x%x", path, static_cast<unsigned>(flags));
    if (fakes::fails("open", path) || result(openError(path, false)) != 0)
        return -1;
    int fd = firstDescriptor;
    while (descriptors().contains(fd))
        fd++;
    descriptors()[fd] = path;
    return fd;
}

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    if (fd < 0)
        misuse("read of a descriptor that was never opened");
    if (isForeign(fd))
        return __real_read(fd, buffer, size);
    if (!descriptors().contains(fd))
        misuse("read from a closed descriptor");
    note("read fd=%d size=%zu", fd, size);
    if (fakes::fails("read", nameOf(fd)))
        return -1;
    if (files().readError != 0)
        return result(files().readError);
    if (files().chunks.empty())
        return 0;
    std::string &chunk = files().chunks.front();
    const size_t length = chunk.copy(static_cast<char *>(buffer), size);
    memset(static_cast<char *>(buffer) + length, '#', size - length); // behind what was read
    chunk.erase(0, length);
    if (chunk.empty())
        files().chunks.pop_front();
    return static_cast<ssize_t>(length);
}

int __wrap_close(int fd)
{
    if (fd < 0)
        misuse("close of a descriptor that was never opened");
    if (fd > 2 && isForeign(fd))
        return __real_close(fd);
    note("close %d", fd);
    // A descriptor is gone even where its close fails.
    const bool failure = fakes::fails("close", nameOf(fd));
    if (descriptors().erase(fd) != 0)
        files().openCount--;
    else if (fd > 2)
        misuse("close of a closed descriptor");
    return failure || files().closeFails ? result(EIO) : 0;
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!isOurs(path))
        return __real_fopen(path, mode);
    note("fopen %s %s", path, mode);
    if (strcmp(mode, "r") != 0 && strcmp(mode, "w") != 0)
        misuse("fopen with another mode than r and w");
    if (fakes::fails("fopen", path) || result(openError(path, *mode == 'w')) != 0)
        return nullptr;
    return fopencookie(new Stream{path, 0}, mode, {readStream, writeStream, nullptr, closeStream});
}

int __wrap_unlink(const char *path)
{
    if (!isOurs(path))
        return __real_unlink(path);
    note("unlink %s", path);
    if (fakes::fails("unlink", path))
        return -1;
    if (const int error = errorOf(files().fileErrors, path))
        return result(error);
    return result(files().content.erase(path) == 0 ? ENOENT : 0);
}

int __wrap_mkfifo(const char *path, mode_t mode)
{
    if (!isOurs(path))
        return __real_mkfifo(path, mode);
    note("mkfifo %s %04o", path, mode);
    if (fakes::fails("mkfifo", path))
        return -1;
    if (const int error = errorOf(files().fileErrors, path))
        return result(error);
    return result(files().content.emplace(path, "").second ? 0 : EEXIST);
}

int __wrap_rename(const char *from, const char *to)
{
    if (!isOurs(from))
        return __real_rename(from, to);
    note("rename %s %s", from, to);
    if (fakes::fails("rename", from))
        return -1;
    if (const int error = errorOf(files().fileErrors, from))
        return result(error);
    files().content[to] = std::move(files().content[from]);
    files().content.erase(from);
    return 0;
}
}
