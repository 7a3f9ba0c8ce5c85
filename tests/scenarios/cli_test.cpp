// kelo-board as its users meet it: what it prints where, its exit status, and what it leaves
// behind.

#include "process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using Words = std::vector<std::string>;

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome runCommand(const Words &command)
{
    kelo::Pipe out = kelo::makePipe();
    kelo::Pipe err = kelo::makePipe();
    const pid_t child = kelo::spawn(command, {-1, out.write.get(), err.write.get()});
    out.write.reset();
    err.write.reset();
    Outcome outcome;
    std::thread reader([&] { outcome.err = kelo::readAll(err.read.get()); });
    outcome.out = kelo::readAll(out.read.get());
    reader.join();
    outcome.status = kelo::waitFor(child);
    return outcome;
}

Outcome kb(Words arguments)
{
    arguments.insert(arguments.begin(), {"timeout", "-k1", "30", KELO_BOARD_PROGRAM});
    return runCommand(arguments);
}

Words linesOf(const std::string &text)
{
    Words lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

testing::AssertionResult has(const std::string &text, const std::string &part)
{
    if (text.find(part) != std::string::npos)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

/// Whether there is no such board: a command to a board can fail for other reasons, too.
testing::AssertionResult isGone(const std::string &board)
{
    return has(kb({"-b", board, "leds"}).err, "no board named \"" + board + '"');
}

testing::AssertionResult within(std::chrono::seconds deadline,
                                const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return testing::AssertionFailure() << "not in time";
        std::this_thread::sleep_for(10ms);
    }
    return testing::AssertionSuccess();
}

/// Whether any process has a text in its environment or command line.
bool isAround(const std::string &text)
{
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", none)) {
        const int pid = atoi(entry.path().filename().c_str());
        for (const char *file : {"cmdline", "environ"}) {
            if (pid > 0 && pid != getpid() &&
                kelo::readFile(entry.path() / file).find(text) != std::string::npos)
                return true;
        }
    }
    return false;
}

/// The processes whose root is a board's, or who wait in its namespaces.
bool namespaceLives(const std::string &link)
{
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", none)) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path() / "ns/net", gone) == link)
            return true;
    }
    return false;
}

std::string uniqueName()
{
    return "cli-" + std::to_string(getpid());
}

// --- Without a board -----------------------------------------------------------------------------

struct BadUse {
    const char *name;
    Words arguments;
    const char *message;
};

void PrintTo(const BadUse &use, std::ostream *stream)
{
    *stream << use.name;
}

class Usage : public testing::TestWithParam<BadUse> {};

TEST_P(Usage, IsRefusedInOneLineWithStatus2)
{
    const Outcome outcome = kb(GetParam().arguments);
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ(1U, linesOf(outcome.err).size()) << outcome.err;
    EXPECT_EQ(0U, outcome.err.find("kelo-board: ")) << outcome.err;
    EXPECT_TRUE(has(outcome.err, GetParam().message));
}

const BadUse badUses[] = {
    {"NoCommand", {}, "a command is missing (see kelo-board --help)"},
    {"UnknownCommand", {"nonsense"}, "unknown command: nonsense (see kelo-board --help)"},
    {"UnknownOption", {"leds", "--colour"}, "--colour (see kelo-board leds --help)"},
    {"TooMany", {"leds", "on", "off"}, "kelo-board: not expected: on (see kelo-board leds --help)"},
    {"BoardMissing", {"-b"}, "--board"},
    {"BoardName", {"-b", "a/b", "leds"}, "no usable board name: \"a/b\""},
    {"BoardNameLong", {"up", std::string(200, 'a')}, "no usable board name"},
    {"BoardNameEmpty", {"up", ""}, "no usable board name: \"\""},
    {"SetNothing", {"set"}, "a command is missing (see kelo-board set --help)"},
    {"SetUnknown", {"set", "lasr", "-3"}, "unknown command: lasr (see kelo-board set --help)"},
    {"LaserNothing", {"set", "laser"}, "DBM is required (see kelo-board set laser --help)"},
    {"LaserWord", {"set", "laser", "bright"}, "no optical power: \"bright\""},
    {"LaserInfinite", {"set", "laser", "inf"}, "no optical power: \"inf\""},
    {"LaserBright", {"set", "laser", "40.1"}, "no optical power: \"40.1\" (dBm from -100 to 40"},
    {"LaserDark", {"set", "laser", "-100.1"}, "no optical power: \"-100.1\""},
    {"LaserEmpty", {"set", "laser", ""}, "no optical power: \"\""},
    {"LaserUnit", {"set", "laser", "-3dBm"}, "no optical power: \"-3dBm\""},
    {"GponWord", {"set", "gpon", "up"}, "no GPON state: \"up\" (a whole number)"},
    {"GponEmpty", {"set", "gpon", ""}, "no GPON state: \"\""},
    {"GponRange", {"set", "gpon", "99999999999"}, "no GPON state: \"99999999999\""},
    {"ButtonWord", {"set", "button", "down"}, "no button value: \"down\""},
    {"PortName", {"set", "port", "lan9", "1", "2"}, "no port: \"lan9\""},
    {"PortNumber", {"set", "port", "0", "1", "2"}, "no port: \"0\""},
    {"PortCount", {"set", "port", "lan1", "-1"}, "no count: \"-1\""},
    {"PortRange", {"set", "port", "lan1", "18446744073709551616"}, "no count"},
    {"PortSecond", {"set", "port", "lan1", "1", "x"}, "no count: \"x\""},
    {"PressTime", {"press", "long"}, "no length of time: \"long\""},
    {"WaitUnit", {"wait", "3h"}, "no length of time: \"3h\""},
    {"WaitNegative", {"wait", "--", "-1"}, "no length of time: \"-1\""},
    {"SignalName", {"signal", "FOO"}, "no signal: \"FOO\""},
    {"SignalNumber", {"signal", "0"}, "no signal: \"0\""},
    {"SpeedRange", {"start", "--speed", "0"}, "--speed"},
    {"KeepRange", {"up", "--keep", "0"}, "--keep"},
    {"KeepWord", {"up", "--keep", "all"}, "--keep"},
    {"BurstRange", {"burst", "0"}, "COUNT"},
    {"FaultName", {"fault", "rust"}, "no fault: \"rust\""},
    {"FaultState", {"fault", "led-missing", "maybe"}, "on or off, not \"maybe\""},
    {"ExecNothing", {"exec"}, "COMMAND is required"},
    {"ExecFar", {"exec", "--far"}, "COMMAND is required"},
    {"ProviderPrefix", {"provider", "start", "2001:db8::1/64"}, "no prefix: \"2001:db8::1/64\""},
    {"ProviderLength", {"provider", "renumber", "2001:db8::/129"}, "no prefix"},
    {"ProviderLink", {"provider", "start", "--on", "br0"}, "--on"},
    {"ProviderTimes",
     {"provider", "start", "--preferred", "3s", "--valid", "2s"},
     "cannot be preferred for longer"},
    {"ProviderRouter", {"provider", "start", "--router", "3h"}, "no length of time"},
    {"IpNothing", {"ip"}, "ARGUMENT is required"},
    {"ExpectNothing", {"expect"}, "a command is missing (see kelo-board expect --help)"},
    {"ExpectUnknown", {"expect", "noise"}, "unknown command: noise"},
    {"ExpectPattern", {"expect", "leds", "11"}, "no LED pattern: \"11\""},
    {"ExpectMode", {"expect", "mode", "disco"}, "no display mode: \"disco\""},
    {"ExpectAttribute", {"expect", "store", "wanAdress", "x"}, "no attribute: \"wanAdress\""},
    {"ExpectCall", {"expect", "calls", "Reboot"}, "no call: \"Reboot\""},
    {"ExpectCount", {"expect", "omci", "-1"}, "no count: \"-1\""},
    {"ExpectField", {"expect", "snapshot", "lan1.up", "3"}, "no snapshot field: \"lan1.up\""},
    {"ExpectPort", {"expect", "snapshot", "lan9.in", "3"}, "no port: \"lan9\""},
    {"ExpectValue", {"expect", "snapshot", "lan1.in", "many"}, "no count: \"many\""},
    {"ExpectStatus", {"expect", "exit", "well"}, "no count: \"well\""},
    {"ExpectDeadline", {"expect", "--within", "soon", "mode", "none"}, "\"soon\""},
    {"ExpectFor", {"expect", "--for", "ever", "mode", "none"}, "\"ever\""},
    {"BlinkOne", {"expect", "blink", "000000"}, "two patterns at least"},
    {"BlinkSame", {"expect", "blink", "000000/000000"}, "have to differ"},
    {"BlinkWord", {"expect", "blink", "000000/111111", "often"}, "unknown word \"often\""},
    {"BlinkValue", {"expect", "blink", "000000/111111", "for"}, "no length of time: \"\""},
    {"OrderNothing", {"expect", "order"}, "an order takes two events at least"},
    {"OrderOne", {"expect", "order", "log", "x"}, "an order takes two events at least"},
    {"OrderKind", {"expect", "order", "address", "omci"}, "no kind of event: \"address\" (leds, "},
    {"OrderTexts", {"expect", "order", "log", "a", "b"}, "no kind of event: \"b\""},
    {"BlinkZero", {"expect", "blink", "000000/111111", "period", "0"}, "no period: \"0\""},
    {"PlotMisspelled", {"plot", "--out", "a.svg"}, "not expected: --out (see kelo-board plot"},
    {"RunNothing", {"run"}, "FILE is required"},
    {"RunMissing", {"run", "/nonexistent"}, "/nonexistent"},
    {"RunFolder", {"run", "/"}, "FILE"},
    {"RunJobs", {"run", "-j", "0", "/etc/passwd"}, "--jobs"},
    {"RunLimit", {"run", "--limit", "x", "/etc/passwd"}, "no length of time: \"x\""},
};

