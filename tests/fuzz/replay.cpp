/// Runs a fuzz target over kept inputs: the files and folders given as arguments.

#include "fuzz.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

size_t replayed;

void replay(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(file), {});
    if (!file)
        fuzz::wrong("an input cannot be read");
    const std::basic_string<uint8_t> bytes(content.begin(), content.end());
    printf("%s\n", path.c_str()); // the last one before a crash is the one to look at
    fflush(stdout);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    replayed++;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        if (!std::filesystem::is_directory(argv[i])) {
            replay(argv[i]);
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
            replay(entry.path());
    }
    printf("%zu inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
