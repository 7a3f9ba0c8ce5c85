// The page that plays a board back, in a real browser.

#include "browser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

using nlohmann::json;
using Words = std::vector<std::string>;

constexpr char shownLeds[] = "[...document.querySelectorAll('#leds li')].map(led => "
                             "({on: '1', off: '0', unknown: '?'})[led.className]).join('')";

json event(double time, const std::string &kind, const std::string &text)
{
    return {{"time", time}, {"kind", kind}, {"text", text}};
}

std::string log(const std::string &message, const std::string &place = "[a.cpp:1 f]")
{
    return "kelo-monitord: " + message + "\n " + place + "\n";
}

/// The LEDs that a record has at a time.
std::string ledsAt(const std::vector<json> &record, double time)
{
    std::string leds = "??????";
    for (const json &one : record) {
        if (one["kind"] == "leds" && one["time"] <= time)
            leds = one["text"];
    }
    return leds;
}

/// A signal that goes, a locate run, a short press, a daemon that crashes.
std::vector<json> example()
{
    std::vector<json> record = {
        event(0.05, "laser", "-18.5"),
        event(0.05, "gpon", "5"),
        event(0.05, "button", "0"),
        event(0.1, "log", log("switch display mode 0 -> 1")),
        event(0.1, "mode", "1"),
        event(0.1, "leds", "110000"),
        event(1, "snapshot",
              "port=lan1,in=1500,out=20,counterIn=1500,counterOut=20\n"
              "port=wan,in=18446744073709551016,out=7,counterIn=4,counterOut=7\n"),
        event(2, "laser", "-26.5"),
        event(2.1, "leds", "100000"),
        event(3, "gpon", "1"),
        event(3.1, "leds", "010101"),
        event(4, "log", log("New IPv6 address 2001:db8::1/64 on nas0_0(6)")),
        event(4, "store", "Kelo_Ipv6Status wanAddress \"2001:db8::1\""),
        event(4, "store", "Kelo_Ipv6Status wanAddressLen 64"),
        event(4.001, "omci", "set update_ip"),
        event(5, "note", "failed: leds 111111 within 5s; saw leds 010101"),
        event(6, "mode", "5"),
    };
    for (int i = 0; i < 16; i++)
        record.push_back(event(6 + i * 0.25, "leds",
                               std::vector<std::string>{"111000", "000000", "000111",
                                                        "000000"}[static_cast<size_t>(i % 4)]));
    const std::vector<json> rest = {
        event(10, "button", "1"),
        event(10.5, "mode", "2"),
        event(11, "button", "0"),
        event(11.5, "log", log("rebooting...")),
        event(11.5, "call", "syscfg_reboot"),
        event(12, "note", "== It ends now"),
        event(13, "laser", "-40"),
        event(14, "exit", "139 unasked"),
        event(20, "omci", "set update_ip"),
    };
    record.insert(record.end(), rest.begin(), rest.end());
    return record;
}

class Page : public testing::Test {
protected:
    static void TearDownTestSuite() { browser_.reset(); }
    void SetUp() override
    {
        if (!*KELO_CHROMIUM)
            GTEST_SKIP() << "needs chromium";
        char name[] = "/tmp/kelo-page-XXXXXX";
        folder_ = mkdtemp(name);
        if (!browser_)
            browser_ = std::make_unique<web::Browser>();
        browser().resize(1160, 1000);
        browser().prefer("light");
    }
    void TearDown() override
    {
        if (folder_.empty())
            return;
        EXPECT_EQ(Words(), browser().complaints());
        EXPECT_EQ(0, number("performance.getEntriesByType('resource').length"))
            << "it takes something from elsewhere";
        std::filesystem::remove_all(folder_);
    }

    web::Browser &browser() { return *browser_; }
    std::string file(const std::string &name) const { return folder_ + "/" + name; }

    kelo::Result kb(Words arguments) const
    {
        arguments.insert(arguments.begin(), KELO_BOARD_PROGRAM);
        return kelo::run(arguments);
    }
    void done(const Words &arguments) const
    {
        const kelo::Result result = kb(arguments);
        ASSERT_EQ(0, result.status) << result.output;
    }

