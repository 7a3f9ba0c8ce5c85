// Makes the pictures of the documentation from what the daemon and the panel do; scripts/docs calls
// it.
//   kelo-docs patterns FOLDER    writes led-patterns.svg and led-patterns.md
//   kelo-docs check FOLDER       says whether they still are what the daemon does
//   kelo-docs terminal COLUMNS   draws a captured screen, from standard input to standard output

#include "board.h"
#include "patterns.h"
#include "terminal.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace {

struct File {
    std::string path;
    std::string text;
};

std::vector<File> patternFiles(const std::string &folder)
{
    const std::vector<kelo::docs::Pattern> patterns = kelo::docs::recordPatterns();
    return {{folder + "/led-patterns.svg", kelo::docs::drawPatterns(patterns)},
            {folder + "/led-patterns.md", kelo::docs::listPatterns(patterns)}};
}

int write(const std::vector<File> &files)
{
    for (const File &file : files) {
        std::ofstream out(file.path, std::ios::trunc);
        out << file.text;
        if (!out.flush()) {
            fprintf(stderr, "kelo-docs: cannot write %s: %s\n", file.path.c_str(), strerror(errno));
            return 1;
        }
    }
    return 0;
}

/// Names the first line that differs.
void explain(const std::string &documented, const std::string &recorded)
{
    std::istringstream one(documented);
    std::istringstream other(recorded);
    std::string a;
    std::string b;
    for (int line = 1;; line++) {
        const bool hasOne = static_cast<bool>(std::getline(one, a));
        const bool hasOther = static_cast<bool>(std::getline(other, b));
        if (!hasOne && !hasOther)
            return;
        if (hasOne != hasOther || a != b) {
            fprintf(stderr, "  line %d, documented: %s\n  line %d, recorded:   %s\n", line,
                    hasOne ? a.c_str() : "(end)", line, hasOther ? b.c_str() : "(end)");
            return;
        }
    }
}

int check(const std::vector<File> &files)
{
    int status = 0;
    for (const File &file : files) {
        const std::string documented = kelo::readFile(file.path);
        if (documented == file.text)
            continue;
        fprintf(stderr, "%s is not what the daemon does; scripts/docs makes it anew\n",
                file.path.c_str());
        explain(documented, file.text);
        status = 1;
    }
    return status;
}

int usage()
{
    fputs("usage: kelo-docs patterns|check FOLDER, kelo-docs terminal COLUMNS\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3)
        return usage();
    const std::string verb = argv[1];
    try {
        if (verb == "patterns")
            return write(patternFiles(argv[2]));
        if (verb == "check")
            return check(patternFiles(argv[2]));
        if (verb == "terminal" && atoi(argv[2]) > 0) {
            std::cout << kelo::docs::drawTerminal(kelo::readAll(STDIN_FILENO), atoi(argv[2]));
            return std::cout.flush() ? 0 : 1;
        }
    } catch (const std::exception &error) {
        fprintf(stderr, "kelo-docs: %s\n", error.what());
        return 1;
    }
    return usage();
}