INSTANTIATE_TEST_SUITE_P(Bad, Usage, testing::ValuesIn(badUses),
                         [](const auto &test) { return test.param.name; });

class Needs : public testing::TestWithParam<Words> {};

TEST_P(Needs, ARunningBoardAndSaySoInOneLineWithStatus1)
{
    Words arguments = GetParam();
    arguments.insert(arguments.begin(), {"-b", "nobody"});
    const Outcome outcome = kb(arguments);
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ("kelo-board: no board named \"nobody\" is running (start one: kelo-board up "
              "nobody)\n",
              outcome.err);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, Needs,
    testing::Values(Words{"down"}, Words{"set", "laser", "-3"}, Words{"set", "gpon", "5"},
                    Words{"set", "button", "0"}, Words{"set", "port", "lan1", "1"},
                    Words{"set", "port", "lan1", "none"}, Words{"press"}, Words{"hold"},
                    Words{"release"}, Words{"mode"}, Words{"mode", "signal"}, Words{"fault"},
                    Words{"fault", "led-missing"}, Words{"burst"}, Words{"exec", "true"},
                    Words{"ip", "link"}, Words{"signal", "TERM"}, Words{"start"}, Words{"stop"},
                    Words{"restart"}, Words{"status"}, Words{"leds"}, Words{"store"},
                    Words{"store", "wanAddress"}, Words{"snapshot"}, Words{"log"}, Words{"events"},
                    Words{"path"}, Words{"wait", "1"}, Words{"mark"},
                    Words{"expect", "mode", "none"}),
    [](const auto &test) {
        std::string name;
        for (const std::string &word : test.param)
            std::copy_if(word.begin(), word.end(), std::back_inserter(name), isalnum);
        return name;
    });

/// Every command, those of set and expect too.
std::vector<Words> everyCommand()
{
    std::vector<Words> commands;
    for (const std::string &command : linesOf(kb({"complete", ""}).out)) {
        commands.push_back({command});
        if (command == "set" || command == "expect") {
            for (const std::string &inner : linesOf(kb({"complete", command, ""}).out))
                commands.push_back({command, inner});
        }
    }
    return commands;
}

TEST(Up, NamesAFormThatIsNotBuilt)
{
    const Outcome outcome = kb({"up", "--detach", "--on", "vax", uniqueName()});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("kelo-board: no board of the form \"vax\" is built here\n", outcome.err);
}

TEST(Help, TellsOfEveryCommandWithinEightyColumns)
{
    std::vector<Words> commands = everyCommand();
    EXPECT_GT(commands.size(), 40U);
    commands.emplace_back();
    for (Words command : commands) {
        command.push_back("--help");
        const Outcome outcome = kb(command);
        EXPECT_EQ(0, outcome.status) << command.front();
        EXPECT_EQ("", outcome.err);
        EXPECT_TRUE(has(outcome.out, "Usage: kelo-board"));
        for (const std::string &line : linesOf(outcome.out))
            EXPECT_LE(line.size(), 80U) << line;
    }
}

TEST(Help, ManualPageDescribesEveryCommandAndOption)
{
    const std::string page = kelo::readFile(KELO_SOURCE "/docs/kelo-board.1");
    for (const Words &command : everyCommand()) {
        const std::string name = command.size() == 1 ? command[0] : command[0] + " " + command[1];
        EXPECT_TRUE(page.find("\n.It Ic " + name + "\n") != std::string::npos ||
                    page.find("\n.It Ic " + name + " ") != std::string::npos ||
                    page.find("\n.It Xo Ic " + name + "\n") != std::string::npos)
            << name;
        Words words = command;
        words.insert(words.begin(), "complete");
        words.push_back("--");
        words.insert(words.begin() + 1, "--");
        for (const std::string &option : linesOf(kb(words).out)) {
            if (option.starts_with("--") && option != "--help") {
                EXPECT_NE(std::string::npos, page.find("Fl -" + option.substr(2)))
                    << name << " " << option;
            }
        }
    }
}

TEST(Completion, OffersWhatMayComeNext)
{
    const auto offers = [](const std::string &line) {
        const std::string script = ". " KELO_SOURCE "/board/kelo-board.bash; COMP_WORDS=(" + line +
                                   "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                                   "_kelo_board " KELO_BOARD_PROGRAM
                                   "; printf '%s ' \"${COMPREPLY[@]}\"";
        const Outcome outcome = runCommand({"bash", "-c", script});
        EXPECT_EQ("", outcome.err);
        return outcome.out;
    };
    EXPECT_EQ("exec events expect ", offers("kelo-board e"));
    EXPECT_EQ("laser ", offers("kelo-board set l"));
    EXPECT_EQ("locateme ledtest ", offers("kelo-board mode l"));
    EXPECT_EQ("locateme ", offers("kelo-board expect --within 3 mode loc"));
    EXPECT_EQ("--within ", offers("kelo-board expect --w"));
    EXPECT_EQ("wan wifi2 wifi5 ", offers("kelo-board set port w"));
    EXPECT_EQ("run-full run-readonly ", offers("kelo-board fault run"));
    EXPECT_EQ(" ", offers("kelo-board frobnicate x"));
}

TEST(Output, ThatCannotBeWrittenIsAFailure)
{
    const std::string name = uniqueName();
    ASSERT_EQ(0, kb({"up", "--detach", name}).status);
    for (const char *const command : {"list", "--help", "--version", "log --follow", "web"}) {
        const std::string line = KELO_BOARD_PROGRAM " -b " + name + " " + command + " > /dev/full";
        const Outcome outcome = runCommand({"timeout", "30", "sh", "-c", line});
        EXPECT_EQ(1, outcome.status) << command;
        EXPECT_EQ("kelo-board: cannot write the output: No space left on device\n", outcome.err);
    }
    kb({"down", name});
}

// --- On a board ----------------------------------------------------------------------------------

class OnBoard : public testing::Test {
protected:
    const std::string name = uniqueName();

    void SetUp() override { up({}); }
    void TearDown() override
    {
        kb({"down", name});
        if (program > 0)
            kelo::waitFor(program);
    }

    /// Runs a board that ends with this test, however that ends.
    void up(const Words &prefix, const Words &options = {})
    {
        Words command{"setpriv", "--pdeathsig", "KILL"};
        command.insert(command.end(), prefix.begin(), prefix.end());
        command.insert(command.end(), {KELO_BOARD_PROGRAM, "up", name});
        command.insert(command.end(), options.begin(), options.end());
        const kelo::Descriptor nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
        program = kelo::spawn(command, {-1, nothing.get(), -1});
        ASSERT_TRUE(within(30s, [&] { return on({"mode"}).out == "signal\n"; }));
        const Outcome drawn = on({"expect", "--within", "30s", "leds", "110000"});
        ASSERT_EQ(0, drawn.status) << drawn.err;
    }