    /// Makes the page of a record and opens it.
    void show(const std::vector<json> &record, const std::string &fragment = "")
    {
        std::ofstream lines(file("example.json"));
        for (const json &one : record)
            lines << one.dump() << "\n";
        lines.close();
        done({"report", file("example.json"), "-o", file("run.html")});
        browser().open(file("run.html"), fragment);
    }
    void go(double time)
    {
        browser().evaluate(
            "new Promise(done => { addEventListener('hashchange', () => done(), "
            "{once: true}); history.replaceState(null, '', '#'); location.hash = 't=" +
            json(time).dump() + "'; })");
    }
    std::string leds() { return browser().text(shownLeds); }
    std::string text(const std::string &id)
    {
        return browser().text("document.getElementById('" + id + "').textContent");
    }
    double number(const std::string &expression) { return browser().evaluate(expression); }
    double time() { return number("parseFloat(document.getElementById('time').textContent)"); }
    /// The event that the list marks as the last one.
    std::string row()
    {
        return browser().text("document.querySelector('#rows .now')?.textContent ?? ''");
    }
    void choose(const std::string &kind)
    {
        browser().evaluate("$('kind').value = '" + kind + "'; $('kind').onchange()");
    }

    double press(const std::string &key, bool shift = false)
    {
        browser().press(key, shift);
        return time();
    }
    testing::AssertionResult comesTrue(const std::string &expression)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!browser().evaluate(expression)) {
            if (std::chrono::steady_clock::now() > end)
                return testing::AssertionFailure() << "never: " << expression;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return testing::AssertionSuccess();
    }

private:
    static std::unique_ptr<web::Browser> browser_;
    std::string folder_;
};

std::unique_ptr<web::Browser> Page::browser_;

TEST_F(Page, ShowsTheLedsThatARunningBoardHadAtTwentyTimes)
{
    const std::string board = "page-" + std::to_string(getpid());
    done({"up", "-d", board});
    for (const Words &command : {Words{"set", "gpon", "1"},
                                 {"wait", "2500ms"},
                                 {"mode", "restore"},
                                 {"wait", "1500ms"},
                                 {"mode", "locateme"},
                                 {"wait", "2500ms"},
                                 {"mode", "facttesterr"},
                                 {"wait", "2500ms"},
                                 {"stop"}}) { // what is saved below is then the same
        Words words = {"-b", board};
        words.insert(words.end(), command.begin(), command.end());
        done(words);
    }
    done({"-b", board, "report", "-o", file("run.html")});
    done({"-b", board, "record", file("run.vcd")});
    const std::string lines = kb({"-b", board, "events", "--json"}).output;
    done({"-b", board, "down"});
    done({"report", file("run.vcd"), "-o", file("vcd.html")});

    std::vector<json> record;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);)
        record.push_back(json::parse(line));
    const double length = record.back()["time"];
    ASSERT_LT(8, length);
    size_t patterns = 0;
    for (const char *const name : {"run.html", "vcd.html"}) {
        // A recording begins with the first event.
        const double offset = *name == 'v' ? record.front()["time"].get<double>() : 0;
        browser().open(file(name));
        std::vector<std::string> seen;
        for (int i = 0; i < 20; i++) {
            // In the middle between two changes, since a recording rounds their times.
            double at = length * i / 20 + 0.1;
            double before = 0;
            double after = length;
            for (const json &one : record) {
                if (one["kind"] == "leds" && one["time"] <= at)
                    before = one["time"];
                else if (one["kind"] == "leds" && after == length)
                    after = one["time"];
            }
            at = (before + after) / 2;
            go(std::max(0.0, at - offset));
            EXPECT_EQ(ledsAt(record, at), leds()) << name << " at " << at;
            seen.push_back(leds());
        }
        std::sort(seen.begin(), seen.end());
        patterns = static_cast<size_t>(std::unique(seen.begin(), seen.end()) - seen.begin());
        EXPECT_LE(4U, patterns) << "the times say little";
        EXPECT_EQ(Words(), browser().complaints());
    }
}

TEST_F(Page, LedsChangeWithTheirEventAndNotBefore)
{
    const std::vector<json> record = example();
    show(record);
    EXPECT_EQ("GPIO 6GPIO 7GPIO 8GPIO 2GPIO 3GPIO 4", text("leds"));
    go(0.05);
    EXPECT_EQ("??????", leds());
    for (const json &one : record) {
        if (one["kind"] != "leds")
            continue;
        go(one["time"]);
        EXPECT_EQ(one["text"], leds()) << one;
        const double before = one["time"].get<double>() - 0.00001;
        go(before);
        EXPECT_EQ(ledsAt(record, before), leds()) << before;
    }
}

