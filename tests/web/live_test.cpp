// The live page, in a real browser and by hand-made requests.

#include "browser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Words = std::vector<std::string>;

class Live : public testing::Test {
protected:
    static void TearDownTestSuite() { browser_.reset(); }

    void SetUp() override
    {
        if (!*KELO_CHROMIUM)
            GTEST_SKIP() << "needs chromium";
        char name[] = "/tmp/kelo-live-XXXXXX";
        folder_ = mkdtemp(name);
        board_ = "live-" + std::to_string(getpid());
        kelo::Pipe out = kelo::makePipe();
        server_ = kelo::spawnApart({KELO_BOARD_PROGRAM, "web", board_}, {-1, out.write.get()});
        out.write.reset();
        for (char character; read(out.read.get(), &character, 1) == 1 && character != '\n';)
            url_ += character;
        ASSERT_TRUE(url_.starts_with("http://127.0.0.1:")) << url_;
        out_ = std::move(out.read);
        if (!browser_)
            browser_ = std::make_unique<web::Browser>();
    }

    void TearDown() override
    {
        if (folder_.empty())
            return;
        EXPECT_EQ(Words(), browser().complaints());
        browser().open("about:blank");
        if (server_ > 0) {
            kill(server_, SIGTERM);
            EXPECT_EQ(0, kelo::waitFor(server_));
        }
        const std::string status = kelo::run({KELO_BOARD_PROGRAM, "-b", board_, "status"}).output;
        EXPECT_NE(std::string::npos, status.find("no board named")) << status;
        std::filesystem::remove_all(folder_);
    }

    web::Browser &browser() { return *browser_; }
    const std::string &url() const { return url_; }
    const std::string &folder() const { return folder_; }

    void open()
    {
        browser().open(url_);
        waitFor("held.runs");
    }

    /// Waits until an expression is true.
    void waitFor(const std::string &expression)
    {
        EXPECT_TRUE(browser()
                        .evaluate("new Promise(done => { const end = Date.now() + 20000;"
                                  "const look = () => (" +
                                  expression +
                                  ") ? done(true) : Date.now() > end ? done(false)"
                                  " : setTimeout(look, 10); look(); })")
                        .get<bool>())
            << "never: " << expression;
    }

    /// Clicks a button of a group, and waits until it is done.
    void click(const std::string &group, const std::string &text)
    {
        browser().evaluate(
            "[...[...document.querySelectorAll('#hands div')].find(group => "
            "group.firstChild.textContent === '" +
            group + "').querySelectorAll('button')].find(button => button.textContent === '" +
            text + "').click(), before.then(() => 1)");
    }
    void choose(const std::string &group, const std::string &value)
    {
        browser().evaluate("choose" + group + ".value = '" + value + "', choose" + group +
                           ".dispatchEvent(new Event('change')), before.then(() => 1)");
    }

    kelo::Result kb(Words words) const
    {
        words.insert(words.begin(), {KELO_BOARD_PROGRAM, "-b", board_});
        return kelo::run(words);
    }
    void expect(Words words) const
    {
        words.insert(words.begin(), "expect");
        const kelo::Result result = kb(words);
        EXPECT_EQ(0, result.status) << result.output;
    }
    bool happened(const std::string &event) const
    {
        return kb({"events"}).output.find(event) != std::string::npos;
    }

    /// The status of an answer to a request as somebody else would send it.
    int status(const std::string &method, const std::string &path, const std::string &headers,
               const std::string &body = "")
    {
        const size_t colon = url_.rfind(':');
        const int port = atoi(url_.c_str() + colon + 1);
        const kelo::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
        const std::string text = method + " " + path + " HTTP/1.1\r\n" + headers +
                                 "Content-Length: " + std::to_string(body.size()) +
                                 "\r\nConnection: close\r\n\r\n" + body;
        EXPECT_EQ(ssize_t(text.size()), send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL));
        char answer[16] = "";
        EXPECT_LT(12, recv(socket.get(), answer, sizeof answer - 1, MSG_WAITALL));
        return atoi(answer + 9);
    }

    std::string board_;
    pid_t server_ = -1;

private:
    static std::unique_ptr<web::Browser> browser_;
    std::string folder_;
    std::string url_;
    kelo::Descriptor out_;
};

std::unique_ptr<web::Browser> Live::browser_;