    pid_t program = -1;

    /// The process that runs the board.
    static pid_t host(const std::string &name)
    {
        for (const auto &board : nlohmann::json::parse(kb({"list", "--json"}).out)) {
            if (board["name"] == name)
                return board["pid"];
        }
        return -1;
    }
    /// Waits until some client has been connected to the board for longer than a mere question
    /// takes.
    testing::AssertionResult isFollowed() const
    {
        std::string connected;
        auto since = std::chrono::steady_clock::now();
        return within(30s, [&] {
            std::string now;
            for (const std::string &line : linesOf(kelo::readFile("/proc/net/unix"))) {
                if (line.ends_with("/" + name) && line.find(" 0001 03 ") != std::string::npos)
                    now = line;
            }
            if (now.empty() || std::exchange(connected, now) != now)
                since = std::chrono::steady_clock::now();
            return std::chrono::steady_clock::now() - since > 500ms;
        });
    }

    Outcome on(Words arguments) const
    {
        arguments.insert(arguments.begin(), {"-b", name});
        return kb(arguments);
    }
    void succeeds(const Words &arguments) const
    {
        const Outcome outcome = on(arguments);
        EXPECT_EQ(0, outcome.status) << arguments[0] << ": " << outcome.err;
        EXPECT_EQ("", outcome.err);
    }
    nlohmann::json json(const Words &arguments) const
    {
        const Outcome outcome = on(arguments);
        EXPECT_EQ(0, outcome.status) << outcome.err;
        return nlohmann::json::parse(outcome.out, nullptr, false);
    }
};

TEST_F(OnBoard, CanBeEndedAsItStarts)
{
    const std::string other = name + "-other";
    const std::string idle = "/tmp/" + name + "-idle";
    std::ofstream(idle) << "#!/bin/sh\nsleep 100\n";
    std::filesystem::permissions(idle, std::filesystem::perms::owner_all);
    for (const auto &[option, value, message] :
         {std::tuple("--on", "ssh:nowhere", "the board is only starting"),
          std::tuple("--daemon", idle.c_str(), "nothing has set the LEDs yet")}) {
        const pid_t up = kelo::spawnApart(
            {"env", "KELO_SSH=" + idle, KELO_BOARD_PROGRAM, "up", option, value, other}, {});
        EXPECT_TRUE(within(10s, [&, text = message] {
            return has(kb({"-b", other, "leds"}).err, text);
        })) << message;
        EXPECT_EQ(0, kb({"down", other}).status);
        EXPECT_EQ(1, kelo::waitFor(up));
    }
    std::filesystem::remove(idle);
}

TEST_F(OnBoard, ComesUpWithClosedDescriptors)
{
    succeeds({"down"});
    const Outcome outcome =
        runCommand({"sh", "-c", KELO_BOARD_PROGRAM " up --detach " + name + " <&- >&- 2>&-"});
    EXPECT_EQ(0, outcome.status);
    succeeds({"expect", "leds", "110000"});
}

TEST_F(OnBoard, AnEarlierBoardKeepsItsName)
{
    const Outcome outcome = kb({"up", name});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("kelo-board: a board named \"" + name + "\" runs already\n", outcome.err);
    const Outcome detached = kb({"up", "--detach", name});
    EXPECT_EQ(1, detached.status);
    EXPECT_EQ(outcome.err, detached.err);
    succeeds({"leds"});
}

TEST_F(OnBoard, SeveralBoardsAreDrivenByName)
{
    const std::string other = name + "-other";
    ASSERT_EQ(
        0, runCommand({"env", "KELO_BOARD=", KELO_BOARD_PROGRAM, "up", "--detach", other}).status);
    succeeds({"mode", "errora12"});
    succeeds({"expect", "leds", "010000"});
    EXPECT_EQ("signal\n", kb({"-b", other, "mode"}).out);
    EXPECT_EQ("errora12\n", kb({"mode", "-b", name}).out);
    const Outcome byEnvironment =
        runCommand({"env", "KELO_BOARD_NAME=" + other, KELO_BOARD_PROGRAM, "mode"});
    EXPECT_EQ("signal\n", byEnvironment.out);

    const nlohmann::json boards = nlohmann::json::parse(kb({"list", "--json"}).out);
    int found = 0;
    for (const auto &board : boards)
        found += board["name"] == name    ? board["mode"] == "errora12"
                 : board["name"] == other ? board["mode"] == "signal"
                                          : 0;
    EXPECT_EQ(2, found) << boards;
    EXPECT_TRUE(has(kb({"ps"}).out, other));

    EXPECT_EQ(0, kb({"down", other}).status);
    EXPECT_TRUE(isGone(other));
    succeeds({"leds"});
}

TEST_F(OnBoard, DownEndsAllWhoFollow)
{
    std::vector<pid_t> followers;
    for (int i = 0; i < 3; i++)
        followers.push_back(
            kelo::spawnApart({KELO_BOARD_PROGRAM, "-b", name, "record", "--for", "60", "-"}, {}));
    succeeds({"wait", "1"});
    EXPECT_EQ(0, kb({"down", name}).status);
    for (const pid_t follower : followers)
        EXPECT_EQ(0, kelo::waitFor(follower));
}

TEST_F(OnBoard, DownLeavesNothing)
{
    const std::string network = on({"exec", "readlink", "/proc/self/ns/net"}).out;
    ASSERT_NE("", network);
    const std::string link = network.substr(0, network.size() - 1);
    EXPECT_TRUE(namespaceLives(link));
    EXPECT_EQ(0, kb({"down", name}).status);
    EXPECT_FALSE(namespaceLives(link));
    EXPECT_TRUE(isGone(name));
    EXPECT_EQ(1, kb({"down", name}).status);
}

