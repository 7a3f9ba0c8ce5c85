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

using fakes::detail;
using fakes::files;
using fakes::misuse;
using fakes::note;

namespace {

/// The path behind a descriptor, or the descriptor itself.
std::string nameOf(int fd)
{
    const auto found = files().descriptors.find(fd);
    return found == files().descriptors.end() ? std::to_string(fd) : found->second;
}

void onOurs(std::string_view path)
{
    if (!path.starts_with("/proc/tc3162/") && !path.starts_with("/var/run/kelo-monitord"))
        misuse("a file that is none of the daemon's");
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

FILE *openStream;

void onOpenStream(FILE *stream)
{
    if (!stream || stream != openStream)
        misuse("a stream that is not open");
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
    note("write %s: %s", path.c_str(), std::string(bytes, size).c_str());
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

int fake_open(const char *path, int flags, ...)
{
    onOurs(path);
    note("open %s 0x%x", path, static_cast<unsigned>(flags));
    if (fakes::fails("open", path) || result(openError(path, false)) != 0)
        return -1;
    if (!files().descriptors.emplace(files().nextDescriptor, path).second)
        misuse("open beside what is open already");
    return files().nextDescriptor;
}

ssize_t fake_read(int fd, void *buffer, size_t size)
{
    if (!files().descriptors.contains(fd))
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

int fake_close(int fd)
{
    note("close %d", fd);
    // A descriptor is gone even where its close fails.
    const bool failure = fakes::fails("close", nameOf(fd));
    if (files().descriptors.erase(fd) != 0)
        files().openCount--;
    else if (fd < 0 || fd > 2)
        misuse("close of a closed descriptor");
    return failure || files().closeFails ? result(EIO) : 0;
}

FILE *fake_fopen(const char *path, const char *mode)
{
    onOurs(path);
    note("fopen %s %s", path, mode);
    if (strcmp(mode, "r") != 0 && strcmp(mode, "w") != 0)
        misuse("fopen with another mode than r and w");
    if (fakes::fails("fopen", path) || result(openError(path, *mode == 'w')) != 0)
        return nullptr;
    openStream =
        fopencookie(new Stream{path, 0}, mode, {readStream, writeStream, nullptr, closeStream});
    return openStream;
}

int fake_setvbuf(FILE *stream, char *buffer, int mode, size_t size)
{
    onOpenStream(stream);
    detail("setvbuf %s %zu", mode == _IOFBF ? "full" : "other", size);
    return setvbuf(stream, buffer, mode, size);
}

int fake_fprintf(FILE *stream, const char *format, ...)
{
    onOpenStream(stream);
    detail("fprintf \"%s\"", format);
    va_list arguments;
    va_start(arguments, format);
    const int length = vfprintf(stream, format, arguments);
    va_end(arguments);
    return length;
}

int fake_fscanf(FILE *stream, const char *format, ...)
{
    onOpenStream(stream);
    detail("fscanf \"%s\"", format);
    va_list arguments;
    va_start(arguments, format);
    const int count = vfscanf(stream, format, arguments);
    va_end(arguments);
    return count;
}

// What glibc calls it in C++14 and in later standards.
int fake___isoc99_fscanf(FILE *, const char *, ...) __attribute__((alias("fake_fscanf")));
int fake___isoc23_fscanf(FILE *, const char *, ...) __attribute__((alias("fake_fscanf")));

int fake_fclose(FILE *stream)
{
    onOpenStream(stream);
    openStream = nullptr;
    detail("fclose");
    return fclose(stream);
}

int fake_unlink(const char *path)
{
    onOurs(path);
    note("unlink %s", path);
    if (fakes::fails("unlink", path))
        return -1;
    if (const int error = errorOf(files().fileErrors, path))
        return result(error);
    return result(files().content.erase(path) == 0 ? ENOENT : 0);
}

int fake_mkfifo(const char *path, mode_t mode)
{
    onOurs(path);
    note("mkfifo %s %04o", path, mode);
    if (fakes::fails("mkfifo", path))
        return -1;
    if (const int error = errorOf(files().fileErrors, path))
        return result(error);
    return result(files().content.emplace(path, "").second ? 0 : EEXIST);
}

int fake_rename(const char *from, const char *to)
{
    onOurs(from);
    onOurs(to);
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
