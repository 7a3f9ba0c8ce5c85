#include "screen.h"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

// Last: curses defines macros with everyday names.
#include <curses.h>
#include <term.h>
#undef columns

namespace kelo::panel {

namespace {

// What gives the terminal back from a signal handler, which must not call curses.
termios terminalBefore;
char resetSequence[256];

void giveBackAndDie(int number)
{
    [[maybe_unused]] const ssize_t written =
        write(STDOUT_FILENO, resetSequence, strlen(resetSequence));
    tcsetattr(STDIN_FILENO, TCSANOW, &terminalBefore);
    signal(number, SIG_DFL);
    raise(number);
}

/// What the terminal takes for something; null when it cannot do that.
const char *capability(const char *name)
{
    const char *const sequence = tigetstr(name);
    return sequence == reinterpret_cast<const char *>(-1) ? nullptr : sequence;
}

void prepareForDeath()
{
    std::string all;
    for (const char *const name : {"sgr0", "cnorm", "rmkx", "rmcup"}) {
        const char *const sequence = capability(name);
        if (sequence && all.size() + strlen(sequence) < sizeof resetSequence)
            all += sequence;
    }
    all.copy(resetSequence, all.size());
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        signal(number, giveBackAndDie);
}

attr_t toAttributes(Colour colour, unsigned attributes, bool colours)
{
    attr_t result = A_NORMAL;
    if (attributes & Screen::BOLD)
        result |= A_BOLD;
    if (attributes & Screen::REVERSE)
        result |= A_REVERSE;
    if (attributes & Screen::DIM)
        result |= A_DIM;
    if (colour == Colour::Title)
        result |= A_REVERSE;
    if (colours && colour != Colour::Plain && colour != Colour::Title)
        result |= static_cast<attr_t>(COLOR_PAIR(static_cast<int>(colour)));
    return result;
}

} // namespace

Screen::Screen()
{
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO))
        throw std::runtime_error("the panel needs a terminal; kelo-board up prints line by line");
    setlocale(LC_ALL, "");
    unicode_ = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    tcgetattr(STDIN_FILENO, &terminalBefore);

    const char *const type = getenv("TERM");
    if (!newterm(nullptr, stdout, stdin))
        throw std::runtime_error(std::string("the terminal type \"") + (type ? type : "") +
                                 "\" is not known (TERM); kelo-board up prints line by line");
    if (!capability("cup")) {
        endwin();
        throw std::runtime_error(
            std::string("a terminal of type \"") + (type ? type : "") +
            "\" cannot show a panel (TERM); kelo-board up prints line by line");
    }
    prepareForDeath();
    // What anything in this process says meanwhile would lie across the picture.
    fflush(stderr);
    errors_ = Descriptor(memfd_create("errors", MFD_CLOEXEC));
    standardError_ = Descriptor(dup(STDERR_FILENO));
    dup2(errors_.get(), STDERR_FILENO);

    cbreak();
    noecho();
    nonl();
    intrflush(stdscr, FALSE);
    keypad(stdscr, TRUE);
    set_escdelay(50);
    curs_set(0);
    timeout(0);
    const char *const noColour = getenv("NO_COLOR");
    if (!(noColour && *noColour) && has_colors()) {
        colours_ = true;
        start_color();
        use_default_colors();
        constexpr short colours[] = {COLOR_GREEN, COLOR_YELLOW, COLOR_RED, COLOR_CYAN,
                                     COLOR_MAGENTA};
        short pair = 1;
        for (const short colour : colours)
            init_pair(pair++, colour, -1);
    }
}

Screen::~Screen()
{
    endwin();
    giveBackErrors();
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        signal(number, SIG_DFL);
}

void Screen::giveBackErrors()
{
    fflush(stderr);
    dup2(standardError_.get(), STDERR_FILENO);
    lseek(errors_.get(), 0, SEEK_SET);
    fputs(readAll(errors_.get()).c_str(), stderr);
}

int Screen::rows() const
{
    return getmaxy(stdscr);
}

int Screen::columns() const
{
    return getmaxx(stdscr);
}

bool Screen::gone() const
{
    pollfd source{STDIN_FILENO, POLLIN, 0};
    return poll(&source, 1, 0) > 0 && (source.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

int Screen::key()
{
    return getch();
}

void Screen::clear()
{
    erase();
}

void Screen::show()
{
    refresh();
}

size_t Screen::bytes(const std::string &text, int width)
{
    size_t position = 0;
    while (position < text.size()) {
        wchar_t character;
        const int length = mbtowc(&character, text.c_str() + position, text.size() - position);
        width -= length > 0 ? std::max(0, wcwidth(character)) : 1;
        if (width < 0)
            break;
        position += static_cast<size_t>(std::max(1, length));
    }
    return position;
}

void Screen::put(int row, int column, int width, const std::string &text, Colour colour,
                 unsigned attributes)
{
    width = std::min(width, columns() - column);
    if (row < 0 || row >= rows() || column < 0 || width <= 0)
        return;
    attrset(toAttributes(colour, attributes, colours_));
    mvaddnstr(row, column, text.c_str(), static_cast<int>(bytes(text, width)));
    attrset(A_NORMAL);
}

void Screen::fill(int row, int column, int width, const char *character, Colour colour,
                  unsigned attributes)
{
    std::string text;
    for (int i = 0; i < width; i++)
        text += character;
    put(row, column, width, text, colour, attributes);
}

} // namespace kelo::panel