TEST_F(OnBoard, ADetachedBoardThatIsKilledLeavesNothing)
{
    const std::string detached = name + "-detached";
    const Outcome outcome = kb({"up", "--detach", detached});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("", outcome.out + outcome.err);
    const std::string link = kb({"-b", detached, "exec", "readlink", "/proc/self/ns/net"}).out;
    const pid_t pid = host(detached);
    ASSERT_GT(pid, 0);
    EXPECT_EQ("/", std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"));
    kill(pid, SIGKILL);
    EXPECT_TRUE(within(20s, [&] { return !namespaceLives(link.substr(0, link.size() - 1)); }));
    EXPECT_TRUE(isGone(detached));
}

TEST_F(OnBoard, PrintsJsonForScripts)
{
    succeeds({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"});
    succeeds({"expect", "store", "wanAddressLen", "64"});
    EXPECT_EQ("2001:db8::1", json({"store", "--json"})["wanAddress"]);
    EXPECT_EQ("64", json({"store", "wanAddressLen", "--json"}));

    const nlohmann::json leds = json({"leds", "--json"});
    EXPECT_EQ("110000", leds["leds"]);
    EXPECT_EQ(true, leds["gpio"]["7"]);
    EXPECT_EQ(false, leds["gpio"]["8"]);

    const nlohmann::json status = json({"status", "--json"});
    EXPECT_EQ("running", status["daemon"]);
    EXPECT_EQ("signal", status["mode"]);
    EXPECT_EQ(-18.5, status["laser"]);
    EXPECT_EQ(5, status["gpon"]);
    EXPECT_EQ(0, status["button"]);
    EXPECT_FALSE(status.contains("exit"));
    for (const auto &[power, reading] :
         {std::pair<const char *, nlohmann::json>{"none", nullptr}, {"nan", "nan"}, {"-3", -3}}) {
        succeeds({"set", "laser", power});
        EXPECT_TRUE(within(10s, [&, value = reading] {
            return json({"status", "--json"})["laser"] == value;
        })) << json({"status", "--json"});
    }

    succeeds({"set", "port", "lan1", "18446744073709551615", "7"});
    succeeds({"expect", "snapshot", "lan1.counterOut", "7"});
    const nlohmann::json snapshot = json({"snapshot", "--json"});
    EXPECT_EQ(7U, snapshot.size());
    EXPECT_EQ("lan1", snapshot[0]["port"]);
    EXPECT_EQ(18446744073709551615ULL, snapshot[0]["counterIn"]);

    EXPECT_EQ(false, json({"fault", "--json"})["omci-slow"]);

    on({"mode", "no\x01\xffse \"quoted\"\\"});
    succeeds({"expect", "log", "se \"quoted\"\\"});
    double time = 0;
    for (const char *command : {"log", "events"}) {
        for (const std::string &line : linesOf(on({command, "--json"}).out)) {
            const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
            ASSERT_TRUE(event.is_object()) << line;
            time = event["time"];
            EXPECT_TRUE(event["kind"].is_string() && event["text"].is_string());
        }
    }
    EXPECT_GT(time, 0);
}

TEST_F(OnBoard, FollowsTheLog)
{
    const std::string command = std::string(KELO_BOARD_PROGRAM) + " -b " + name + " log -f";
    const std::string find = command + " | grep -m 1 'received \"locateme\"'";
    kelo::Pipe out = kelo::makePipe();
    const pid_t follower = kelo::spawn({"sh", "-c", find}, {-1, out.write.get(), -1});
    out.write.reset();
    succeeds({"mode", "locateme"});
    succeeds({"expect", "log", "received \"locateme\""});
    EXPECT_TRUE(has(kelo::readAll(out.read.get()), "received \"locateme\""));
    kb({"down", name});
    EXPECT_EQ(0, kelo::waitFor(follower));
}

class Followed : public OnBoard, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override
    {
        OnBoard::SetUp();
        errors = kelo::makePipe();
        output = kelo::makePipe();
        follower = kelo::spawn(
            {"sh", "-c", std::string(KELO_BOARD_PROGRAM) + " -b " + name + " " + GetParam()},
            {-1, output.write.get(), errors.write.get()});
        errors.write.reset();
        output.write.reset();
        ASSERT_TRUE(isFollowed());
    }
    std::string said() const { return kelo::readAll(errors.read.get()); }

    kelo::Pipe errors;
    kelo::Pipe output;
    pid_t follower = -1;
};

TEST_P(Followed, BoardThatIsAskedToEndEndsItsFollower)
{
    kb({"down", name});
    EXPECT_EQ("", said());
    EXPECT_EQ(0, kelo::waitFor(follower));
}

TEST_P(Followed, BoardThatIsKilledFailsItsFollower)
{
    kill(host(name), SIGKILL);
    EXPECT_EQ("kelo-board: the board \"" + name + "\" ended, and nobody asked it to\n", said());
    EXPECT_EQ(1, kelo::waitFor(follower));
}

INSTANTIATE_TEST_SUITE_P(By, Followed,
                         testing::Values("log -f", "events -f", "record --for 100s -"),
                         [](const auto &test) {
                             const std::string words = test.param;
                             return words.substr(0, words.find(' '));
                         });

TEST_F(OnBoard, CommandsSayWhatTheBoardCannotDo)
{
    const auto fails = [&](const Words &arguments, const std::string &message) {
        const Outcome outcome = on(arguments);
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ(1U, linesOf(outcome.err).size()) << outcome.err;
        EXPECT_TRUE(has(outcome.err, message));
    };
    fails({"store", "colour"}, "the store has no \"colour\"");
    fails({"start"}, "the daemon runs already");
    succeeds({"stop"});
    fails({"mode", "signal"}, "the daemon does not run (kelo-board start)");
    fails({"signal", "TERM"}, "the daemon does not run");
    fails({"burst"}, "the daemon does not run");
    EXPECT_EQ("ended", json({"status", "--json"})["daemon"]);
    succeeds({"start"});
    EXPECT_EQ(3, on({"exec", "sh", "-c", "exit 3"}).status);
    EXPECT_EQ(127, on({"exec", "/nonexistent"}).status);
    fails({"provider", "renumber", "2001:db8::/64"}, "there is no provider on nas0_0");
}

TEST_F(OnBoard, CommandsRunAtTheFarEndOfItsLinks)
{
    const std::string here = on({"exec", "readlink", "/proc/self/ns/net"}).out;
    const std::string there = on({"exec", "--far", "readlink", "/proc/self/ns/net"}).out;
    EXPECT_TRUE(there.starts_with("net:["));
    EXPECT_NE(here, there);
    EXPECT_EQ(there, on({"exec", "--far", "--", "readlink", "/proc/self/ns/net"}).out);
    succeeds({"ip", "--far", "-6", "addr", "add", "2001:db8::2/64", "dev", "nas0_0", "nodad"});
    succeeds({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"});
    succeeds({"expect", "store", "wanAddress", "2001:db8::1"});
    EXPECT_FALSE(has(on({"log"}).out, "2001:db8::2"));
    EXPECT_EQ(0, on({"exec", "--far", "ip", "route", "get", "2001:db8::1"}).status);
}

TEST_F(OnBoard, ProviderSaysWhichPackageIsMissing)
{
    struct Missing {
        std::string server;
        std::string package;
        Words command;
    };
    for (const auto &[server, package, command] :
         {Missing{"dhcpcd", "dhcpcd-base", {"dhcp", "start"}},
          Missing{"dnsmasq", "dnsmasq-base", {"provider", "start", "--dhcp"}},
          Missing{"radvd", "radvd", {"provider", "start"}}}) {
        // Nobody but the board notices.
        succeeds({"exec", "mount", "--bind", "/dev/null", "/usr/sbin/" + server});
        const Outcome outcome = on(command);
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ("kelo-board: there is no " + server +
                      " on this machine: install Debian's package " + package + "\n",
                  outcome.err);
    }
}

TEST_F(OnBoard, ProvidersEndWithIt)
{
    succeeds({"provider", "start", "--dhcp"});
    succeeds({"dhcp", "start"});
    const std::string own = on({"exec", "readlink", "/proc/self/ns/pid"}).out;
    EXPECT_TRUE(has(on({"provider", "log"}).out, "radvd: "));
    EXPECT_TRUE(has(on({"provider", "log"}).out, "dnsmasq: "));
    EXPECT_TRUE(has(on({"provider", "log"}).out, "dhcpcd: "));
    EXPECT_NE("", on({"exec", "sh", "-c", "cat /proc/[0-9]*/comm | grep -x radvd"}).out);
    kb({"down", name});
    // Whatever runs in a process namespace ends with its first process.
    const Outcome left =
        runCommand({"sh", "-c", "for p in /proc/[0-9]*; do readlink $p/ns/pid; done"});
    EXPECT_FALSE(has(left.out, own.substr(0, own.find('\n'))));
}

TEST_F(OnBoard, ExpectNamesTheCycleThatItSawInstead)
{
    succeeds({"mode", "ledtest"}); // too slow to be seen twice
    EXPECT_TRUE(has(on({"expect", "--within", "100ms", "blink", "111000/000111"}).err,
                    "saw the LEDs below"));
    succeeds({"mode", "locateme"});
    succeeds({"expect", "mode", "locateme"});
    // Long enough for a whole cycle on a busy machine.
    const Outcome outcome = on({"expect", "--within", "3s", "blink", "111000/000111"});
    EXPECT_EQ(1, outcome.status);
    const std::string saw = linesOf(outcome.err).at(0);
    EXPECT_TRUE(has(saw, "expected blink 111000/000111 within 3s, saw blink "));
    EXPECT_TRUE(has(saw, "111000/000000/000111") || has(saw, "000111/000000/111000")) << saw;
}

TEST_F(OnBoard, PressLetsGoBeforeTheValueGrowsOnceMore)
{
    succeeds({"press", "2s"});
    const std::string events = on({"events"}).out;
    EXPECT_TRUE(has(events, "button    2\n"));
    EXPECT_FALSE(has(events, "button    3\n"));
}

TEST_F(OnBoard, PressLetsGoThoughNobodyWaitsForIt)
{
    const pid_t press = kelo::spawnApart({KELO_BOARD_PROGRAM, "-b", name, "press"}, {});
    EXPECT_TRUE(
        within(20s, [&] { return on({"events"}).out.find("button    1\n") != std::string::npos; }));
    EXPECT_EQ("kelo-board: the button is being pressed\n", on({"press"}).err);
    kill(press, SIGKILL);
    kelo::waitFor(press);
    succeeds({"expect", "order", "button", "1", "button", "2", "button", "0"});
}

TEST_F(OnBoard, ReleaseEndsAPress)
{
    const pid_t press = kelo::spawnApart({KELO_BOARD_PROGRAM, "-b", name, "press", "1000"}, {});
    EXPECT_TRUE(
        within(20s, [&] { return on({"events"}).out.find("button    1\n") != std::string::npos; }));
    succeeds({"release"});
    EXPECT_EQ(0, kelo::waitFor(press));
    succeeds({"press", "0"});
}

TEST_F(OnBoard, StatusTellsWhetherTheDaemonRuns)
{
    EXPECT_TRUE(has(on({"status"}).out, "daemon    running\n"));
    succeeds({"signal", "STOP"});
    EXPECT_TRUE(within(10s, [&] { return json({"status", "--json"})["daemon"] == "stopped"; }));
    EXPECT_TRUE(has(on({"status"}).out, "daemon    stopped\n"));
    succeeds({"signal", "CONT"});
    EXPECT_TRUE(within(10s, [&] { return json({"status", "--json"})["daemon"] == "running"; }));
    succeeds({"signal", "KILL"});
    EXPECT_TRUE(within(10s, [&] { return has(on({"status"}).out, "exit      signal KILL\n"); }));
    EXPECT_TRUE(has(on({"status"}).out, "daemon    ended\n"));
}

TEST_F(OnBoard, ModeWarnsOfAKeywordThatNoModeHas)
{
    const Outcome outcome = on({"mode", "locatme"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("kelo-board: no display mode is called \"locatme\"; sent it all the same\n",
              outcome.err);
    succeeds({"expect", "log", "received \"locatme\""});
    succeeds({"mode", "locateme, please"});
    succeeds({"expect", "mode", "locateme"});
    succeeds({"signal", "STOP"});
    const Outcome tooLong = on({"mode", std::string(70000, 'x')});
    EXPECT_EQ(1, tooLong.status);
    EXPECT_EQ(0U, tooLong.err.find("kelo-board: cannot write into the display pipe: "));
}

TEST_F(OnBoard, PathLeadsToTheBoardsFiles)
{
    const Outcome nowhere = on({"path", "/board/lasers"});
    EXPECT_EQ(1, nowhere.status);
    EXPECT_EQ("", nowhere.out);
    EXPECT_EQ("kelo-board: the board has no /board/lasers\n", nowhere.err);
    const std::string path = on({"path", "/board/laser_rx_dbm"}).out;
    EXPECT_EQ("-18.5\n", kelo::readFile(path.substr(0, path.size() - 1)));
}

TEST_F(OnBoard, SmallBoardsEventsArePrintedByKind)
{
    succeeds({"set", "laser", "-9"});
    succeeds({"set", "gpon", "3"});
    succeeds({"expect", "blink", "010101/111000", "tolerance", "60"});
    const std::string events = on({"events"}).out;
    EXPECT_TRUE(has(events, "laser     -9\n"));
    EXPECT_TRUE(has(events, "gpon      3\n"));
    EXPECT_TRUE(has(events, "mode      signal\n"));
    EXPECT_TRUE(has(events, "leds      010101\n"));
}

TEST_F(OnBoard, WaitAndExpectFailWhenTheBoardEnds)
{
    for (const Words &words :
         {Words{"wait", "100s"}, Words{"expect", "--within", "100s", "mode", "none"}}) {
        Words command{KELO_BOARD_PROGRAM, "-b", name};
        command.insert(command.end(), words.begin(), words.end());
        kelo::Pipe errors = kelo::makePipe();
        const pid_t waiting = kelo::spawn(command, {-1, -1, errors.write.get()});
        errors.write.reset();
        ASSERT_TRUE(isFollowed());
        kb({"down", name});
        EXPECT_EQ("kelo-board: the board \"" + name + "\" ended\n",
                  kelo::readAll(errors.read.get()));
        EXPECT_EQ(1, kelo::waitFor(waiting));
        kelo::waitFor(std::exchange(program, -1));
        up({});
    }
}

struct Expectation {
    const char *name;
    Words arguments;
    const char *saw;
};

void PrintTo(const Expectation &expectation, std::ostream *stream)
{
    *stream << expectation.name;
}

class Expect : public OnBoard, public testing::WithParamInterface<Expectation> {};

TEST_P(Expect, SaysWhatItSawInsteadAndShowsTheWaveform)
{
    Words arguments = GetParam().arguments;
    arguments.insert(arguments.begin(), {"expect", "--within", "200ms"});
    const Outcome outcome = on(arguments);
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("", outcome.out);
    const Words lines = linesOf(outcome.err);
    ASSERT_GE(lines.size(), 8U) << outcome.err;
    EXPECT_EQ(0U, lines[0].find("kelo-board: expected ")) << lines[0];
    EXPECT_TRUE(has(lines[0], "within 200ms, saw " + std::string(GetParam().saw)));
    EXPECT_EQ(0U, lines[1].find("  GPIO 6  "));
    EXPECT_EQ('#', lines[1].back());
    EXPECT_EQ(0U, lines[6].find("  GPIO 4  "));
    EXPECT_EQ('_', lines[6].back());
}

const Expectation expectations[] = {
    {"Leds", {"leds", "000111"}, "leds 110000"},
    {"NotLeds", {"--not", "leds", "110000"}, "leds 110000"},
    {"LedsFor", {"--for", "100ms", "leds", "000111"}, "leds 110000"},
    {"Blink", {"blink", "110000/000000", "for", "500ms"}, "the LEDs below"},
    {"Mode", {"mode", "none"}, "mode signal"},
    {"Log", {"log", "locateme"}, "1 other records since the mark"},
    {"Store", {"store", "wanAddress", "::1"}, "wanAddress never set"},
    {"StoreEmpty", {"store", "wanAddress", ""}, "wanAddress never set"},
    {"Omci", {"omci", "1"}, "omci run 0 times"},
    {"Snapshot", {"snapshot", "lan1.in", "5"}, "lan1.in"},
    {"Calls", {"calls", "reboot"}, "calls nothing"},
    {"Exit", {"exit", "0"}, "the daemon running"},
    {"OrderNone", {"order", "omci", "store"}, "no omci"},
    {"NotOrder", {"--not", "order", "log", "0 -> 1", "mode", "signal"}, "that"},
};

INSTANTIATE_TEST_SUITE_P(Failing, Expect, testing::ValuesIn(expectations),
                         [](const auto &test) { return test.param.name; });

TEST_F(OnBoard, ExpectSeesTheOrderOfEvents)
{
    succeeds({"mark"});
    succeeds({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"});
    succeeds({"expect", "order", "log", "New IPv6 address", "store", "wanAddress", "store",
              "wanAddressLen 64", "omci"});
    // What no event of the order is about may come in between, before and after.
    succeeds({"expect", "order", "log", "omci"});
    succeeds({"ip", "-6", "addr", "add", "2001:db8::2/48", "dev", "nas0_0", "nodad"});
    succeeds({"expect", "omci", "2"});

    const std::string first = "store \"Kelo_Ipv6Status wanAddress \"2001:db8::1\"\"";
    const std::string length = "store \"Kelo_Ipv6Status wanAddressLen 64\"";
    const std::pair<Words, std::string> wrong[] = {
        {{"store", "wanAddressLen", "store", "wanAddress"},
         first + " instead of store \"wanAddressLen\""},
        {{"store", "wanAddress", "store", "wanAddress", "store", "wanAddressLen"},
         first + ", then " + length + " instead of store \"wanAddress\""},
        {{"omci", "omci", "omci"}, "omci \"set update_ip\", then no omci"},
        {{"store", "Address", "omci"}, "omci \"set update_ip\" instead of store \"Address\""}};
    for (const auto &[order, saw] : wrong) {
        Words arguments{"expect", "--within", "200ms", "order"};
        arguments.insert(arguments.end(), order.begin(), order.end());
        const Outcome outcome = on(arguments);
        EXPECT_EQ(1, outcome.status);
        EXPECT_TRUE(linesOf(outcome.err).at(0).ends_with(" within 200ms, saw " + saw))
            << outcome.err;
    }
    // The LEDs are written again and again, and a change is one event.
    succeeds({"mark"});
    succeeds({"mode", "errora12"});
    succeeds({"expect", "--within", "2s", "order", "log", "received \"errora12\"", "mode",
              "errora12", "leds", "010000"});
    succeeds({"mode", "signal"});
    succeeds({"expect", "order", "leds", "010000", "leds", "110000"});
}

TEST_F(OnBoard, ExpectSeesAWrongBeat)
{
    succeeds({"mode", "facttest"});
    const std::string cycle = "001000/010000/100000/010000";
    succeeds({"expect", "blink", cycle, "period", "2s", "for", "2s", "tolerance", "40%"});
    std::vector<std::future<Outcome>> outcomes; // side by side: they wait
    for (const Words &wrong :
         {Words{cycle, "period", "1s"}, Words{cycle, "period", "4s", "for", "2s"},
          Words{"001000/010000", "period", "1s", "for", "2s", "tolerance", "40%"},
          Words{"100000/010000/001000", "period", "1500ms", "for", "2s", "tolerance", "40%"}}) {
        Words arguments{"expect", "--within", "2s", "blink"};
        arguments.insert(arguments.end(), wrong.begin(), wrong.end());
        outcomes.push_back(std::async(std::launch::async, [=, this] { return on(arguments); }));
    }
    for (std::future<Outcome> &future : outcomes) {
        const Outcome outcome = future.get();
        EXPECT_EQ(1, outcome.status);
        EXPECT_TRUE(outcome.err.starts_with("kelo-board: expected blink")) << outcome.err;
    }
}

class Plain : public OnBoard {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root";
        up({"setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"});
    }
};

TEST_F(Plain, BoardLeavesTheMachineAlone)
{
    for (const Words &arguments :
         {Words{"ip", "link"}, Words{"burst"}, Words{"fault", "run-full"},
          Words{"exec", "--far", "true"}, Words{"provider", "start"}, Words{"dhcp", "start"}}) {
        const Outcome outcome = on(arguments);
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ(1U, linesOf(outcome.err).size()) << outcome.err;
    }
    succeeds({"fault", "omci-missing"});
    succeeds({"fault", "omci-missing", "off"});
    succeeds({"mode", "errora12"});
    succeeds({"expect", "leds", "010000"});
}

TEST_F(OnBoard, EveryFaultComesAndGoes)
{
    const nlohmann::json all = json({"fault", "--json"});
    EXPECT_EQ(9U, all.size());
    for (const auto &[fault, isOn] : all.items()) {
        EXPECT_EQ(false, isOn);
        succeeds({"fault", fault});
        succeeds({"fault", fault});
        EXPECT_EQ(true, json({"fault", "--json"})[fault]);
        succeeds({"fault", fault, "off"});
        EXPECT_EQ(false, json({"fault", "--json"})[fault]);
    }
    succeeds({"mode", "errora12"});
    succeeds({"expect", "leds", "010000"});
    succeeds({"set", "port", "lan1", "7"});
    succeeds({"expect", "snapshot", "lan1.counterIn", "7"});
    succeeds({"press"});
    succeeds({"expect", "calls", "reboot"});
}

TEST_F(OnBoard, AFaultTakesThePlaceOfAnotherOfTheSameThing)
{
    for (const auto &[fault, other] : {std::pair{"led-missing", "led-failing"},
                                       {"led-failing", "led-missing"},
                                       {"run-full", "run-readonly"},
                                       {"run-readonly", "run-full"},
                                       {"omci-slow", "omci-failing"},
                                       {"omci-failing", "omci-slow"},
                                       {"omci-missing", "omci-slow"}}) {
        succeeds({"fault", fault});
        succeeds({"fault", other});
        EXPECT_EQ(false, json({"fault", "--json"})[fault]);
        EXPECT_EQ(true, json({"fault", "--json"})[other]);
        succeeds({"fault", other, "off"});
    }
    succeeds({"mode", "errora12"});
    succeeds({"expect", "leds", "010000"});
}

TEST_F(OnBoard, ItsPageIsServedAtAddressesOnly)
{
    const Outcome outcome = on({"web", "--address", "nowhere"});
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("kelo-board: no address: \"nowhere\" (such as 0.0.0.0 or ::)\n", outcome.err);
}

TEST_F(OnBoard, NumbersAreDecimal)
{
    succeeds({"set", "gpon", "010"});
    EXPECT_TRUE(within(10s, [&] { return json({"status", "--json"})["gpon"] == 10; }));
    EXPECT_EQ(2, on({"expect", "mode", ""}).status);
}

TEST_F(OnBoard, ExpectCountsFromTheMark)
{
    succeeds({"mode", "none"});
    succeeds({"expect", "log", "received \"none\""});
    succeeds({"mark"});
    const Outcome outcome = on({"expect", "--within", "100ms", "log", "received \"none\""});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(outcome.err.starts_with("kelo-board: expected log")) << outcome.err;
    succeeds({"mode", "none"});
    succeeds({"expect", "log", "received \"none\""});
}

TEST_F(OnBoard, ExpectListsTheLatestOfMuch)
{
    for (int i = 0; i < 60; i++)
        succeeds({"mode", "signal " + std::to_string(i)});
    const Outcome outcome = on({"expect", "--within", "1s", "mode", "none"});
    EXPECT_EQ(1, outcome.status);
    const Words lines = linesOf(outcome.err);
    EXPECT_EQ(1U + 6 + 1 + 1 + 50, lines.size()) << outcome.err;
    EXPECT_TRUE(has(outcome.err, " more before these)\n"));
    EXPECT_TRUE(has(outcome.err, "received \"signal 59\""));
}

/// A board that keeps little of what happened.
class Forgetful : public OnBoard {
protected:
    void SetUp() override { up({}, {"--keep", "1"}); }

    /// Lets more happen than is kept.
    void overflow() const
    {
        std::string path = on({"path", "/dev/channel"}).out;
        path.pop_back();
        const std::string note = "\036omci " + std::string(4000, 'y') + "\n";
        for (int i = 0; i < 300; i++)
            std::ofstream(path) << note << std::flush;
        ASSERT_TRUE(within(30s, [&] { return !on({"events"}).err.empty(); }));
    }
};

TEST_F(Forgetful, KeepsWhatHoldsAndTheLatestAndSaysSo)
{
    succeeds({"mode", "errora12"});
    succeeds({"set", "laser", "-20"});
    succeeds({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"});
    succeeds({"expect", "store", "wanAddressLen", "64"});
    succeeds({"expect", "leds", "010000"});
    overflow();

    const std::string loss = "is no longer kept\n";
    const Outcome events = on({"events"});
    EXPECT_EQ(1U, linesOf(events.err).size()) << events.err;
    EXPECT_EQ(0U, events.err.find("kelo-board: what happened before second ")) << events.err;
    EXPECT_TRUE(has(events.err, loss));
    EXPECT_TRUE(has(events.out, "mode      errora12\n"));
    EXPECT_TRUE(has(events.out, "laser     -20\n"));
    EXPECT_TRUE(has(events.out, "store     Kelo_Ipv6Status wanAddress \"2001:db8::1\"\n"));
    EXPECT_TRUE(has(events.out, "store     Kelo_Ipv6Status wanAddressLen 64\n"));
    EXPECT_FALSE(has(events.out, "laser     -18.5\n"));
    EXPECT_LT(events.out.size(), 1100000U);
    EXPECT_TRUE(has(on({"log"}).err, loss));
    EXPECT_EQ("errora12", json({"status", "--json"})["mode"]);
    EXPECT_EQ(-20, json({"status", "--json"})["laser"]);

    succeeds({"expect", "mode", "errora12"});
    succeeds({"expect", "leds", "010000"});
    const Outcome counted = on({"expect", "omci", "1"});
    EXPECT_EQ(1, counted.status);
    EXPECT_EQ("kelo-board: what happened after the mark is no longer all kept (put a new one: "
              "kelo-board mark)\n",
              counted.err);
    succeeds({"mark"});
    succeeds({"expect", "omci", "0"});
    succeeds({"stop"});
    overflow();
    EXPECT_EQ("status 0", json({"status", "--json"})["exit"]);
}

TEST_F(OnBoard, NoCallOfManyIsLost)
{
    std::string path = on({"path", "/dev/channel"}).out;
    path.pop_back();
    for (int i = 0; i < 5000; i++)
        std::ofstream(path) << "\036omci " + std::string(1000, 'y') + "\n" << std::flush;
    succeeds({"expect", "--within", "30s", "omci", "5000"});
}

TEST_F(Forgetful, TellsAReaderWhoIsTooSlow)
{
    const std::string folder = "/tmp/kelo-slow-" + name;
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string follow = std::string(KELO_BOARD_PROGRAM) + " -b " + name + " events -f 2> " +
                               folder + "/said | { read begun; : > " + folder +
                               "/begun; until [ -e " + folder +
                               "/go ]; do sleep 0.05; done; cat > /dev/null; }";
    const pid_t follower = kelo::spawn({"sh", "-c", follow}, {-1, -1, -1});
    ASSERT_TRUE(within(30s, [&] { return std::filesystem::exists(folder + "/begun"); }));
    overflow();
    overflow();
    overflow();
    kelo::writeFile(folder + "/go", "");
    EXPECT_TRUE(within(30s, [&] {
        return kelo::readFile(folder + "/said")
                   .find("kelo-board: the record was dropped before it was read\n") !=
               std::string::npos;
    }));
    kb({"down", name});
    kelo::waitFor(follower);
    std::filesystem::remove_all(folder);
}

// --- Scenarios -----------------------------------------------------------------------------------

class Run : public testing::Test {
protected:
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("kelo-scenarios-" + std::to_string(getpid()));

    void SetUp() override { std::filesystem::create_directory(folder); }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::string file(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder / name) << text;
        return folder / name;
    }
};

TEST_F(Run, SumsUpWhatPassedAndWhatFailed)
{
    const std::string good = file("good", "kelo-board expect leds 110000\necho quiet\n");
    const std::string bad = file("bad", "echo '<before> & after'\nkelo-board expect --within 100ms "
                                        "leds 000111\necho unreached\n");
    const std::string report = folder / "report.xml";
    const Outcome outcome = kb({"run", "--junit", report, good, bad});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "PASS  good ("));
    EXPECT_TRUE(has(outcome.out, "FAIL  bad ("));
    EXPECT_TRUE(has(outcome.out, "exit status 1; last command, line 2: kelo-board expect --within "
                                 "100ms leds 000111\n"));
    EXPECT_TRUE(has(outcome.out, "expected leds 000111 within 100ms, saw leds 110000"));
    EXPECT_TRUE(has(outcome.out, "GPIO 6"));
    EXPECT_TRUE(has(outcome.out, "2 scenarios, 1 failed\n"));
    EXPECT_FALSE(has(outcome.out, "quiet"));
    EXPECT_FALSE(has(outcome.out, "unreached"));

    const std::string xml = kelo::readFile(report);
    EXPECT_TRUE(has(xml, "<testsuite name=\"kelo-board\" tests=\"2\" failures=\"1\""));
    EXPECT_TRUE(has(xml, "<testcase classname=\"scenario\" name=\"good\""));
    EXPECT_TRUE(has(xml, "<failure message=\"exit status 1; last command, line 2: kelo-board "));
    EXPECT_TRUE(has(xml, "&lt;before&gt; &amp; after"));
    EXPECT_EQ(0, runCommand({"xmllint", "--noout", report}).status);
}

TEST_F(Run, EachScenarioHasAFreshBoard)
{
    Words arguments{"run", "-j", "1"};
    for (const char *name : {"one", "two"})
        arguments.push_back(file(name, "kelo-board expect --for 100ms mode signal\n"
                                       "kelo-board mode none\nkelo-board expect mode none\n"));
    const Outcome outcome = kb(arguments);
    EXPECT_EQ(0, outcome.status) << outcome.out;
    EXPECT_TRUE(has(outcome.out, "2 scenarios, 0 failed\n"));
}

TEST_F(Run, RunsSideBySide)
{
    // Each waits for the other.
    Words arguments{"run", "-j", "2"};
    const auto script = [&](const char *mine, const char *other) {
        return "touch " + (folder / mine).string() + "\nuntil [ -e " + (folder / other).string() +
               " ]; do kelo-board wait 50ms; done\n";
    };
    arguments.push_back(file("left", script("left.ready", "right.ready")));
    arguments.push_back(file("right", script("right.ready", "left.ready")));
    EXPECT_EQ(0, kb(arguments).status);
}

TEST_F(Run, ShowsWhatHappens)
{
    const Outcome outcome = kb({"run", "--show",
                                file("shown", "echo hello\nkelo-board mode errora12\n"
                                              "kelo-board expect leds 010000\n")});
    EXPECT_EQ(0, outcome.status) << outcome.out;
    EXPECT_TRUE(has(outcome.out, "hello\n"));
    EXPECT_TRUE(has(outcome.out, "leds      010000\n"));
}

TEST_F(Run, EndsAScenarioThatTakesTooLong)
{
    const Outcome outcome = kb({"run", "--limit", "500ms", file("slow", "kelo-board wait 100s\n")});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "still running after 500ms; last command, line 1: kelo-board wait "
                                 "100s; LEDs 110000\n"));
}

TEST_F(Run, NamesTheLineInAFunctionAndTracesNothingElse)
{
    const Outcome outcome = kb({"run", file("lines", "look()\n{\n    [ \"$1\" = 110000 ]\n}\n"
                                                     "echo \"arguments: $#\"\n"
                                                     "look \"$(kelo-board leds 2>&1)\"\n"
                                                     "look other\n")});
    EXPECT_EQ(1, outcome.status);
    const Words lines = linesOf(outcome.out);
    ASSERT_EQ(3U, lines.size()) << outcome.out;
    EXPECT_TRUE(lines[0].ends_with(": exit status 1; last command, line 3: '[' other = 110000 ']'"))
        << lines[0];
    EXPECT_EQ("      arguments: 0", lines[1]);
}

TEST_F(Run, LeavesTheLineOfASyntaxErrorToTheShell)
{
    const Outcome outcome = kb({"run", file("open", "if true; then\nkelo-board leds\n")});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "): exit status 2\n")) << outcome.out;
    EXPECT_TRUE(has(outcome.out, "line 3: syntax error")) << outcome.out;
}

TEST_F(Run, GetsByWithoutBash)
{
    const std::filesystem::path tools = folder / "tools";
    std::filesystem::create_directory(tools);
    for (const char *const from : {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
        for (const auto &entry : std::filesystem::directory_iterator(from)) {
            std::error_code known;
            if (entry.path().filename() != "bash")
                std::filesystem::create_symlink(entry.path(), tools / entry.path().filename(),
                                                known);
        }
    }
    const std::string script = file("plain", "[ -z \"${BASH_VERSION-}\" ]\n"
                                             "kelo-board expect leds 110000\nfalse\n");
    const Outcome outcome =
        runCommand({"env", "PATH=" + tools.string(), KELO_BOARD_PROGRAM, "run", script});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "): exit status 1\n1 scenario, 1 failed\n")) << outcome.out;
}

TEST_F(Run, TakesTheFormOfItsBoards)
{
    const std::string script = file("formed", "[ \"$KELO_BOARD\" = host ]\n");
    EXPECT_EQ(0, kb({"run", "--on", "host", script}).status);
    const Outcome outcome = kb({"run", "--on", "granite", script});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "granite"));
}

