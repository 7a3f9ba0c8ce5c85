/// A terminal that a test types into and reads: a tmux server of its own with one window.

#pragma once

#include "process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

class Terminal {
public:
    static constexpr auto deadline = 15s;

    Terminal(int columns, int rows)
    {
        static int count;
        socket_ = "kelo-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
        char name[] = "/tmp/kelo-panel-XXXXXX";
        folder_ = mkdtemp(name);
        run({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows),
             "env PS1= ENV= sh"});
        type("PS1=''; cd " + folder_);
    }
    ~Terminal()
    {
        run({"kill-server"});
        std::filesystem::remove_all(folder_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    const std::string &folder() const { return folder_; }

    /// Types a line into the shell.
    void type(const std::string &line)
    {
        run({"send-keys", "-l", line});
        keys({"Enter"});
    }
    /// Presses keys by tmux's names: "h", "Enter", "C-c", "PageUp".
    void keys(std::vector<std::string> names)
    {
        names.insert(names.begin(), "send-keys");
        run(names);
    }
    void resize(int columns, int rows)
    {
        run({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
    }

    /// What stands on the screen; with its colours as escape sequences if asked for.
    std::string text(bool colours = false)
    {
        std::vector<std::string> command{"capture-pane", "-p"};
        if (colours)
            command.push_back("-e");
        return run(command);
    }
    std::vector<std::string> lines()
    {
        std::vector<std::string> result;
        std::istringstream in(text());
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }
    /// Anything that tmux knows of the window, such as "#{alternate_on}".
    std::string ask(const std::string &format)
    {
        std::string answer = run({"display-message", "-p", format});
        return answer.substr(0, answer.find('\n'));
    }

    /// Waits until the screen matches a pattern; in a test that failed already, only looks.
    testing::AssertionResult shows(const std::string &pattern,
                                   std::chrono::seconds limit = deadline)
    {
        return waits(pattern, true, limit);
    }
    testing::AssertionResult showsNoMore(const std::string &pattern)
    {
        return waits(pattern, false, deadline);
    }

private:
    testing::AssertionResult waits(const std::string &pattern, bool wanted,
                                   std::chrono::seconds limit)
    {
        const std::regex regex(pattern);
        const auto patience = testing::Test::HasFailure() ? 0s : limit;
        const auto end = std::chrono::steady_clock::now() + patience;
        for (;;) {
            const std::string screen = text();
            if (std::regex_search(screen, regex) == wanted)
                return testing::AssertionSuccess();
            if (std::chrono::steady_clock::now() > end)
                return testing::AssertionFailure()
                       << (wanted ? "never saw " : "still see ") << pattern << " in:\n"
                       << screen;
            std::this_thread::sleep_for(30ms);
        }
    }

    std::string run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {TMUX, "-u", "-L", socket_, "-f", "/dev/null"});
        return kelo::run(arguments).output;
    }

    std::string socket_;
    std::string folder_;
};
