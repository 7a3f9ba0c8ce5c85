#include "witness.h"

#include "device.h"
#include "wire.h"

#include <event2/event.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace kelo::device;

constexpr int channelRoom = 1 << 20; // bytes that may wait for us, as much as any user may have
constexpr char stampMark = '\035';   // before an entry of a driver that stamps it
constexpr char portNote[] = "syscfg_getPortBytes ";
constexpr char besideNote[] = "syscfg_re"; // boot, storeDefaultBg
constexpr char recordStart[] = "kelo-monitord: ";

struct Hardware {
    const char *kind;
    const char *path;
    char text[64];
    int watch; // of the file itself; -1 where its folder is watched
};
Hardware hardware[] = {
    {"laser", laserPath, "", -1}, {"gpon", gponPath, "", -1}, {"button", buttonPath, "", -1}};

int channel = -1;
int watcher = -1;
int hardwareWatch = -1;
int runWatch = -1;
int ledWatch = -1; // of the driver's own file
char flags[] = "??????";
timespec stamp;  // of the entry that is being taken
int snapshots;   // that were replaced and are not recorded yet
bool afterPorts; // the last entry was a port that was read

/// Reads the start of a file; returns its length, 0 without the file.
size_t readFile(const char *path, char *text, size_t room)
{
    const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const ssize_t length = file < 0 ? 0 : read(file, text, room);
    if (file >= 0)
        close(file);
    return length > 0 ? static_cast<size_t>(length) : 0;
}

void emit(const char *kind, const char *text, size_t length)
{
    wire_event(stamp, kind, text, length);
}

void emitSnapshot()
{
    static char text[4096];
    snapshots--;
    emit("snapshot", text, readFile(snapshotPath, text, sizeof text));
}

void takeHardware(Hardware &file)
{
    char text[sizeof file.text];
    text[readFile(file.path, text, sizeof text - 1)] = '\0';
    witness_turn(file.path, text);
}

/// The button's folder is that of the LED lines, which every tick writes: the file is watched.
void watchButton(Hardware &button)
{
    button.watch = inotify_add_watch(watcher, button.path, IN_CLOSE_WRITE);
}

/// How long the LED line at the start of a text is; 0 when there is none.
size_t ledLength(const char *text)
{
    constexpr char command[] = "active ";
    constexpr char digits[] = "0123456789";
    if (strncmp(text, command, strlen(command)) != 0)
        return 0;
    const char *at = text + strlen(command);
    at += strspn(at, digits);
    if (*at++ != ' ')
        return 0;
    at += strspn(at, digits);
    return *at == '\n' ? static_cast<size_t>(at + 1 - text) : 0;
}

void takeLed(const char *line)
{
    int gpio;
    int level;
    if (sscanf(line, "active %d %d", &gpio, &level) != 2)
        return;
    constexpr int count = sizeof ledGpios / sizeof *ledGpios;
    for (int led = 0; led < count; led++) {
        if (gpio == ledGpios[led])
            flags[led] = level == 0 ? '1' : '0';
    }
    if (gpio == ledGpios[count - 1])
        emit("leds", flags, count);
}

/// Takes the LEDs from the driver's own file. Returns false where that does not tell all of them.
bool readLeds()
{
    char text[256] = "";
    readFile(ledPath, text, sizeof text - 1);
    int lines = 0;
    for (const char *at = text; ledLength(at) > 0; at += ledLength(at))
        lines++;
    if (lines != sizeof ledGpios / sizeof *ledGpios)
        return false;
    for (const char *at = text; ledLength(at) > 0; at += ledLength(at))
        takeLed(at);
    return true;
}

void readWatcher()
{
    alignas(inotify_event) static char buffer[8192];
    ssize_t length;
    while ((length = read(watcher, buffer, sizeof buffer)) > 0) {
        for (const char *at = buffer; at < buffer + length;) {
            inotify_event event;
            memcpy(&event, at, sizeof event);
            const char *const name = event.len ? at + sizeof event : "";
            at += sizeof event + event.len;
            if (event.wd == ledWatch) {
                readLeds();
                continue;
            }
            if (event.wd == runWatch) {
                snapshots +=
                    (event.mask & IN_MOVED_TO) && strcmp(name, strrchr(snapshotPath, '/') + 1) == 0;
                continue;
            }
            for (Hardware &file : hardware) {
                if (event.wd == file.watch) {
                    takeHardware(file);
                } else if (strcmp(name, strrchr(file.path, '/') + 1) == 0) {
                    if (event.wd != hardwareWatch && (event.mask & IN_MOVED_TO))
                        watchButton(file);
                    takeHardware(file);
                }
            }
        }
    }
}

/// A snapshot replaces the old one behind its last port and before the daemon lets out anything
/// else.
void endPorts()
{
    if (!afterPorts)
        return;
    afterPorts = false;
    if (snapshots == 0)
        readWatcher();
    if (snapshots > 0)
        emitSnapshot();
}

void takeNote(const char *note, size_t length)
{
    if (length > 0 && note[length - 1] == '\n')
        length--;
    const auto *const blank = static_cast<const char *>(memchr(note, ' ', length));
    const size_t function = blank ? static_cast<size_t>(blank - note) : length;
    const size_t arguments = function < length ? function + 1 : length;
    if (strncmp(note, "tcapiSet", 8) == 0)
        emit("store", note + arguments, length - arguments);
    else if (function == 4 && strncmp(note, "omci", 4) == 0)
        emit("omci", note + arguments, length - arguments);
    else
        emit("call", note, length);
}

