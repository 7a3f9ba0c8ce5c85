/// How the agent talks to the program that runs the board, and that to others: by lines, the agent
/// over standard input and output.
///
///   ID VERB WORD...            a request; ID is a number
///   ID ok WORD...              its answer
///   ID error TEXT              or why not
///   ID out TEXT                before that, what a command printed
///   event SECONDS.NANOSECONDS KIND TEXT     what happened, by the machine's monotonic clock
///
/// In a word, a byte that is not printable ASCII, a blank and the backslash are a backslash and two
/// hexadecimal digits; an empty word is "\-". A TEXT ends the line and keeps its blanks.

#pragma once

#include <cstddef>
#include <time.h>

struct event_base;

struct Request {
    unsigned long id;
    int count;    ///< of the words, the verb among them
    char **words; ///< ended by a null pointer
};

/// Starts to listen. `handle` gets every request, `ended` is called when there will be no more.
void wire_start(event_base *base, void (*handle)(const Request &), void (*ended)());

void wire_ok(unsigned long id);
/// Answers a request with what is words already.
[[gnu::format(printf, 2, 3)]] void wire_okWords(unsigned long id, const char *format, ...);
/// Answers it with one word of any bytes.
void wire_okText(unsigned long id, const char *text, size_t length);
[[gnu::format(printf, 2, 3)]] void wire_error(unsigned long id, const char *format, ...);
void wire_out(unsigned long id, const char *text, size_t length);
void wire_event(const timespec &time, const char *kind, const char *text, size_t length);