TEST_F(Live, WhatHappensIsShownWithin300Milliseconds)
{
    open();
    browser().evaluate("shown = {}, new MutationObserver(() => "
                       "shown[mode.firstChild.textContent] ||= Date.now())"
                       ".observe(mode, {subtree: true, childList: true, characterData: true}), 1");
    std::vector<double> times;
    for (const std::string keyword :
         {"none", "ledtest", "reboot", "restore", "errora12", "facttest", "facttesterr"}) {
        ASSERT_EQ(0, kb({"mode", keyword}).status);
        const double at =
            static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                    std::chrono::system_clock::now().time_since_epoch())
                                    .count());
        waitFor("shown." + keyword);
        times.push_back(browser().evaluate("shown." + keyword).get<double>() - at);
    }
    std::sort(times.begin(), times.end());
    RecordProperty("milliseconds", std::to_string(times[times.size() / 2]));
    EXPECT_LE(times[times.size() / 2], 300);
    expect({"leds", browser().text("held.leds")});
}

TEST_F(Live, ItsLedsAreTheBoards)
{
    open();
    for (const std::string keyword : {"errora12", "none", "facttesterr", "signal"}) {
        ASSERT_EQ(0, kb({"mode", keyword}).status);
        waitFor("held.mode !== null && modeName(held.mode) === '" + keyword + "'");
        const std::string leds = json::parse(kb({"status", "--json"}).output)["leds"];
        waitFor("[...document.querySelectorAll('#leds li')].map(led => "
                "led.className === 'on' ? 1 : 0).join('') === '" +
                leds + "'");
    }
}

TEST_F(Live, ButtonsDoWhatTheySay)
{
    open();
    click("Power, dB", "+1");
    EXPECT_TRUE(happened("laser     -17.5"));
    waitFor("latest.laser === '-17.5'");
    click("Power, dB", "−1");
    waitFor("latest.laser === '-18.5'");
    click("Power, dB", "No reading");
    waitFor("latest.laser === ''");
    click("Link", "Down");
    EXPECT_TRUE(happened("gpon      3"));
    waitFor("link.textContent === 'down, GPON state 3'");
    click("Link", "Up");
    waitFor("link.textContent === 'up, GPON state 5'");
    choose("Mode", "locateme");
    expect({"mode", "locateme"});
    choose("Mode", "signal");
    expect({"mode", "signal"});

    waitFor("chooseFault.options.length > 5");
    choose("Fault", "omci-missing off");
    EXPECT_TRUE(json::parse(kb({"fault", "--json"}).output)["omci-missing"].get<bool>());
    waitFor("[...chooseFault.options].some(option => option.value === 'omci-missing on')");
    choose("Fault", "omci-missing on");
    EXPECT_FALSE(json::parse(kb({"fault", "--json"}).output)["omci-missing"].get<bool>());

    click("Button", "Hold");
    EXPECT_TRUE(happened("button    1"));
    expect({"mode", "reboot"});
    click("Button", "Release");
    expect({"calls", "reboot"});
    click("Daemon", "Restart");
    click("Button", "Press");
    expect({"mode", "reboot"});
    expect({"calls", "reboot"});
    click("Daemon", "Stop");
    waitFor("daemon.textContent.startsWith('ended')");
    click("Daemon", "Start");
    waitFor("daemon.textContent === 'running'");
    click("Provider", "Start");
    expect({"--within", "15s", "log", "New IPv6 address 2001:db8:1:0:"});
    waitFor("wanAddress.textContent.startsWith('2001:db8:1:')");
    click("Provider", "Vanish");
    expect({"log", "Removed interface"});
    waitFor("said.textContent === 'provider vanish'");
}

TEST_F(Live, SaysWhatTheBoardCannotDo)
{
    open();
    click("Daemon", "Start");
    EXPECT_EQ("kelo-board: the daemon runs already", browser().text("said.textContent"));
    EXPECT_TRUE(browser().evaluate("said.className.includes('bad')").get<bool>());
}

TEST_F(Live, GoesBackInTimeAndToThePresentAgain)
{
    open();
    waitFor("now > 2");
    browser().press("Home");
    EXPECT_EQ(0, browser().evaluate("now").get<double>());
    ASSERT_EQ(0, kb({"mode", "ledtest"}).status);
    waitFor("[...rows.children].some(row => row.textContent.includes('ledtest (6)'))");
    EXPECT_EQ(0, browser().evaluate("now").get<double>());
    browser().press("End");
    waitFor("now > 2 && mode.firstChild.textContent === 'ledtest'");
    const double then = browser().evaluate("now");
    waitFor("now > " + std::to_string(then + 0.5));
}