TEST_F(Page, ShowsWhatTheDeviceWas)
{
    show(example(), "t=1.5");
    EXPECT_EQ("signalmode 1, for 1.4 s", text("mode"));
    EXPECT_EQ("-18.5 dBm, level 2", text("power"));
    EXPECT_EQ("up, GPON state 5", text("link"));
    EXPECT_EQ("released", text("button"));
    EXPECT_EQ("running", text("daemon"));
    EXPECT_EQ("not set", text("wanAddress"));
    EXPECT_EQ("lan11.5 k20lan2cannot be readcannot be readlan3cannot be readcannot be read"
              "lan4cannot be readcannot be readwan-6007wifi2cannot be readcannot be read"
              "wifi5cannot be readcannot be read",
              text("ports"));
    go(0.5);
    EXPECT_EQ("lan1lan2lan3lan4wanwifi2wifi5", text("ports")) << "there is no snapshot yet";
    go(3);
    EXPECT_EQ("-26.5 dBm, level 1", text("power"));
    EXPECT_EQ("down, GPON state 1", text("link"));
    go(4);
    EXPECT_EQ("2001:db8::1/64", text("wanAddress"));
    EXPECT_EQ("not set", text("wanGateway"));
    go(10.2);
    EXPECT_EQ("held, value 1: let go it reboots, at 5 it restores", text("button"));
    EXPECT_EQ("locatememode 5, for 4.2 s", text("mode"));
    go(13.5);
    EXPECT_EQ("released; rebooted, not looked at before a restart", text("button"));
    EXPECT_EQ("-40 dBm: no signal", text("power"));
    EXPECT_EQ("== It ends now", text("note"));
    go(14);
    EXPECT_EQ("ended, exit status 139 unasked", text("daemon"));
    EXPECT_EQ("rebootmode 2, when the daemon ended", text("mode"));
}

TEST_F(Page, TheLevelsAreThoseOfTheDaemon)
{
    std::vector<json> record;
    const std::pair<const char *, const char *> powers[] = {
        {"0", "0 dBm: no signal"},       {"-40", "-40 dBm: no signal"},
        {"-39.9", "-39.9 dBm, level 0"}, {"-28", "-28 dBm, level 1"},
        {"-25", "-25 dBm, level 2"},     {"-11", "-11 dBm, level 3"},
        {"-8.01", "-8.01 dBm, level 3"}, {"-8", "-8 dBm, level 4"},
        {"", "no reading: no signal"},   {"nan", "no reading: no signal"}};
    for (const auto &[power, shown] : powers)
        record.push_back(event(static_cast<double>(record.size()), "laser", power));
    show(record);
    for (size_t i = 0; i < record.size(); i++) {
        go(static_cast<double>(i));
        EXPECT_EQ(powers[i].second, text("power"));
    }
}

TEST_F(Page, ListsTheEventsOfAKindAndJumpsToThem)
{
    show(example(), "t=0");
    EXPECT_EQ("", row());
    EXPECT_EQ(0.05, press("n"));
    EXPECT_EQ("0.050button0", row()) << "the last one of that time";
    EXPECT_EQ(0.1, press("n"));
    EXPECT_EQ("0.100modesignal (1)", row());
    EXPECT_EQ(2, press("n")) << "neither LEDs nor snapshots are listed";
    EXPECT_EQ(0.1, press("p"));
    go(4.5);
    EXPECT_EQ("4.001omciset update_ip", row());

    choose("omci");
    EXPECT_EQ(20, press("n"));
    EXPECT_EQ(20, press("n")) << "there is none after it";
    EXPECT_EQ(4.001, press("p"));
    EXPECT_EQ(4.001, press("p")) << "there is none before it";
    choose("log");
    go(4);
    EXPECT_EQ("4.000logNew IPv6 address 2001:db8::1/64 on nas0_0(6) [a.cpp:1 f]", row());
    choose("snapshot");
    EXPECT_EQ(1, press("p"));
    choose("leds");
    go(0);
    EXPECT_EQ(0.1, press("n"));
    EXPECT_EQ("0.100leds110000", row());
    EXPECT_EQ("all events,failures,button,call,exit,gpon,laser,leds,log,mode,note,omci,snapshot,"
              "store",
              browser().text("[...$('kind').options].map(o => o.value).join()"));

    choose("all events");
    browser().evaluate("document.querySelector('#rows li:last-child').click()");
    EXPECT_EQ(20, time());
    browser().evaluate("$('previous').click()");
    EXPECT_EQ(14, time());
    browser().evaluate("$('next').click()");
    EXPECT_EQ(20, time());
}