/// Lines of a scenario that end the daemon behind the board's back.
constexpr char crash[] = "kill -SEGV \"$(kelo-board list | awk -v name=\"$KELO_BOARD_NAME\" "
                         "'$1 == name { print $3 }')\"\n";

struct Ending {
    const char *name;
    std::string script;
    const char *failure; ///< none: it passes
};

void PrintTo(const Ending &ending, std::ostream *stream)
{
    *stream << ending.name;
}

class EndOfTheDaemon : public Run, public testing::WithParamInterface<Ending> {};

TEST_P(EndOfTheDaemon, FailsTheScenarioUnlessSomebodyAskedForIt)
{
    const Outcome outcome = kb({"run", "--limit", "60s", file("ending", GetParam().script)});
    EXPECT_EQ(GetParam().failure ? 1 : 0, outcome.status) << outcome.out;
    if (!GetParam().failure)
        return;
    EXPECT_TRUE(has(outcome.out, GetParam().failure));
    EXPECT_TRUE(has(outcome.out, "the daemon ended with signal SEGV, and nobody asked it to\n"));
    EXPECT_TRUE(has(outcome.out, " kelo-monitord: switch display mode 0 -> 1 ["));
}

const Ending endings[] = {
    {"AtItsEnd", std::string(crash) + "sleep 1\n", "FAIL  ending ("},
    {"BeforeWait", std::string(crash) + "kelo-board wait 100s\n", "line 2: kelo-board wait 100s\n"},
    {"DuringWait", "(sleep 0.5; " + std::string(crash) + ") &\nkelo-board wait 100s\n",
     "exit status 1; last command, line "},
    {"BeforeExpect", std::string(crash) + "kelo-board expect --within 100s mode none\n",
     "line 2: kelo-board expect"},
    {"BeforeAnotherStart",
     std::string(crash) + "until kelo-board start; do kelo-board wait --allow-exit 10ms; done\n" +
         crash + "until kelo-board start; do :; done\n",
     "FAIL  ending ("},
    {"Expected", std::string(crash) + "kelo-board expect exit 139\nkelo-board wait 100ms\n",
     nullptr},
    {"NotAsExpected", std::string(crash) + "kelo-board expect --within 1s exit 0 || true\n",
     "FAIL  ending ("},
    {"AllowedByWait",
     std::string(crash) + "kelo-board wait --allow-exit 300ms\nkelo-board wait 1ms\n", nullptr},
    {"AllowedByExpect",
     std::string(crash) + "kelo-board expect --allow-exit --for 300ms leds 110000\n", nullptr},
    {"Signal", "kelo-board signal SEGV\nkelo-board expect exit 139\n", nullptr},
    {"SignalAlone", "kelo-board signal KILL\nkelo-board wait 300ms\n", nullptr},
    {"Stop", "kelo-board stop\nkelo-board wait 100ms\n", nullptr},
    {"Restart", "kelo-board restart\nkelo-board wait 100ms\n", nullptr},
    {"Detached", "kelo-board stop\nkelo-board start -- -d\nkelo-board wait 100ms\n", nullptr},
};

