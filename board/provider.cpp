#include "provider.h"

#include <stdexcept>

namespace kelo {

void startProvider(const Access &board, const Provider &provider)
{
    Words words{"start", std::to_string(provider.preferred), std::to_string(provider.valid),
                std::to_string(provider.router), provider.leases ? "yes" : "no"};
    words.insert(words.end(), provider.prefixes.begin(), provider.prefixes.end());
    tellProvider(board, provider.link, words);
}

std::string tellProvider(const Access &board, const std::string &link, const Words &words)
{
    board.require(Ability::Programs);
    Words command{"sh", builtFile("board/provider"), board.form().root(), link};
    command.insert(command.end(), words.begin(), words.end());
    Result result = board.exec(command);
    if (result.status == 0)
        return result.output;
    while (result.output.ends_with('\n'))
        result.output.pop_back();
    throw std::runtime_error(result.output);
}

} // namespace kelo