void takeRecord(const char *record, size_t length)
{
    emit("log", record, length);
    char start[64] = "";
    memcpy(start, record, length < sizeof start ? length : sizeof start - 1);
    int from;
    int to;
    if (sscanf(start, "kelo-monitord: switch display mode %d -> %d", &from, &to) == 2) {
        char mode[16];
        emit("mode", mode, static_cast<size_t>(snprintf(mode, sizeof mode, "%d", to)));
    }
}

/// Whether the daemon may have begun another entry here.
bool isStart(const char *text)
{
    return *text == noteMark || ledLength(text) > 0 ||
           strncmp(text, recordStart, strlen(recordStart)) == 0;
}

/// The length of the first entry in what one read(2) gave. All but the LED lines and omci write
/// packets, which are read one by one. Behind a LED line or a line of omci the kernel may have put
/// what came next, so such a text is cut wherever an entry seems to start. Only there would a log
/// record that quotes another entry be cut.
size_t entryLength(const char *text, size_t length)
{
    if (const size_t led = ledLength(text))
        return led;
    if (*text == noteMark) {
        const char *const end = strchr(text, '\n');
        return end ? static_cast<size_t>(end - text) + 1 : length;
    }
    size_t end = 1;
    while (end < length && !isStart(text + end))
        end++;
    return end;
}

void takeEntry(const char *text, size_t length)
{
    const bool isNote = *text == noteMark;
    const bool isPort = isNote && strncmp(text + 1, portNote, strlen(portNote)) == 0;
    // A child of the daemon's reboots or restores, beside whatever that does.
    const bool isBeside = isNote && strncmp(text + 1, besideNote, strlen(besideNote)) == 0;
    if (!isBeside) {
        if (!isPort || text[1 + strlen(portNote)] == '1')
            endPorts();
        afterPorts = isPort;
    }
    if (isNote)
        takeNote(text + 1, length - 1);
    else if (ledLength(text) == length)
        takeLed(text);
    else
        takeRecord(text, length);
}

void readChannel()
{
    static char buffer[channelRoom + 1];
    ssize_t length;
    while ((length = read(channel, buffer, channelRoom)) > 0) {
        clock_gettime(CLOCK_MONOTONIC, &stamp);
        buffer[length] = '\0';
        const char *text = buffer;
        if (*text == stampMark) {
            char *end;
            stamp.tv_sec = static_cast<time_t>(strtoll(text + 1, &end, 10));
            stamp.tv_nsec = strtol(end + 1, &end, 10);
            text = end + 1;
        }
        const char *const end = buffer + length;
        const bool mayBeSeveral = *text != noteMark ? *text == 'a' : text[1] == 'o';
        while (text < end) {
            const auto left = static_cast<size_t>(end - text);
            const size_t entry = mayBeSeveral ? entryLength(text, left) : left;
            takeEntry(text, entry);
            text += entry;
        }
    }
}

void onActivity(int, short, void *)
{
    witness_look();
}

} // namespace

int witness_start(event_base *base)
{
    struct stat status;
    if (stat(ledPath, &status) < 0 && mkfifo(ledPath, 0666) == 0)
        chmod(ledPath, 0666);
    unlink(channelPath);
    if (link(ledPath, channelPath) < 0 && symlink(ledPath, channelPath) < 0)
        return -1;
    // Open for writing too: there is no end of file.
    channel = open(channelPath, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    const int writing = open(channelPath, O_WRONLY | O_CLOEXEC);
    if (channel < 0 || watcher < 0 || writing < 0)
        return -1;
    fcntl(channel, F_SETPIPE_SZ, channelRoom);
    fcntl(writing, F_SETFL, O_DIRECT); // packets
    // Both ends of a rename: equal events in a row would be one.
    runWatch = inotify_add_watch(watcher, runFolder, IN_MOVE);
    hardwareWatch = inotify_add_watch(watcher, hardwareFolder, IN_CLOSE_WRITE | IN_MOVED_TO);
    inotify_add_watch(watcher, "/proc/tc3162", IN_MOVED_TO);
    watchButton(hardware[2]);
    clock_gettime(CLOCK_MONOTONIC, &stamp);
    for (Hardware &file : hardware)
        takeHardware(file);
    const int sources[] = {channel, watcher};
    for (const int descriptor : sources)
        event_add(event_new(base, descriptor, EV_READ | EV_PERSIST, onActivity, nullptr), nullptr);
    return writing;
}

bool witness_watch(event_base *base)
{
    watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    runWatch = inotify_add_watch(watcher, runFolder, IN_MOVE);
    ledWatch = inotify_add_watch(watcher, ledPath, IN_CLOSE_WRITE);
    clock_gettime(CLOCK_MONOTONIC, &stamp);
    event_add(event_new(base, watcher, EV_READ | EV_PERSIST, onActivity, nullptr), nullptr);
    return readLeds();
}

void witness_log(const char *text, size_t length)
{
    clock_gettime(CLOCK_MONOTONIC, &stamp);
    takeRecord(text, length);
}

void witness_look()
{
    clock_gettime(CLOCK_MONOTONIC, &stamp);
    readWatcher();
    readChannel();
    // With no port read before it, a snapshot is somebody else's; with one it ends that run.
    while (snapshots > 0) {
        afterPorts = false;
        emitSnapshot();
    }
}

void witness_note(const char *kind, const char *text)
{
    clock_gettime(CLOCK_MONOTONIC, &stamp);
    emit(kind, text, strlen(text));
}

bool witness_turn(const char *path, const char *text)
{
    for (Hardware &file : hardware) {
        if (strcmp(file.path, path) != 0)
            continue;
        char value[sizeof file.text] = "";
        strncpy(value, text, sizeof value - 1);
        value[strcspn(value, "\n")] = '\0';
        if (strcmp(value, file.text) != 0) {
            memcpy(file.text, value, sizeof value);
            emit(file.kind, value, strlen(value));
        }
        return true;
    }
    return false;
}
