#include "access.h"

#include "device.h"

#include <cstring>
#include <sstream>
#include <stdexcept>

namespace kelo {

void Access::require(Ability ability) const
{
    const std::string reason = form().lacks(ability);
    if (!reason.empty())
        throw std::runtime_error(reason);
}

void Access::put(const std::string &boardPath, const std::string &text) const
{
    ask({"put", boardPath, text});
}

void Access::setLaser(const std::string &dbm) const
{
    put(device::laserPath, dbm + "\n");
}

void Access::setGpon(int state) const
{
    put(device::gponPath, std::to_string(state) + "\n");
}

void Access::setPort(int port, unsigned long long in, unsigned long long out) const
{
    put(device::portsFolder + std::to_string(port),
        std::to_string(in) + " " + std::to_string(out) + "\n");
}

void Access::removePort(int port) const
{
    const std::string path = device::portsFolder + std::to_string(port);
    if (!statusOf(path).empty())
        remove(path);
}

void Access::setButton(int value) const
{
    ask({"button", std::to_string(value)});
}

void Access::writeKeyword(const std::string &text) const
{
    ask({"keyword", text});
}

std::optional<std::string> Access::stored(const std::string &node,
                                          const std::string &attribute) const
{
    const auto text = read(device::storeFolder + node + "/" + attribute);
    return text ? std::optional(text->substr(0, text->find('\n'))) : std::nullopt;
}

std::optional<std::string> Access::read(const std::string &boardPath) const
{
    return link_->attempt({"read", boardPath});
}

void Access::remove(const std::string &boardPath) const
{
    ask({"remove", boardPath});
}

void Access::makeFolder(const std::string &boardPath) const
{
    ask({"folder", boardPath});
}

std::vector<std::string> Access::list(const std::string &boardPath) const
{
    std::istringstream lines(link_->attempt({"list", boardPath}).value_or(""));
    std::vector<std::string> names;
    for (std::string name; std::getline(lines, name);)
        names.push_back(name);
    return names;
}

std::string Access::statusOf(const std::string &boardPath) const
{
    return link_->attempt({"stat", boardPath}).value_or("");
}

std::string Access::linkOf(const std::string &boardPath) const
{
    return link_->attempt({"link", boardPath}).value_or("");
}

std::vector<std::string> Access::inside(const std::vector<std::string> &command) const
{
    return form().inside(command);
}

Result Access::exec(const std::vector<std::string> &command) const
{
    const Words local = inside(command);
    if (!local.empty())
        return link_->run(local);
    Result result{0, {}};
    result.status = exec(command, [&](const std::string &text) { result.output += text; });
    return result;
}

int Access::exec(const std::vector<std::string> &command, const Printed &printed) const
{
    Words request{"run"};
    request.insert(request.end(), command.begin(), command.end());
    return atoi(link_->ask(request, printed, commandLimit).at(0).c_str());
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

std::string Access::daemonFile(const std::string &name) const
{
    const std::string folder = daemonFolder();
    return folder.empty() ? "" : read(folder + "/" + name).value_or("");
}

std::string Access::daemonState() const
{
    const Words words = ask({"daemon"});
    if (words.empty())
        return "ended";
    const std::string &state = words.at(2);
    return state == "T" || state == "t" ? "stopped" : state == "Z" ? "zombie" : "running";
}

bool Access::signalDaemon(int signal) const
{
    return link_->attempt({"signal", signalName(signal)}).has_value();
}

std::string signalName(int signal)
{
    const char *const name = sigabbrev_np(signal);
    return name ? name : std::to_string(signal);
}

} // namespace kelo