TEST_F(Live, SessionIsAScenarioThatPlaysAgain)
{
    open();
    choose("Mode", "ledtest");
    waitFor("new Promise(done => setTimeout(() => done(true), 300))");
    click("Power, dB", "+1");
    click("Link", "Down");
    const std::string script = browser().text("fetch('scenario').then(answer => answer.text())");
    EXPECT_NE(std::string::npos, script.find("kelo-board mode ledtest\nkelo-board wait 0."))
        << script;
    EXPECT_NE(std::string::npos, script.find("kelo-board set laser -17.5\n")) << script;
    EXPECT_NE(std::string::npos, script.find("kelo-board set gpon 3\n")) << script;
    EXPECT_EQ(std::string::npos, script.find("fault")) << script;
    browser().send("Browser.setDownloadBehavior",
                   {{"behavior", "allow"}, {"downloadPath", folder()}});
    click("Session", "Save as a scenario");
    const std::string saved = folder() + "/" + board_ + ".scenario";
    for (int i = 0; i < 200 && kelo::readFile(saved) != script; i++)
        usleep(50000);
    EXPECT_EQ(script, kelo::readFile(saved));
    std::ofstream(folder() + "/session") << script << "kelo-board expect mode ledtest\n";
    const kelo::Result again = kelo::run({KELO_BOARD_PROGRAM, "run", folder() + "/session"});
    EXPECT_EQ(0, again.status) << again.output;
}

TEST_F(Live, RefusesWhatDoesNotComeFromIt)
{
    const std::string host = url().substr(7, url().find('/', 7) - 7);
    const std::string path = url().substr(7 + host.size());
    const std::string port = host.substr(host.find(':'));
    const std::string own = "Host: " + host + "\r\n";
    const std::string origin = "Origin: http://" + host + "\r\n";
    const std::string order = "[\"mode\",\"ledtest\"]";

    EXPECT_EQ(200, status("GET", path, own));
    EXPECT_EQ(200, status("GET", path, own + origin + "Sec-Fetch-Site: same-origin\r\n"));
    EXPECT_EQ(200, status("GET", path, "Host: localhost" + port + "\r\n"));
    EXPECT_EQ(403, status("GET", path, "Host: evil.example" + port + "\r\n"));
    EXPECT_EQ(403, status("GET", path, "Host: 127.0.0.1:1\r\n"));
    EXPECT_EQ(403, status("GET", path, "Host: 127.0.0.1\r\n"));
    EXPECT_EQ(403, status("GET", path, own + "Origin: http://evil.example\r\n"));
    EXPECT_EQ(403, status("GET", path, own + "Sec-Fetch-Site: cross-site\r\n"));
    EXPECT_EQ(403, status("GET", "/", own));
    EXPECT_EQ(403, status("GET", "/" + std::string(32, '0') + "/", own));
    EXPECT_EQ(403, status("GET", path.substr(0, path.size() - 2) + "/", own));
    EXPECT_EQ(403, status("GET", "/events", own));
    EXPECT_EQ(404, status("GET", path + "else", own));

    EXPECT_EQ(405, status("GET", path + "do", own + origin));
    EXPECT_EQ(403, status("POST", path + "do", own, order));
    EXPECT_EQ(403, status("POST", path + "do", own + "Origin: null\r\n", order));
    EXPECT_EQ(403, status("POST", path + "do", own + "Origin: http://evil.example\r\n", order));
    EXPECT_EQ(
        403, status("POST", path + "do",
                    "Host: evil.example" + port + "\r\nOrigin: http://evil.example" + port + "\r\n",
                    order));
    EXPECT_EQ(403, status("POST", "/" + std::string(32, 'a') + "/do", own + origin, order));
    for (const std::string body :
         {"", "mode", "[]", "[1]", "[\"exec\",\"id\"]", "[\"down\"]", "[\"run\",\"x\"]",
          "[\"mode\",\"-bother\",\"ledtest\"]", "[\"--help\"]", "[\"mode\",\"a\\u0000b\"]"})
        EXPECT_EQ(400, status("POST", path + "do", own + origin, body)) << body;
    EXPECT_EQ(413, status("POST", path + "do", own + origin, std::string(5000, 'x')));
    expect({"--for", "300ms", "mode", "signal"});
    EXPECT_EQ(200, status("POST", path + "do", own + origin, order));
    expect({"mode", "ledtest"});
}

TEST_F(Live, EndsWithItsBoard)
{
    open();
    ASSERT_EQ(0, kb({"down"}).status);
    waitFor("said.textContent.startsWith('The board ended')");
    EXPECT_EQ(0, kelo::waitFor(server_));
    server_ = -1;
}

} // namespace
