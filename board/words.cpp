#include "words.h"

#include <cstdio>
#include <sstream>

namespace kelo {

namespace {

std::string escaped(const std::string &text, bool isWord)
{
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte != '\\' && byte < 0x7f && (byte > ' ' || (byte == ' ' && !isWord))) {
            result += character;
        } else {
            char code[4];
            snprintf(code, sizeof code, "\\%02x", byte);
            result += code;
        }
    }
    return result;
}

} // namespace

Words concat(Words words, const Words &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string toWord(const std::string &text)
{
    return text.empty() ? "\\-" : escaped(text, true);
}

std::string toRest(const std::string &text)
{
    return escaped(text, false);
}

std::string unescaped(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\') {
            result += text[i];
        } else if (text.compare(i, 2, "\\-") == 0) {
            i++;
        } else {
            result += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        }
    }
    return result;
}

std::string toLine(const Words &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + toWord(word);
    return line;
}

Words toWords(const std::string &line)
{
    Words words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;)
        words.push_back(unescaped(word));
    return words;
}

} // namespace kelo
