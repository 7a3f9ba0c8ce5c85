#include "browser.h"

#include <csignal>
#include <filesystem>
#include <poll.h>
#include <unistd.h>

namespace web {

namespace {

constexpr int patience = 60000; ///< ms, for one answer of a browser on a busy machine

} // namespace

Browser::Browser() : to_(kelo::makePipe()), from_(kelo::makePipe())
{
    char name[] = "/tmp/kelo-browser-XXXXXX";
    folder_ = mkdtemp(name);
    // It reads its orders from descriptor 3 and answers on 4.
    const std::vector<std::string> command = {
        "env",
        "HOME=" + folder_,
        "sh",
        "-c",
        "exec 3<&0 4>&1 </dev/null >/dev/null 2>&1; exec \"$@\"",
        "sh",
        KELO_CHROMIUM,
        "--headless",
        "--remote-debugging-pipe",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-quic",
        "--no-first-run",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--disable-breakpad",
        "--disable-dev-shm-usage",
        "--user-data-dir=" + folder_,
        "about:blank"};
    signal(SIGPIPE, SIG_IGN);
    process_ = kelo::spawnApart(command, {to_.read.get(), from_.write.get(), -1});
    to_.read.reset();
    from_.write.reset();
    const json target = send("Target.createTarget", {{"url", "about:blank"}});
    session_ = send("Target.attachToTarget",
                    {{"targetId", target["targetId"]}, {"flatten", true}})["sessionId"];
    for (const char *const domain : {"Page", "Runtime", "Log"})
        send(std::string(domain) + ".enable");
    resize(1160, 1000);
}

Browser::~Browser()
{
    to_.write.reset(); // it ends with that, and closes its end
    pollfd end{from_.read.get(), 0, 0};
    poll(&end, 1, patience);
    kill(-process_, SIGKILL);
    kelo::waitFor(process_);
    std::error_code none;
    std::filesystem::remove_all(folder_, none);
}

void Browser::open(const std::string &path, const std::string &fragment)
{
    complaints_.clear();
    // The same file with another fragment would not be loaded anew.
    send("Page.navigate", {{"url", "about:blank"}});
    const std::string scheme = path.starts_with("/") ? "file://" : "";
    send("Page.navigate", {{"url", scheme + path + (fragment.empty() ? "" : "#" + fragment)}});
    evaluate("new Promise(done => document.readyState === 'complete' ? done()"
             " : addEventListener('load', () => done()))");
}

json Browser::evaluate(const std::string &expression)
{
    const json answer =
        send("Runtime.evaluate",
             {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    if (answer.contains("exceptionDetails"))
        throw std::runtime_error(expression + ": " + answer["exceptionDetails"].dump());
    return answer["result"].value("value", json());
}

void Browser::press(const std::string &key, bool shift)
{
    json event = {{"type", "keyDown"}, {"key", key}, {"modifiers", shift ? 8 : 0}};
    if (key.size() == 1)
        event["text"] = key;
    send("Input.dispatchKeyEvent", event);
    event["type"] = "keyUp";
    event.erase("text");
    send("Input.dispatchKeyEvent", event);
}

void Browser::drag(double x1, double y1, double x2, double y2)
{
    const auto mouse = [&](const char *type, double x, double y, int buttons) {
        send("Input.dispatchMouseEvent", {{"type", type},
                                          {"x", x},
                                          {"y", y},
                                          {"button", "left"},
                                          {"buttons", buttons},
                                          {"clickCount", 1}});
    };
    mouse("mousePressed", x1, y1, 1);
    mouse("mouseMoved", x2, y2, 1);
    mouse("mouseReleased", x2, y2, 0);
}

void Browser::resize(int width, int height, bool isMobile)
{
    send("Emulation.setDeviceMetricsOverride",
         {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", isMobile}});
}

void Browser::prefer(const std::string &colourScheme)
{
    send("Emulation.setEmulatedMedia",
         {{"features", {{{"name", "prefers-color-scheme"}, {"value", colourScheme}}}}});
}

json Browser::send(const std::string &method, const json &parameters)
{
    json message = {{"id", ++last_}, {"method", method}, {"params", parameters}};
    if (!session_.empty())
        message["sessionId"] = session_;
    const std::string text = message.dump() + '\0';
    for (size_t done = 0; done < text.size();) {
        const ssize_t length = write(to_.write.get(), text.data() + done, text.size() - done);
        if (length < 0)
            throw std::runtime_error("the browser ended");
        done += static_cast<size_t>(length);
    }
    for (;;) {
        const json answer = receive();
        if (answer.value("id", 0) != last_)
            note(answer);
        else if (answer.contains("error"))
            throw std::runtime_error(method + ": " + answer["error"].dump());
        else
            return answer["result"];
    }
}

json Browser::receive()
{
    size_t end;
    while ((end = text_.find('\0')) == std::string::npos) {
        pollfd source{from_.read.get(), POLLIN, 0};
        char buffer[65536];
        if (poll(&source, 1, patience) != 1)
            throw std::runtime_error("the browser does not answer");
        const ssize_t length = read(from_.read.get(), buffer, sizeof buffer);
        if (length <= 0)
            throw std::runtime_error("the browser ended");
        text_.append(buffer, static_cast<size_t>(length));
    }
    const json message = json::parse(text_.substr(0, end));
    text_.erase(0, end + 1);
    return message;
}

void Browser::note(const json &message)
{
    const std::string method = message.value("method", "");
    if (method == "Runtime.consoleAPICalled" || method == "Runtime.exceptionThrown" ||
        method == "Log.entryAdded")
        complaints_.push_back(message["params"].dump());
}

} // namespace web