TEST_F(Page, OpensAtTheFirstFailureAndMarksThemAll)
{
    show(example());
    EXPECT_EQ(5, time());
    EXPECT_EQ("failed: leds 111111 within 5s; saw leds 010101", text("note"));
    EXPECT_TRUE(browser().evaluate("$('note').classList.contains('bad')"));
    EXPECT_EQ("2 failures", text("failures"));
    EXPECT_EQ("note,exit", browser().text("[...document.querySelectorAll('#rows .failed b')]"
                                          ".map(b => b.textContent).join()"));
    EXPECT_EQ(14, press("f"));
    EXPECT_EQ(14, press("f"));
    EXPECT_EQ(5, press("F", true));
    browser().evaluate("$('failures').click()");
    EXPECT_EQ(14, time());
    browser().evaluate("$('failures').click()");
    EXPECT_EQ(5, time()) << "round again";

    // Where the time line is as red as its text: at 5 and 14 of 20 seconds, and nowhere else.
    go(0);
    EXPECT_EQ("5,14",
              browser().text("(() => { const line = $('line'), reds = new Set(), pixels = "
                             "line.getContext('2d').getImageData(0, 10, line.width, 1).data; "
                             "for (let x = 0; x < line.width; x++) { const [r, g, b] = "
                             "pixels.slice(4 * x); if (r > 150 && g < 100 && b < 120) "
                             "reds.add(Math.round(x / line.width * 20)); } "
                             "return [...reds].join(); })()"));
}

TEST_F(Page, WithoutAFailureNothingIsRedAndItOpensAtTheBeginning)
{
    show({event(0.5, "mode", "1"), event(3, "exit", "0")});
    EXPECT_EQ(0, time());
    EXPECT_TRUE(browser().evaluate("$('failures').hidden"));
    EXPECT_EQ(0, number("document.querySelectorAll('.failed').length"));
    press("f");
    EXPECT_EQ(0, time());
}

TEST_F(Page, KeysMoveTheTime)
{
    show(example(), "t=5");
    EXPECT_EQ(6, press("ArrowRight"));
    EXPECT_EQ(5, press("ArrowLeft"));
    EXPECT_EQ(15, press("ArrowRight", true));
    EXPECT_EQ(5, press("ArrowLeft", true));
    EXPECT_EQ(6, press("."));
    EXPECT_EQ("111000", leds());
    EXPECT_EQ(6.25, press("."));
    EXPECT_EQ(6, press(","));
    EXPECT_EQ(3.1, press(","));
    EXPECT_EQ(20, press("End"));
    EXPECT_EQ(20, press("ArrowRight"));
    EXPECT_EQ(0, press("Home"));
    EXPECT_EQ(0, press("ArrowLeft"));
    EXPECT_EQ("#t=0.000", browser().text("location.hash"));

    EXPECT_EQ(1, number("parseFloat($('speed').value)"));
    press("+");
    EXPECT_EQ(2, number("parseFloat($('speed').value)"));
    press("-");
    press("-");
    EXPECT_EQ(0.5, number("parseFloat($('speed').value)"));
    for (int i = 0; i < 20; i++)
        press("-");
    EXPECT_EQ(0.1, number("parseFloat($('speed').value)"));

    const double seen = number("ZOOMS[zoom]");
    press("z");
    EXPECT_NE(seen, number("ZOOMS[zoom]"));
    press("e");
    EXPECT_EQ("kind", browser().text("document.activeElement.id"));
    press("Escape");
    EXPECT_EQ("BODY", browser().text("document.activeElement.tagName"));
    press("?");
    EXPECT_TRUE(browser().evaluate("$('keys').open"));
    EXPECT_EQ(number("Object.keys(KEYS).length"), number("document.querySelectorAll('kbd').length"))
        << "each is told of on the page";
}

