/// What every fuzz target is made of. A target is an unmodified module on the fakes of the unit
/// tests, which note each call, and a model that notes what should have been called: the two notes
/// have to be equal.

#pragma once

#include "fakes/journal.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace fuzz {

/// The bytes of one input, read from the front; zeros once they have run out.
class Input {
public:
    Input(const uint8_t *bytes, size_t size) : at_(bytes), left_(size) {}

    bool empty() const { return left_ == 0; }

    template <typename T>
    T take()
    {
        static_assert(std::is_trivially_copyable_v<T>);
        T value = {};
        const std::string bytes = text(sizeof value);
        memcpy(&value, bytes.data(), bytes.size());
        return value;
    }

    uint8_t byte()
    {
        if (left_ == 0)
            return 0;
        left_--;
        return *at_++;
    }

    /// From -128 to 127.
    int small()
    {
        const uint8_t value = byte();
        return value < 128 ? value : value - 256;
    }

    bool flag() { return (byte() & 1) != 0; }

    /// That many bytes, or what is left.
    std::string text(size_t length)
    {
        if (length > left_)
            length = left_;
        std::string result(length, '\0');
        for (size_t i = 0; i < length; i++)
            result[i] = static_cast<char>(at_[i]);
        at_ += length;
        left_ -= length;
        return result;
    }

private:
    const uint8_t *at_;
    size_t left_;
};

/// A text up to its first NUL.
inline std::string upToNul(std::string text)
{
    text.resize(strlen(text.c_str()));
    return text;
}

/// Notes a line that the journal of the fakes should have, made as by printf(3).
void due(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// The lines that are due.
fakes::Lines &expected();

/// Ends the program unless the journal has all that was due and nothing else, in order. Begins
/// anew.
void compare();

/// Ends the program with what went wrong.
[[noreturn]] void wrong(const char *what);

/// Gives the module's variables the values that they had at the start of the program, and the fakes
/// theirs.
void restart();

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