INSTANTIATE_TEST_SUITE_P(Each, EndOfTheDaemon, testing::ValuesIn(endings),
                         [](const auto &test) { return test.param.name; });

TEST_F(Run, AScenarioThatEndsItsBoardFails)
{
    const Outcome outcome = kb({"run", file("ender", "kelo-board down\n")});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "its board was asked to end"));
}

TEST_F(Run, AnUndefinedVariableFailsTheScenario)
{
    const Outcome outcome = kb({"run", file("typo", "kelo-board mode \"$mdoe\"\n")});
    EXPECT_EQ(1, outcome.status);
    EXPECT_TRUE(has(outcome.out, "mdoe"));
}

TEST_F(Run, SaysWhenTheReportCannotBeWritten)
{
    const Outcome outcome =
        kb({"run", "--junit", "/nonexistent/report.xml", file("good", "true\n")});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ("kelo-board: cannot write /nonexistent/report.xml\n", outcome.err);
}

TEST_F(Run, KeepsWhatThereIsOfTheScenariosThatFailed)
{
    const std::string good = file("good", "kelo-board expect mode signal\n");
    const std::string bad = file("bad", "echo '== what is wrong'\nkelo-board mode none\n"
                                        "kelo-board expect --within 100ms leds 101010\n");
    const std::string kept = folder / "kept" / "here";
    EXPECT_EQ(1, kb({"run", "--artifacts", kept, good, bad, bad}).status);
    Words names;
    for (const auto &entry : std::filesystem::directory_iterator(kept))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    EXPECT_EQ((Words{"bad-2.html", "bad-2.log", "bad-2.vcd", "bad.html", "bad.log", "bad.vcd"}),
              names);
    const std::string failed = "failed: expected leds 101010 within 100ms, saw leds 000000";
    for (const char *const name : {"/bad.html", "/bad.log"}) {
        const std::string text = kelo::readFile(kept + name);
        EXPECT_TRUE(has(text, "switch display mode 0 -> 1")) << name;
        EXPECT_TRUE(has(text, "== what is wrong")) << name;
        EXPECT_TRUE(has(text, failed)) << name;
    }
    EXPECT_TRUE(has(kelo::readFile(kept + "/bad.log"),
                    "  note      " + failed + "; exit status 1; last command, line 3: kelo-board"));
    EXPECT_TRUE(has(kelo::readFile(kept + "/bad.html"), "<!DOCTYPE html>"));
    const Outcome again = kb({"report", kept + "/bad.vcd", "-o", "-"});
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_TRUE(has(again.out, "[\"mode\",\"0\"]"));
}

