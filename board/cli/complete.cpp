// What completion in a shell asks for.

#include "cli.h"

#include <cstdio>

namespace kelo {

namespace {

/// The option of a command, or of one above it, that goes by a name; null when there is none.
const CLI::Option *optionOf(const CLI::App *command, const std::string &name)
{
    for (; command; command = command->get_parent()) {
        if (const CLI::Option *const option = command->get_option_no_throw(name))
            return option;
    }
    return nullptr;
}

const CLI::App *subcommandOf(const CLI::App &command, const std::string &name)
{
    const auto found =
        command.get_subcommands([&](const CLI::App *app) { return app->check_name(name); });
    return found.empty() ? nullptr : found.front();
}

/// What may stand where the last of the words is being typed.
std::vector<std::string> candidates(const Cli &cli, const std::vector<std::string> &words)
{
    const CLI::App *command = &cli.app;
    const CLI::Option *valueOf = nullptr;
    for (size_t i = 0; i + 1 < words.size(); i++) {
        if (valueOf) {
            valueOf = nullptr;
        } else if (words[i].starts_with("-")) {
            const CLI::Option *const option = optionOf(command, words[i]);
            valueOf = option && option->get_type_size() > 0 ? option : nullptr;
        } else if (const CLI::App *const next = subcommandOf(*command, words[i])) {
            command = next;
        }
    }
    if (valueOf)
        return valueOf == cli.app.get_option("--board") ? runningBoards()
                                                        : std::vector<std::string>();

    std::vector<std::string> result;
    for (const CLI::App *const next :
         command->get_subcommands([](const CLI::App *) { return true; })) {
        if (!next->get_group().empty())
            result.push_back(next->get_name());
    }
    const auto known = cli.words.find(command);
    if (known != cli.words.end())
        result = known->second();
    if (!words.empty() && words.back().starts_with("-")) {
        for (const CLI::Option *const option :
             command->get_options([](const CLI::Option *) { return true; })) {
            if (!option->get_lnames().empty())
                result.push_back("--" + option->get_lnames().front());
        }
    }
    return result;
}

} // namespace

void addCompletion(Cli &cli)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *const command =
        cli.add("", "complete", "Print the words that may stand last", [&cli, words] {
            for (const std::string &word : candidates(cli, *words))
                puts(word.c_str());
        });
    command->add_option("WORD", *words, "What was typed so far");
}

} // namespace kelo
