/// The log function: any result of formatting, any length of message, any call-site names.

#include "fakes/process.h"
#include "fuzz.h"
#include "kelo-monitord.h"

#include <algorithm>
#include <cstdio>

using fuzz::due;

// The log has hardly a branch: what is to be tried is each row of the table of record shapes with
// each kind of message. These libFuzzer takes for branches.
constexpr size_t kinds = 8;
constexpr size_t shapes = 8;
__attribute__((section("__libfuzzer_extra_counters"))) uint8_t tried[kinds * shapes];

namespace {

/// The record as documented, from the message and what formatting it gave.
std::string documented(const std::string &message, int result, const std::string &suffix)
{
    constexpr size_t room = 1024;
    std::string text = ("kelo-monitord: " + message).substr(0, room - 1);
    const auto count = static_cast<size_t>((15 + static_cast<long>(result)) & 0xff);
    if (count < 128 && count > text.size()) // past the end of a message that could not be made
        return text;
    if (count < 128)
        return text.substr(0, count) + suffix.substr(0, room - 1 - count);
    const size_t before = 256 - count;
    if (suffix.size() < before)
        return text;
    return suffix.substr(before, room - 1);
}

// Formats a message both ways.
#define LOG(...)                                                                                   \
    do {                                                                                           \
        char formatted[8192];                                                                      \
        result = snprintf(formatted, sizeof formatted, __VA_ARGS__);                               \
        message.assign(formatted, static_cast<size_t>(result < 0 ? 0 : result));                   \
        returned = kelo_log(file.c_str(), line, function.c_str(), __VA_ARGS__);                    \
    } while (false)

/// The row of the table.
size_t shapeOf(int result, const std::string &suffix)
{
    const auto count = static_cast<size_t>((15 + static_cast<long>(result)) & 0xff);
    const size_t row = count < 128 ? 0 : suffix.size() < 256 - count ? 1 : 2;
    return row + (result > 1008 ? 3 : 0);
}

/// A text without NUL: a byte of the input says how long, the bytes that it repeats follow.
std::string anyText(fuzz::Input &input, size_t longest)
{
    const size_t length = input.take<uint16_t>() % (longest + 1);
    std::string pattern = input.text(input.byte() % 16);
    for (char &character : pattern) {
        if (character == '\0')
            character = ' ';
    }
    std::string text;
    while (text.size() < length)
        text += pattern.empty() ? "." : pattern;
    text.resize(length);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz::Input input(bytes, size);
    const uint8_t kind = input.byte();
    const std::string file = anyText(input, 1200);
    const std::string function = anyText(input, kind & 0x80 ? 1200 : 60);
    const auto line = input.take<int32_t>();
    const auto number = input.take<int32_t>();
    const bool forced = kind % kinds == 0;
    fuzz::restart();
    fakes::journal().detailed = true;
    fakes::process().fputsResult = kind & 0x40 ? EOF : 1;
    std::string message;
    int result;
    int returned;
    const std::string text = forced ? "" : anyText(input, 3000);
    switch (kind % kinds) {
    case 0:
        fakes::process().formatResult = number;
        returned = kelo_log(file.c_str(), line, function.c_str(), "forced");
        result = number;
        message = std::string(static_cast<size_t>(std::clamp(number, 0, 2000)), '#');
        break;
    case 1:
        LOG("%s", text.c_str());
        break;
    case 2:
        LOG("Failed to allocate memory");
        break;
    case 3:
        LOG("%s %s route %s/%d via %s on %s(%d)", "New", "IPv6", text.c_str(), number, text.c_str(),
            "nas0", number);
        break;
    case 4:
        LOG("received \"%s\"\n", text.c_str());
        break;
    case 5:
        LOG("%*d", number % 3000, number);
        break;
    case 6:
        LOG("%lc", static_cast<wint_t>(number)); // fails for most
        break;
    default:
        LOG("100%%");
        break;
    }
    const std::string suffix = " [" + file + ":" + std::to_string(line) + " " + function + "]\n";
    tried[kind % kinds * shapes + shapeOf(result, suffix)] = 1;
    if (returned != fakes::process().fputsResult)
        fuzz::wrong("the result is not that of fputs");
    const fakes::Lines done = fakes::journal().take();
    if (done.size() != 4 || !done[1].starts_with("vsnprintf 1009 "))
        fuzz::wrong("the message has another room than the rest of the line");
    fakes::journal().add(done.back());
    due("stderr %s", documented(message, result, suffix).c_str()); // up to a formatted NUL
    fuzz::compare();
    return 0;
}