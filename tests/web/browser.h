/// A headless Chromium that tests talk to over two pipes, by its DevTools protocol.

#pragma once

#include "process.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace web {

using nlohmann::json;

/// One page in a browser of its own. Everything throws std::runtime_error when the browser does not
/// answer in time.
class Browser {
public:
    Browser();
    ~Browser();
    Browser(const Browser &) = delete;
    Browser &operator=(const Browser &) = delete;

    /// Loads a file, or an address, and waits until its scripts ran; `fragment` goes behind a "#".
    void open(const std::string &path, const std::string &fragment = "");
    /// The value of a JavaScript expression; what it promises, if it is a promise. Throws for one
    /// that throws.
    json evaluate(const std::string &expression);
    std::string text(const std::string &expression) { return evaluate(expression); }
    /// Presses and releases a key, as KeyboardEvent.key has it.
    void press(const std::string &key, bool shift = false);
    /// Presses the left button at the one place of the window, moves to the other, and releases it.
    void drag(double x1, double y1, double x2, double y2);
    void resize(int width, int height, bool isMobile = false);
    void prefer(const std::string &colourScheme);
    json send(const std::string &method, const json &parameters = json::object());

    /// What the page wrote to the console, what it failed to load and what it threw, so far.
    const std::vector<std::string> &complaints() const { return complaints_; }

private:
    json receive();
    void note(const json &message);

    std::string folder_; ///< of its profile
    pid_t process_ = -1;
    kelo::Pipe to_, from_;
    std::string text_;
    std::string session_;
    int last_ = 0;
    std::vector<std::string> complaints_;
};

} // namespace web