TEST_F(Run, AFailureThatSaidNothingIsMarkedAllTheSame)
{
    const std::string kept = folder / "kept";
    EXPECT_EQ(1, kb({"run", "--artifacts", kept, "--limit", "500ms",
                     file("false", "echo kelo-board: expected nothing\nfalse\n"),
                     file("late", "echo first\nkelo-board wait 100s\n")})
                     .status);
    EXPECT_TRUE(
        has(kelo::readFile(kept + "/false.log"), "failed: expected nothing; exit status 1"));
    EXPECT_TRUE(has(kelo::readFile(kept + "/late.log"), "failed: still running after 500ms"));
}

TEST_F(Run, SavesAPageOfEveryScenarioIfAskedTo)
{
    const std::string pages = folder / "pages";
    EXPECT_EQ(0, kb({"run", "--report", pages,
                     file("good", "kelo-board expect --within 50ms leds 101010 || echo no\n")})
                     .status);
    const std::string page = kelo::readFile(pages + "/good.html");
    EXPECT_TRUE(has(page, "<!DOCTYPE html>"));
    EXPECT_TRUE(has(page, "\"kelo-board: expected leds 101010"));
    EXPECT_FALSE(has(page, "\"failed: ")) << "it passed";
}

TEST_F(Run, RepeatsThoseThatAreChosen)
{
    const std::string one = file("first-one", "true\n");
    const std::string other = file("other", "true\n");
    const Outcome outcome = kb({"run", "--repeat", "3", "--filter", "one", one, other});
    EXPECT_EQ(0, outcome.status);
    for (const char *const name :
         {"PASS  first-one (", "PASS  first-one-2 (", "PASS  first-one-3 ("})
        EXPECT_TRUE(has(outcome.out, name));
    EXPECT_TRUE(has(outcome.out, "3 scenarios, 0 failed\n"));
    EXPECT_EQ(4U, linesOf(outcome.out).size());

    const Outcome none = kb({"run", "--filter", "moon", one, other});
    EXPECT_EQ(2, none.status);
    EXPECT_EQ("kelo-board: no scenario's name has \"moon\"\n", none.err);
}