TEST_F(Page, PlaysAtItsSpeedAndPauses)
{
    show(example(), "t=1");
    press(" ");
    EXPECT_EQ("Pause", text("play"));
    EXPECT_TRUE(comesTrue("now > 1.5"));
    press(" ");
    EXPECT_EQ("Play", text("play"));
    const double paused = time();
    EXPECT_LT(paused, 15) << "it did not wait for the end";
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(paused, time());
    EXPECT_EQ(ledsAt(example(), paused), leds());

    // What is shown in a while of its own clock, at two speeds.
    for (const double speed : {0.5, 5.0}) {
        const json times =
            browser().evaluate("new Promise(done => { seek(1); $('speed').value = '" +
                               json(speed).dump().substr(0, speed < 1 ? 3 : 1) +
                               " ×'; play(); const from = performance.now(); setTimeout(() => "
                               "requestAnimationFrame(t => { pause(); done([(t - from) / 1000, now "
                               "- 1]); }), 1000); })");
        EXPECT_NEAR(speed, times[1].get<double>() / times[0].get<double>(), speed * 0.1) << times;
    }

    go(19.8);
    press(" ");
    EXPECT_TRUE(comesTrue("!playing")) << "it pauses at the end";
    EXPECT_EQ(20, time());
    browser().evaluate("$('play').click()");
    EXPECT_TRUE(comesTrue("now > 0.01 && now < 15")) << "and begins anew";
    browser().evaluate("$('play').click()");
}

TEST_F(Page, TheTimeLineIsDragged)
{
    show(example(), "t=1");
    const json line = browser().evaluate("$('line').getBoundingClientRect().toJSON()");
    const double x = line["x"];
    const double y = line["y"].get<double>() + 20;
    const double width = line["width"];
    browser().drag(x + width / 4, y, x + width / 2, y);
    EXPECT_NEAR(10, time(), 0.05);
    browser().drag(x + width / 4, y, x + width / 4, y);
    EXPECT_NEAR(5, time(), 0.05) << "a click is enough";
    browser().drag(x + width / 4, y, x + width + 300, y);
    EXPECT_EQ(20, time()) << "to the end at most";

    go(10);
    const json lens = browser().evaluate("$('lens').getBoundingClientRect().toJSON()");
    const double second = (lens["width"].get<double>() - 52) / 20;
    const double middle = lens["x"].get<double>() + 400;
    const double top = lens["y"].get<double>() + 50;
    browser().drag(middle, top, middle + 3 * second, top);
    EXPECT_NEAR(7, time(), 0.05) << "what is dragged to the right was before";
    EXPECT_EQ(time(), number("parseFloat($('line').ariaValueNow)"));
    EXPECT_EQ(20, number("parseFloat($('line').ariaValueMax)"));
}

TEST_F(Page, TextIsNothingButText)
{
    const std::string hostile = "</script><script>document.title='taken'</script><img src=x "
                                "onerror=alert(1)>&amp;\x01 \\u003c";
    show({event(0.1, "note", hostile), event(0.2, "log", log(hostile)),
          event(0.3, "store", "Kelo_Ipv6Status wanAddress \"" + hostile + "\""),
          event(0.4, "laser", hostile), event(0.5, "gpon", hostile), event(0.6, "exit", hostile),
          event(0.7, "mode", "-7"), event(0.8, "mode", "99"), event(0.9, "button", "-3")});
    go(0.9);
    EXPECT_EQ("example", browser().text("document.title"));
    EXPECT_EQ(0, number("document.images.length"));
    EXPECT_EQ(hostile, text("note"));
    EXPECT_EQ(hostile, text("wanAddress"));
    EXPECT_EQ("out of rangemode 99, when the daemon ended", text("mode"));
}

TEST_F(Page, FitsATelephone)
{
    show(example(), "t=5");
    for (const int width : {390, 320}) {
        browser().resize(width, 800, true);
        EXPECT_EQ(width, number("document.documentElement.scrollWidth"));
        EXPECT_EQ(width, number("innerWidth")) << "it is not shrunk to fit";
        EXPECT_EQ(1, number("new Set([...$('leds').children].map(led => "
                            "led.getBoundingClientRect().top)).size"))
            << "the LEDs stand in a row";
        EXPECT_LE(36, number("Math.min(...[...document.querySelectorAll('button:not([hidden]), "
                             "select')].map(b => b.getBoundingClientRect().height))"));
    }
}

TEST_F(Page, FollowsTheColoursThatThePersonPrefers)
{
    show(example());
    const char colour[] = "getComputedStyle(document.body).backgroundColor";
    const std::string light = browser().text(colour);
    browser().prefer("dark");
    EXPECT_NE(light, browser().text(colour));
}

