/// The words of a line between programs: to the agent, which knows them by agent/wire.h, and to the
/// program that runs a board.

#pragma once

#include <string>
#include <vector>

namespace kelo {

using Words = std::vector<std::string>;

/// Words, and more of them behind.
Words concat(Words words, const Words &more);

/// A text as one word, or as the rest of a line, which keeps its blanks.
std::string toWord(const std::string &text);
std::string toRest(const std::string &text);
/// What either of them was made of.
std::string unescaped(const std::string &text);

/// Words as a line, without its end, and a line's words.
std::string toLine(const Words &words);
Words toWords(const std::string &line);

} // namespace kelo