TEST_F(Run, SaysAtOnceWhenNothingCanBeKept)
{
    const Outcome outcome = kb({"run", "--artifacts", "/proc/nowhere",
                                file("good", "touch " + (folder / "ran").string())});
    EXPECT_EQ(1, outcome.status);
    EXPECT_EQ(1U, linesOf(outcome.err).size()) << outcome.err;
    EXPECT_FALSE(std::filesystem::exists(folder / "ran"));
}

TEST_F(Run, EndsWhatAScenarioLeftBehind)
{
    const std::string sign = folder / "left-behind";
    const Outcome outcome =
        kb({"run", file("leaver", "sh -c 'sleep 1000' " + sign + " > /dev/null 2>&1 &\n")});
    EXPECT_EQ(0, outcome.status) << outcome.out;
    EXPECT_TRUE(within(20s, [&] { return !isAround(sign); }));
}

class RunEnded : public Run, public testing::WithParamInterface<int> {};

TEST_P(RunEnded, LeavesNothingBehind)
{
    const std::string ready = folder / "ready";
    const std::string script =
        file("endless", "kelo-board exec readlink /proc/self/ns/net > " + ready + ".new\nmv " +
                            ready + ".new " + ready + "\nkelo-board wait 1000s\n");
    kelo::Pipe out = kelo::makePipe();
    const pid_t program =
        kelo::spawnApart({KELO_BOARD_PROGRAM, "run", script}, {-1, out.write.get(), -1});
    ASSERT_TRUE(within(30s, [&] { return std::filesystem::exists(ready); }));
    std::string link = kelo::readFile(ready);
    link.pop_back();
    EXPECT_TRUE(namespaceLives(link));
    const std::string board = "run-" + std::to_string(program) + "-0";
    EXPECT_TRUE(isAround(board));
    kill(program, GetParam());
    EXPECT_EQ(GetParam() == SIGKILL ? 128 + SIGKILL : 1, kelo::waitFor(program));
    EXPECT_TRUE(within(20s, [&] { return !namespaceLives(link) && !isAround(board); }));
}

INSTANTIATE_TEST_SUITE_P(By, RunEnded, testing::Values(SIGINT, SIGTERM, SIGKILL),
                         [](const auto &test) { return sigabbrev_np(test.param); });

} // namespace