TEST_F(Page, TenMinutesOfABusyBoardTakeLessThan200Kilobytes)
{
    std::vector<json> record = {event(0, "mode", "3")};
    const char *const frames[] = {"000100", "000110", "000111", "000000"};
    unsigned long long random = 1;
    const auto next = [&](unsigned long long below) {
        random = random * 6364136223846793005U + 1442695040888963407U;
        return (random >> 33) % below;
    };
    for (int i = 0; i < 6000; i++) {
        const double at = i * 0.1 + static_cast<double>(next(900)) * 1e-5;
        record.push_back(event(at, "leds", frames[i % 4]));
        record.push_back(event(at, "leds", frames[i % 4]));
        record.push_back(event(at, "call", "syscfg_getLaserInfo"));
        if (i % 10 != 0)
            continue;
        std::string ports;
        for (const char *const port : {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"}) {
            const std::string in = std::to_string(next(100000000));
            const std::string out = std::to_string(next(9999999));
            ports += std::string("port=") + port + ",in=" + in + ",out=" + out + ",counterIn=9" +
                     in + ",counterOut=9" + out + "\n";
        }
        record.push_back(event(at, "snapshot", ports));
        if (i % 600 == 0)
            for (const char *const message :
                 {"readDisplayMode called with fd: 7, event: 2, arg: 0x55", "received \"restore\"",
                  "received len: 0"})
                record.push_back(event(at, "log", log(message)));
    }
    show(record);
    EXPECT_GT(200000, std::filesystem::file_size(file("run.html")));
    go(345.67);
    EXPECT_EQ(ledsAt(record, 345.67), leds());
    EXPECT_EQ(600, number("events.filter(e => e.kind === 'snapshot').length"));
    EXPECT_EQ(6000, number("frames.length")) << "repeats are dropped";
    EXPECT_EQ(0, number("events.filter(e => e.kind === 'call').length"));
    // A person who drags must not have to wait for the picture.
    EXPECT_GT(100, number("Math.min(...Array.from({length: 10}, (none, i) => { const from = "
                          "performance.now(); seek(i % 2 ? 599 : 1); return performance.now() - "
                          "from; }))"))
        << "ms for a step over all of it";
}

TEST_F(Page, ShowsARecordOfNothing)
{
    show({event(7, "laser", "-18.5")});
    EXPECT_EQ(7, time());
    EXPECT_EQ("0.0 s, from second 7.000", text("about").substr(0, 24));
    for (const char *const key : {" ", ".", "n", "p", "End", "z"})
        press(key);
    EXPECT_EQ(7, time());
}

TEST_F(Page, SaysInOneLineWhatItRefuses)
{
    std::ofstream(file("good.json")) << event(1, "mode", "1") << "\n";
    std::ofstream(file("kind.json")) << event(1, "mode", "1") << "\n"
                                     << event(2, "moon", "1") << "\n";
    std::ofstream(file("bad.json")) << event(1, "mode", "1") << "\n{\"time\":\n";
    std::ofstream(file("time.json")) << event(-1, "mode", "1") << "\n";
    std::ofstream(file("other")) << "export TEXT=1\n";
    std::ofstream(file("empty")) << "";
    const struct {
        int status;
        Words arguments;
        std::string message;
    } cases[] = {
        {1, {"report", file("nowhere"), "-o", file("a.html")}, "cannot read"},
        {1, {"report", file("kind.json"), "-o", file("a.html")}, "line 2 has no known kind"},
        {1, {"report", file("bad.json"), "-o", file("a.html")}, "line 2 is no event"},
        {1, {"report", file("time.json"), "-o", file("a.html")}, "line 1 is no event"},
        {1, {"report", file("other"), "-o", file("a.html")}, "no recording"},
        {1, {"report", file("empty"), "-o", file("a.html")}, "no recording"},
        {1, {"report", file("good.json"), "-o", "/nowhere/a.html"}, "cannot write /nowhere/a.html"},
        {1, {"-b", "no-such-board", "report", "-o", file("a.html")}, "no board named"},
        {2, {"report", file("good.json")}, "--output is required"},
    };
    for (const auto &one : cases) {
        const kelo::Result result = kb(one.arguments);
        EXPECT_EQ(one.status, result.status) << result.output;
        EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << result.output;
        EXPECT_NE(std::string::npos, result.output.find(one.message)) << result.output;
        EXPECT_FALSE(std::filesystem::exists(file("a.html"))) << result.output;
    }
    EXPECT_EQ(0U, kb({"report", file("good.json"), "-o", "-"}).output.find("<!DOCTYPE html>"));
}

} // namespace
