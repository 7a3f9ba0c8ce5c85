// exec GUEST COMMAND ARGUMENT...: runs a command in a guest that target/malta/boot started, passes
// on what it prints as it comes, and ends with its exit status.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr int portCount = 4;
constexpr char mark = '\036';
constexpr int FAILED = 125;

/// One word of a shell's command line.
std::string quoted(const std::string &word)
{
    std::string result = "'";
    for (const char character : word) {
        if (character == '\'')
            result += "'\\''";
        else
            result += character;
    }
    return result + "'";
}

/// A port that no other command uses. The lock is held until this process ends.
std::string freePort(const std::string &guest)
{
    for (;;) {
        for (int port = 1; port <= portCount; port++) {
            const std::string name = guest + "/port" + std::to_string(port);
            const int lock = open((name + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            if (lock < 0) {
                perror(name.c_str());
                exit(FAILED);
            }
            if (flock(lock, LOCK_EX | LOCK_NB) == 0)
                return name;
            close(lock);
        }
        usleep(5000);
    }
}

/// Passes log records on one by one, as the daemon wrote them.
void pass(const std::string &text)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\nkelo-monitord: ", start);
        end = end == std::string::npos ? text.size() : end + 1;
        if (write(STDOUT_FILENO, text.data() + start, end - start) < 0)
            exit(FAILED);
        start = end;
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: exec GUEST COMMAND [ARGUMENT...]\n");
        return FAILED;
    }
    signal(SIGPIPE, SIG_IGN);
    const std::string port = freePort(argv[1]);
    const std::string token = std::to_string(getpid());
    std::string line = token;
    for (int i = 2; i < argc; i++)
        line.append(" ").append(quoted(argv[i]));
    if (line.find('\n') != std::string::npos) {
        fprintf(stderr, "a command is one line\n");
        return FAILED;
    }
    line += "\n";

    // Open for writing too: there is no end of file.
    const int out = open((port + ".out").c_str(), O_RDWR | O_CLOEXEC);
    const int in = open((port + ".in").c_str(), O_RDWR | O_CLOEXEC);
    if (out < 0 || in < 0 || write(in, line.data(), line.size()) != ssize_t(line.size())) {
        perror(port.c_str());
        return FAILED;
    }

    // What an earlier command left unread comes before the mark.
    const std::string begin = mark + token + "\n";
    const std::string end = mark + token + " ";
    bool begun = false;
    std::string text;
    for (;;) {
        char buffer[4096];
        const ssize_t length = read(out, buffer, sizeof buffer);
        if (length < 0 && errno != EINTR)
            return FAILED;
        if (length <= 0)
            continue;
        text.append(buffer, size_t(length));
        if (!begun) {
            const size_t position = text.find(begin);
            if (position == std::string::npos)
                continue;
            text.erase(0, position + begin.size());
            begun = true;
        }
        const size_t position = text.find(mark);
        if (position == std::string::npos) {
            pass(text);
            text.clear();
        } else if (text.compare(position, end.size(), end) == 0 && text.back() == '\n') {
            pass(text.substr(0, position));
            return atoi(text.c_str() + position + end.size());
        }
    }
}
