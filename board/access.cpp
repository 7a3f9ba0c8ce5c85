#include "access.h"

#include <cstring>
#include <sstream>
#include <stdexcept>

namespace kelo {

std::optional<std::string> Access::attempt(const Words &request) const
{
    try {
        std::string text;
        for (const std::string &word : ask(request))
            text += (text.empty() ? "" : " ") + word;
        return text;
    } catch (const Refused &) {
        return std::nullopt;
    }
}

void Access::require(Ability ability) const
{
    const std::string reason = form().lacks(ability);
    if (!reason.empty())
        throw std::runtime_error(reason);
}

Words Access::portRequest(int port, unsigned long long in, unsigned long long out)
{
    return {"put", device::portsFolder + std::to_string(port),
            std::to_string(in) + " " + std::to_string(out) + "\n"};
}

void Access::removePort(int port) const
{
    const std::string path = device::portsFolder + std::to_string(port);
    if (!statusOf(path).empty())
        remove(path);
}

std::optional<std::string> Access::stored(const std::string &node,
                                          const std::string &attribute) const
{
    const auto text = read(device::storeFolder + node + "/" + attribute);
    return text ? std::optional(text->substr(0, text->find('\n'))) : std::nullopt;
}

std::vector<std::string> Access::list(const std::string &path) const
{
    std::istringstream lines(attempt({"list", path}).value_or(""));
    std::vector<std::string> names;
    for (std::string name; std::getline(lines, name);)
        names.push_back(name);
    return names;
}

Result Access::exec(const Words &command) const
{
    const Words local = inside(command);
    if (!local.empty())
        return run(local);
    Result result{0, {}};
    result.status = exec(command, [&](const std::string &text) { result.output += text; });
    return result;
}

int Access::exec(const Words &command, const Printed &printed) const
{
    return atoi(link_->ask(concat({"run"}, command), printed, commandLimit).at(0).c_str());
}

std::optional<pid_t> Access::daemon() const
{
    const Words words = ask({"daemon"});
    return words.empty() ? std::nullopt : std::optional(form().outside(atoi(words[0].c_str())));
}

std::string Access::daemonFolder() const
{
    const Words words = ask({"daemon"});
    return words.empty() ? "" : words.at(1);
}

std::string Access::daemonState(const Words &answer)
{
    if (answer.empty())
        return "ended";
    const std::string &state = answer.at(2);
    return state == "T" || state == "t" ? "stopped" : state == "Z" ? "zombie" : "running";
}

bool Access::signalDaemon(int signal) const
{
    return attempt({"signal", signalName(signal)}).has_value();
}

std::string signalName(int signal)
{
    const char *const name = sigabbrev_np(signal);
    return name ? name : std::to_string(signal);
}

} // namespace kelo
