#include "wire.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int wordsMax = 256;

bufferevent *in;
bufferevent *out;
void (*handleRequest)(const Request &);
void (*handleEnd)();

evbuffer *output()
{
    return bufferevent_get_output(out);
}

void addEscaped(const char *text, size_t length, bool isWord)
{
    if (isWord && length == 0)
        evbuffer_add_printf(output(), "\\-");
    size_t plain = 0; // where what needs no escape began
    for (size_t i = 0; i < length; i++) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte != '\\' && byte < 0x7f && (byte > ' ' || (byte == ' ' && !isWord)))
            continue;
        evbuffer_add(output(), text + plain, i - plain);
        evbuffer_add_printf(output(), "\\%02x", byte);
        plain = i + 1;
    }
    evbuffer_add(output(), text + plain, length - plain);
}

void addText(const char *text, size_t length)
{
    addEscaped(text, length, false);
    evbuffer_add(output(), "\n", 1);
}

int digit(char character)
{
    return character <= '9' ? character - '0' : (character | 0x20) - 'a' + 10;
}

/// Undoes the escapes, in place.
void unescape(char *word)
{
    char *to = word;
    for (const char *from = word; *from; from++) {
        if (from[0] == '\\' && from[1] == '-') {
            from++;
        } else if (from[0] == '\\' && from[1] && from[2]) {
            *to++ = static_cast<char>(digit(from[1]) << 4 | digit(from[2]));
            from += 2;
        } else {
            *to++ = *from;
        }
    }
    *to = '\0';
}

void take(char *line)
{
    char *words[wordsMax + 1];
    int count = 0;
    char *rest = nullptr;
    for (char *word = strtok_r(line, " ", &rest); word && count < wordsMax;
         word = strtok_r(nullptr, " ", &rest)) {
        unescape(word);
        words[count++] = word;
    }
    words[count] = nullptr;
    if (count < 2)
        return;
    handleRequest(Request{strtoul(words[0], nullptr, 10), count - 1, words + 1});
}

void onInput(bufferevent *, void *)
{
    while (char *const line =
               evbuffer_readln(bufferevent_get_input(in), nullptr, EVBUFFER_EOL_LF)) {
        take(line);
        free(line);
    }
}

void onEnd(bufferevent *, short, void *)
{
    handleEnd();
}

} // namespace

void wire_start(event_base *base, void (*handle)(const Request &), void (*ended)())
{
    handleRequest = handle;
    handleEnd = ended;
    evutil_make_socket_nonblocking(STDIN_FILENO);
    evutil_make_socket_nonblocking(STDOUT_FILENO);
    in = bufferevent_socket_new(base, STDIN_FILENO, 0);
    out = bufferevent_socket_new(base, STDOUT_FILENO, 0);
    bufferevent_setcb(in, onInput, nullptr, onEnd, nullptr);
    bufferevent_setcb(out, nullptr, nullptr, onEnd, nullptr);
    bufferevent_enable(in, EV_READ);
    bufferevent_disable(out, EV_READ);
}

void wire_ok(unsigned long id)
{
    evbuffer_add_printf(output(), "%lu ok\n", id);
}

void wire_okWords(unsigned long id, const char *format, ...)
{
    evbuffer_add_printf(output(), "%lu ok ", id);
    va_list arguments;
    va_start(arguments, format);
    evbuffer_add_vprintf(output(), format, arguments);
    va_end(arguments);
    evbuffer_add(output(), "\n", 1);
}

void wire_okText(unsigned long id, const char *text, size_t length)
{
    evbuffer_add_printf(output(), "%lu ok ", id);
    addEscaped(text, length, true);
    evbuffer_add(output(), "\n", 1);
}

void wire_error(unsigned long id, const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    evbuffer_add_printf(output(), "%lu error ", id);
    addText(text, strlen(text));
}

void wire_out(unsigned long id, const char *text, size_t length)
{
    evbuffer_add_printf(output(), "%lu out ", id);
    addText(text, length);
}

void wire_event(const timespec &time, const char *kind, const char *text, size_t length)
{
    evbuffer_add_printf(output(), "event %lld.%09ld %s ", static_cast<long long>(time.tv_sec),
                        time.tv_nsec, kind);
    addText(text, length);
}
