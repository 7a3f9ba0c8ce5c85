// The front panel as a person has it: in a terminal, with keys, at several sizes.

#include "terminal.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <sys/stat.h>

namespace {

/// The program that is tested: the environment may name another, such as one with a sanitizer.
std::string boardProgram()
{
    const char *const other = getenv("KELO_BOARD_PROGRAM");
    return other ? other : KELO_BOARD_PROGRAM;
}

class PanelTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_STRNE("", TMUX) << "tmux is not installed: scripts/test installs it";
        static int count;
        board = "panel-" + std::to_string(getpid()) + "-" + std::to_string(++count);
    }

    /// Opens a terminal and a panel in it; behind it stands how it ended, and whether the
    /// terminal's settings are what they were.
    void open(int columns = 80, int rows = 24, const std::string &environment = "LC_ALL=C.UTF-8")
    {
        terminal = std::make_unique<Terminal>(columns, rows);
        terminal->type("before=$(stty -g); env " + environment + " " + boardProgram() + " panel " +
                       board +
                       "; echo \"status $?\"; [ \"$(stty -g)\" = \"$before\" ] && echo same");
    }

    void openAndWait(int columns = 80, int rows = 24,
                     const std::string &environment = "LC_ALL=C.UTF-8")
    {
        open(columns, rows, environment);
        ASSERT_TRUE(shows("the daemon runs"));
        ASSERT_TRUE(shows("running, process [0-9]+"));
        ASSERT_TRUE(shows("Mode +signal \\(1\\) for"));
    }

    testing::AssertionResult shows(const std::string &pattern) { return terminal->shows(pattern); }
    void key(const std::string &name) { terminal->keys({name}); }

    kelo::Result command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"timeout", "-k1", "20", boardProgram(), "-b", board});
        return kelo::run(arguments);
    }

    /// A process that `list` shows: the one that runs the board, or the daemon.
    pid_t process(const std::string &key = "pid")
    {
        const nlohmann::json boards = nlohmann::json::parse(command({"list", "--json"}).output);
        for (const auto &one : boards) {
            if (one["name"] == board && one[key].is_number())
                return one[key];
        }
        ADD_FAILURE() << "not listed: " << key;
        return getpid();
    }

    /// The panel, in front of a board of its own.
    pid_t panel()
    {
        const std::string stat = kelo::readFile("/proc/" + std::to_string(process()) + "/stat");
        pid_t parent = 0;
        sscanf(stat.c_str() + stat.rfind(')'), ") %*c %d", &parent);
        return parent;
    }

    /// The terminal is as it was before the panel.
    void expectTerminalBack()
    {
        EXPECT_TRUE(shows("same"));
        EXPECT_EQ("0", terminal->ask("#{alternate_on}")) << "still on the other screen";
        EXPECT_EQ("1", terminal->ask("#{cursor_flag}")) << "the cursor is hidden";
        EXPECT_EQ("0", terminal->ask("#{keypad_flag}")) << "the keypad sends other codes";
        terminal->type("echo it ec''hoes");
        EXPECT_TRUE(shows("it echoes"));
        EXPECT_NE(std::string::npos, command({"status"}).output.find("no board named"));
    }

    std::string board;
    std::unique_ptr<Terminal> terminal;
};

struct Size {
    int columns;
    int rows;
};

class PanelSize : public PanelTest, public testing::WithParamInterface<Size> {};

TEST_P(PanelSize, ShowsAllOfTheBoard)
{
    const auto [columns, rows] = GetParam();
    openAndWait(columns, rows);
    for (const char *const pattern :
         {"kelo-monitord on panel-", "GPIO 6 +GPIO 7 +GPIO 8 +GPIO 2 +GPIO 3 +GPIO 4",
          "ON +ON +off +off +off +off", "-18.5 dBm: level 2", "Link  up \\(GPON state 5\\)",
          "-40 .*-28.*-25.*-11.*-8.* 0 dBm", "Button released", "WAN address  not set",
          "WAN gateway  not set", "LAN address  not set", "lan1 +0 +0 +wan +0 +0",
          "lan2 +0 +0 +wifi2 +0 +0", "lan3 +0 +0 +wifi5 +0 +0", "lan4 +0 +0",
          "[0-9.]+ switch display mode 0 -> 1 \\[display.cpp:", "\\? help.*q quit"})
        EXPECT_TRUE(shows(pattern));
    const std::vector<std::string> lines = terminal->lines();
    EXPECT_EQ(static_cast<size_t>(rows), lines.size());
    EXPECT_NE(std::string::npos, lines.back().find("q quit")) << "the keys are in the last row";
}

INSTANTIATE_TEST_SUITE_P(Each, PanelSize,
                         testing::Values(Size{80, 24}, Size{100, 30}, Size{132, 43}, Size{240, 70}),
                         [](const auto &test) {
                             return std::to_string(test.param.columns) + "x" +
                                    std::to_string(test.param.rows);
                         });

TEST_F(PanelTest, DigitsChooseTheMode)
{
    openAndWait();
    const char *const modes[] = {"none",     "signal",  "reboot",   "restore",    "errora12",
                                 "locateme", "ledtest", "facttest", "facttesterr"};
    for (const int mode : {0, 2, 3, 4, 5, 6, 7, 8, 1}) {
        key(std::to_string(mode));
        ASSERT_TRUE(shows(std::string("Mode +") + modes[mode] + " \\(" + std::to_string(mode) +
                          "\\) for [0-9]"));
    }
}

TEST_F(PanelTest, KeysTurnPowerAndLink)
{
    openAndWait();
    key("+");
    EXPECT_TRUE(shows("-18.0 dBm: level 2"));
    key("-");
    EXPECT_TRUE(shows("-18.5 dBm: level 2"));
    for (const char *const text : {"-9.5 dBm: level 3", "-4.0 dBm: level 4"}) {
        key("]");
        EXPECT_TRUE(shows(text));
    }
    for (const char *const text : {"-9.5 dBm: level 3", "-18.0 dBm: level 2", "-26.5 dBm: level 1",
                                   "-34.0 dBm: level 0", "-42.0 dBm: no signal"}) {
        key("[");
        EXPECT_TRUE(shows(text));
    }
    EXPECT_TRUE(shows("off +off +off +ON +ON +ON")); // the daemon's word for no signal
    key("n");
    EXPECT_TRUE(shows("no reading: no signal"));
    key("n");
    EXPECT_TRUE(shows("-42.0 dBm"));
    key("g");
    EXPECT_TRUE(shows("Link  DOWN \\(GPON state 3\\)"));
    key("g");
    EXPECT_TRUE(shows("Link  up \\(GPON state 5\\)"));
}

TEST_F(PanelTest, KeysChangeTheNetwork)
{
    openAndWait();
    key("w");
    EXPECT_TRUE(shows("WAN address  2001:db8::1/64"));
    key("w");
    EXPECT_TRUE(shows("WAN address  2001:db8::2/64"));
    key("d");
    EXPECT_TRUE(shows("WAN gateway  fe80::1"));
    key("a");
    EXPECT_TRUE(shows("LAN address  2001:db8:1::1/64"));
    key("A");
    EXPECT_TRUE(shows("removed 2001:db8:1::1/64 from br0"));
    EXPECT_TRUE(shows("LAN address  \"\"/0"));
    key("A");
    EXPECT_TRUE(shows("FAILED: no panel added an address to br0"));
    key("D");
    EXPECT_TRUE(shows("removed the default route"));
    key("D");
    EXPECT_TRUE(shows("FAILED: ip: "));
    key("W");
    EXPECT_TRUE(shows("removed 2001:db8::2/64"));
    EXPECT_TRUE(shows("WAN address  \"\"/0"));
    key("x");
    EXPECT_TRUE(shows("deleted the link nas0_0"));
    key("x");
    EXPECT_TRUE(shows("made the link nas0_0 again"));
    EXPECT_EQ(0, command({"ip", "--far", "link", "show", "nas0_0"}).status);
    key("w");
    EXPECT_TRUE(shows("WAN address  2001:db8::1/64"));
}

TEST_F(PanelTest, TrafficMovesThePorts)
{
    openAndWait();
    key("t");
    EXPECT_TRUE(shows("busy"));
    EXPECT_TRUE(shows("lan1 +[0-9.]+[kM] .*wan +[0-9.]+M"));
    EXPECT_TRUE(shows("lan1 .*[▁▂▃▄▅▆▇█]"));
    key("t");
    EXPECT_TRUE(terminal->showsNoMore("busy"));
    EXPECT_TRUE(shows("lan1 +0 .*wan +0 "));
}

TEST_F(PanelTest, HeldButtonSaysWhatComesAndRestores)
{
    openAndWait();
    key("h");
    EXPECT_TRUE(shows("HELD, value 1: let go and it reboots, in 4 s it restores defaults"));
    EXPECT_TRUE(shows("Mode +reboot"));
    EXPECT_TRUE(shows("HELD, value 3: let go and it reboots, in 2 s it restores defaults"));
    EXPECT_TRUE(shows("RESTORED defaults, still held"));
    EXPECT_TRUE(shows("Mode +restore"));
    key("r");
    EXPECT_TRUE(shows("RESTORED defaults; ignored until a restart"));
    key("R");
    EXPECT_TRUE(shows("Button released"));
    EXPECT_TRUE(shows("Mode +signal"));
}

TEST_F(PanelTest, ShortPressReboots)
{
    openAndWait();
    key("b");
    EXPECT_TRUE(shows("HELD, value 1"));
    EXPECT_TRUE(shows("REBOOTED; ignored until a restart"));
    EXPECT_TRUE(shows("Mode +reboot"));
}

TEST_F(PanelTest, SignalsEndTheDaemonAndItStartsAgain)
{
    openAndWait();
    for (const auto &[letter, how] :
         std::vector<std::pair<std::string, std::string>>{{"t", "status 0"},
                                                          {"i", "status 0"},
                                                          {"h", "status 0"},
                                                          {"q", "status 0"},
                                                          {"k", "signal KILL"}}) {
        key("s");
        EXPECT_TRUE(shows("Send SIG... +t TERM"));
        key(letter);
        EXPECT_TRUE(shows("ENDED: " + how + ", R restarts"));
        key("R");
        ASSERT_TRUE(shows("running, process"));
        ASSERT_TRUE(shows("the daemon was restarted"));
    }
    key("s");
    key("Escape");
    EXPECT_TRUE(terminal->showsNoMore("Send SIG... +t TERM"));
    EXPECT_TRUE(shows("running, process"));
}

TEST_F(PanelTest, ShowsAStoppedDaemonAsThat)
{
    openAndWait();
    terminal->keys({"s", "s"});
    EXPECT_TRUE(shows("STOPPED, s c lets it go on"));
    terminal->keys({"s", "c"});
    EXPECT_TRUE(shows("running, process"));
}

TEST_F(PanelTest, NameOfTheBoardGetsTheRoomThatItsStateLeaves)
{
    board += "-with-a-very-long-name-of-which-only-a-part-can-be-shown";
    openAndWait();
    EXPECT_TRUE(shows("kelo-monitord on panel.* running, process [0-9]+, board up [0-9]+ s\n"));
    ASSERT_EQ(0, command({"signal", "STOP"}).status);
    EXPECT_TRUE(shows("on " + board.substr(0, 34) + ".* STOPPED, s c lets it go on\n"));
}

TEST_F(PanelTest, FaultsAreShownAndSet)
{
    openAndWait();
    EXPECT_FALSE(terminal->text().find("FAULTS") != std::string::npos);
    ASSERT_EQ(0, command({"fault", "omci-slow"}).status);
    EXPECT_TRUE(shows("FAULTS omci-slow"));
    key("f");
    EXPECT_TRUE(shows("1 +led-missing +off +the LED file is not there"));
    EXPECT_TRUE(shows("7 +omci-slow +ON +the omci command takes a second"));
    for (const char *const digit : {"1", "3", "5"})
        key(digit);
    EXPECT_TRUE(shows("1 +led-missing +ON"));
    EXPECT_TRUE(shows("5 +run-readonly +ON"));
    EXPECT_TRUE(shows("run-readonly is on: /var/run is read-only"));
    key("5");
    EXPECT_TRUE(shows("run-readonly is off"));
    EXPECT_TRUE(shows("5 +run-readonly +off"));
    key("q"); // any key but a digit of a fault, this one too
    EXPECT_TRUE(shows("3 FAULTS, f lists them"));
    terminal->resize(120, 40);
    EXPECT_TRUE(shows("FAULTS led-missing button-missing omci-slow"));
    EXPECT_TRUE(shows("f faults +q quit"));
    key("b");
    EXPECT_TRUE(shows("FAILED: the board's button file is gone"));
}

TEST_F(PanelTest, KeysWorkWhileTheButtonIsPressed)
{
    openAndWait();
    terminal->keys({"b", "+"});
    EXPECT_TRUE(shows("pressed the reset button and let go of it"));
    const kelo::Result result =
        command({"expect", "order", "button", "1", "laser", "-18.0", "button", "0"});
    EXPECT_EQ(0, result.status) << result.output;
}

TEST_F(PanelTest, CrashOfTheDaemonLeavesThePanel)
{
    openAndWait();
    kill(process("daemon"), SIGSEGV);
    EXPECT_TRUE(shows("ENDED: signal SEGV unasked, R restarts"));
    EXPECT_TRUE(shows("Mode +signal \\(1\\) when the daemon ended"));
    key("5");
    EXPECT_TRUE(shows("FAILED: "));
    key("q");
    EXPECT_TRUE(shows("status 0"));
    expectTerminalBack();
}

TEST_F(PanelTest, FollowsWhatOthersDo)
{
    openAndWait();
    EXPECT_EQ(0, command({"set", "laser", "-26"}).status);
    EXPECT_TRUE(shows("-26 dBm: level 1"));
    EXPECT_EQ(0, command({"set", "port", "lan3", "none"}).status);
    EXPECT_TRUE(shows("lan3 +cannot be read"));
    EXPECT_EQ(0, command({"down"}).status);
    EXPECT_TRUE(shows("status 0"));
    expectTerminalBack();
}

TEST_F(PanelTest, HelpListsTheKeys)
{
    openAndWait();
    key("?");
    EXPECT_TRUE(shows("Keys of the panel"));
    for (const char *const pattern :
         {"0 to 8 +choose a display mode", "8 facttesterr", "\\+ - +received power up, down",
          "n +no reading, or one again", "g +GPON link up or down", "b +press the reset button",
          "h r +hold it down, let go of it", "t +traffic on or off",
          "w W +add, remove a WAN address", "a A +add, remove a LAN address",
          "d D +add, remove a default route", "x +delete or make the WAN link",
          "s +send the daemon a signal", "R +restart the daemon", "v +save the recording \\(VCD\\)",
          "p +save its picture \\(SVG, PNG\\)", "q Ctrl-C +end the board and the panel"})
        EXPECT_TRUE(shows(pattern));
    key("q"); // any key, this one too
    EXPECT_TRUE(shows("Mode +signal"));
}

TEST_F(PanelTest, LongLogLinesAreReadable)
{
    openAndWait();
    std::string keyword = "start";
    for (int word = 0; word < 12; word++)
        keyword += " word" + std::to_string(word);
    ASSERT_EQ(0, command({"mode", keyword}).status);
    EXPECT_TRUE(shows("received len: 0"));
    key("l");
    EXPECT_TRUE(shows("l makes it small"));
    // Put together again, the rows hold the line whole.
    const std::regex blanks("\\s+");
    EXPECT_NE(std::string::npos, std::regex_replace(terminal->text(), blanks, " ")
                                     .find("received \"" + keyword + "\" [display.cpp:"));
    key("l");
    EXPECT_TRUE(shows("Power +-18.5 dBm"));
}

TEST_F(PanelTest, LogScrollsBack)
{
    openAndWait();
    for (const char *const mode : {"2", "3", "4", "6"}) {
        key(mode);
        ASSERT_TRUE(shows(std::string("Mode +[a-z0-9]+ \\(") + mode + "\\)"));
    }
    const std::string first = "switch display mode 0 -> 1";
    EXPECT_TRUE(terminal->showsNoMore(first));
    terminal->keys({"PageUp", "PageUp", "PageUp", "PageUp", "PageUp", "PageUp"});
    EXPECT_TRUE(shows(first));
    // What comes does not move what is being read.
    key("4");
    ASSERT_TRUE(shows("Mode +errora12"));
    EXPECT_TRUE(shows(first));
    key("End");
    EXPECT_TRUE(terminal->showsNoMore(first));
    key("Home");
    EXPECT_TRUE(shows(first));
}

TEST_F(PanelTest, ControlCharactersInTheLogAreSpelledOut)
{
    openAndWait();
    ASSERT_EQ(0, command({"mode", "evil\033[2J\033]0;title\a\xff"}).status);
    EXPECT_TRUE(shows("evil\\\\x1b\\[2J\\\\x1b\\]0;title\\\\x07\\\\xff"));
    EXPECT_TRUE(shows("GPIO 6 +GPIO 7"));
}

TEST_F(PanelTest, FollowsTheWindowsSize)
{
    openAndWait();
    terminal->resize(60, 20);
    EXPECT_TRUE(shows("The panel needs 80x24, *\\nthis window is 60x20\\."));
    EXPECT_TRUE(terminal->showsNoMore("GPIO"));
    terminal->resize(10, 3);
    EXPECT_TRUE(shows("The panel"));
    terminal->resize(1, 1);
    terminal->resize(132, 40);
    EXPECT_TRUE(shows("GPIO 6 +GPIO 7"));
    EXPECT_TRUE(shows("0 dBm *\n"));
    EXPECT_EQ(40U, terminal->lines().size());
    terminal->resize(80, 24);
    EXPECT_TRUE(shows("GPIO 6 +GPIO 7"));
    EXPECT_EQ(24U, terminal->lines().size());
}

TEST_F(PanelTest, SmallWindowCanBeQuit)
{
    open(40, 10);
    EXPECT_TRUE(shows("The panel needs 80x24, *\\nthis window is 40x10\\. *\\nMake it larger"));
    key("q");
    EXPECT_TRUE(shows("status 0"));
    expectTerminalBack();
}

/// Colours in a screen's escape sequences, other than the terminal's own.
bool hasColours(const std::string &screen)
{
    return std::regex_search(screen, std::regex("\033\\[([0-9]*;)*(3[0-7]|4[0-7]|9[0-7])[;m]"));
}

TEST_F(PanelTest, TakesNoColoursWhereNoneAreWanted)
{
    openAndWait(80, 24, "LC_ALL=C.UTF-8 NO_COLOR=1");
    EXPECT_FALSE(hasColours(terminal->text(true)));
    EXPECT_TRUE(shows("ON +ON +off +off +off +off"));
}

TEST_F(PanelTest, TakesColoursOtherwise)
{
    openAndWait();
    EXPECT_TRUE(hasColours(terminal->text(true)));
}

TEST_F(PanelTest, KeepsToAsciiWhereTheLocaleDoes)
{
    openAndWait(80, 24, "LC_ALL=C");
    for (const char character : terminal->text())
        ASSERT_TRUE(character == '\n' || (character >= ' ' && character <= '~'));
    EXPECT_TRUE(shows("##########  ##########  \\.\\.\\.\\.\\.\\.\\.\\.\\.\\."));
}

class PanelEnd : public PanelTest, public testing::WithParamInterface<std::string> {};

TEST_P(PanelEnd, GivesTheTerminalBack)
{
    openAndWait();
    const std::string &way = GetParam();
    if (way == "q") {
        key("q");
        EXPECT_TRUE(shows("status 0"));
    } else if (way == "CtrlC") {
        key("C-c");
        EXPECT_TRUE(shows("status 0"));
    } else if (way == "Term") {
        kill(panel(), SIGTERM);
        EXPECT_TRUE(shows("status 0"));
    } else if (way == "Hangup") {
        kill(panel(), SIGHUP);
        EXPECT_TRUE(shows("status 0"));
    } else if (way == "Segfault") {
        kill(panel(), SIGSEGV);
        EXPECT_TRUE(shows("status 139"));
    } else if (way == "Abort") {
        kill(panel(), SIGABRT);
        EXPECT_TRUE(shows("status 134"));
    }
    expectTerminalBack();
}

INSTANTIATE_TEST_SUITE_P(Each, PanelEnd,
                         testing::Values("q", "CtrlC", "Term", "Hangup", "Segfault", "Abort"),
                         [](const auto &test) { return test.param; });

TEST_F(PanelTest, EndsWithItsTerminal)
{
    openAndWait();
    const pid_t panel = this->panel();
    terminal.reset();
    const auto end = std::chrono::steady_clock::now() + Terminal::deadline;
    while (kill(panel, 0) == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(30ms);
    EXPECT_NE(0, kill(panel, 0));
    EXPECT_NE(std::string::npos, command({"status"}).output.find("no board named"));
}

TEST_F(PanelTest, EndsWithItsTerminalAlsoWhenNobodySaysSo)
{
    open(80, 24, "--ignore-signal=HUP LC_ALL=C.UTF-8");
    ASSERT_TRUE(shows("the daemon runs"));
    const pid_t panel = this->panel();
    terminal.reset();
    const auto end = std::chrono::steady_clock::now() + Terminal::deadline;
    while (kill(panel, 0) == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(30ms);
    EXPECT_NE(0, kill(panel, 0));
}

TEST_F(PanelTest, StopsAndGoesOn)
{
    openAndWait();
    key("C-z");
    EXPECT_TRUE(shows("[Ss]topped|^\\[1\\]"));
    EXPECT_EQ("0", terminal->ask("#{alternate_on}"));
    terminal->type("clear; fg; echo \"then $?\"");
    EXPECT_TRUE(shows("Mode +signal"));
    key("5");
    EXPECT_TRUE(shows("Mode +locateme"));
    key("q");
    EXPECT_TRUE(shows("then 0"));
    terminal->type("[ \"$(stty -g)\" = \"$before\" ] && echo same");
    expectTerminalBack();
}

TEST_F(PanelTest, SavesRecordingAndPicture)
{
    openAndWait();
    key("v");
    EXPECT_TRUE(shows("Save recording .*" + board + "-[0-9]+-[0-9]+\\.vcd"));
    key("C-u");
    terminal->keys({"-l", "my.vcd"});
    key("BSpace");
    terminal->keys({"-l", "d"});
    key("Enter");
    EXPECT_TRUE(shows("saved the recording in my.vcd"));
    EXPECT_NE(std::string::npos,
              kelo::readFile(terminal->folder() + "/my.vcd").find("$var wire 1 a gpio6 $end"));
    key("p");
    EXPECT_TRUE(shows("Save picture"));
    key("C-u");
    terminal->keys({"-l", "my.svg"});
    key("Enter");
    EXPECT_TRUE(shows("saved a picture of the recording in my.svg"));
    EXPECT_NE(std::string::npos, kelo::readFile(terminal->folder() + "/my.svg").find("GPIO 6"));
    key("v");
    key("C-u");
    terminal->keys({"-l", "Zürich.vcdß"});
    EXPECT_TRUE(shows(": Zürich.vcdß_"));
    key("BSpace");
    key("Enter");
    EXPECT_TRUE(shows("saved the recording in Zürich.vcd "));
    EXPECT_TRUE(std::filesystem::exists(terminal->folder() + "/Zürich.vcd"));
    key("v");
    terminal->keys({"-l", std::string(100, 'x') + "é"});
    EXPECT_TRUE(shows("\n x{76}é_\n"));
    terminal->keys(
        {"-l", std::string("日本語日本語日本語日本語日本語日本語日本語日本語日本語日本語")});
    EXPECT_TRUE(shows("本語_\n"));
    key("C-u");
    terminal->keys({"-l", "/nowhere/my.vcd"});
    key("Enter");
    EXPECT_TRUE(shows("FAILED: cannot write /nowhere/my.vcd"));
}

TEST_F(PanelTest, CommandThatDoesNotEndIsGivenUp)
{
    openAndWait();
    ASSERT_EQ(0, mkfifo((terminal->folder() + "/nobody-reads").c_str(), 0600));
    key("v");
    key("C-u");
    terminal->keys({"-l", "nobody-reads"});
    key("Enter");
    EXPECT_TRUE(terminal->shows("FAILED: record does not end", 40s));
    key("w");
    EXPECT_TRUE(shows("WAN address  2001:db8::1/64"));
}

TEST_F(PanelTest, SaysWhatATerminalLacks)
{
    open(80, 24, "TERM=dumb");
    EXPECT_TRUE(shows("kelo-board: a terminal of type \"dumb\" cannot show a panel"));
    EXPECT_TRUE(shows("status 1"));
    expectTerminalBack();
    open(80, 24, "TERM=unheard-of");
    EXPECT_TRUE(shows("kelo-board: the terminal type \"unheard-of\" is not known"));
    EXPECT_TRUE(shows("status 1"));
    expectTerminalBack();
    const kelo::Result result = command({"panel"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("kelo-board: the panel needs a terminal; kelo-board up prints line by line\n",
              result.output);
}

/// The panel of a board that runs already.
class AttachedPanel : public PanelTest {
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        ASSERT_EQ(0, command({"up", "--detach"}).status);
        ASSERT_EQ(0, command({"mode", "errora12"}).status);
        ASSERT_EQ(0,
                  command({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"})
                      .status);
        ASSERT_EQ(0, command({"expect", "store", "wanAddressLen", "64"}).status);
        open();
        ASSERT_TRUE(shows("running, process [0-9]+"));
    }
    void TearDown() override { command({"down"}); }
};

TEST_F(AttachedPanel, ShowsTheBoardAndItsPast)
{
    for (const char *const pattern :
         {"off +ON +off +off +off +off", "Mode +errora12 \\(4\\) for", "-18.5 dBm: level 2",
          "Link  up \\(GPON state 5\\)", "WAN address  2001:db8::1/64", "lan1 +0 +0 +wan +0 +0",
          "New IPv6 address 2001:db8::1/64", "q leave"})
        EXPECT_TRUE(shows(pattern));
    key("Home");
    EXPECT_TRUE(shows("[0-9]+\\.[0-9]+ switch display mode 0 -> 1 \\[display.cpp:"));
    key("?");
    EXPECT_TRUE(shows("leave; the board runs on"));
}

TEST_F(AttachedPanel, ItsKeysDriveTheBoard)
{
    key("5");
    EXPECT_TRUE(shows("Mode +locateme"));
    EXPECT_EQ("locateme\n", command({"mode"}).output);
    key("+");
    EXPECT_TRUE(shows("-18.0 dBm"));
    key("t");
    EXPECT_TRUE(shows("wan +[0-9.]+M"));
    key("w");
    EXPECT_TRUE(shows("WAN address  2001:db8::2/64"));
    key("W");
    EXPECT_TRUE(shows("removed 2001:db8::2/64"));
    key("W");
    EXPECT_TRUE(shows("removed 2001:db8::1/64"));
    key("h");
    EXPECT_TRUE(shows("HELD, value 1"));
    EXPECT_TRUE(shows("HELD, value 2"));
    key("r");
    EXPECT_TRUE(shows("REBOOTED"));
    key("s");
    key("t");
    EXPECT_TRUE(shows("ENDED: status 0"));
    key("R");
    EXPECT_TRUE(shows("the daemon was restarted"));
    EXPECT_TRUE(shows("Mode +signal"));
    key("v");
    key("C-u");
    terminal->keys({"-l", "my.vcd"});
    key("Enter");
    EXPECT_TRUE(shows("saved the recording in my.vcd"));
    EXPECT_NE(std::string::npos, kelo::readFile(terminal->folder() + "/my.vcd").find("reboot"));
}

TEST_F(AttachedPanel, LeavesTheBoardRunning)
{
    const pid_t host = process();
    for (const char *const way : {"q", "C-c"}) {
        key(way);
        EXPECT_TRUE(shows("status 0\n.*same"));
        EXPECT_EQ("0", terminal->ask("#{alternate_on}"));
        EXPECT_EQ("errora12\n", command({"mode"}).output);
        EXPECT_EQ(host, process());
        open();
        ASSERT_TRUE(shows("Mode +errora12"));
    }
}

TEST_F(AttachedPanel, EndsWithTheBoard)
{
    EXPECT_EQ(0, command({"down"}).status);
    EXPECT_TRUE(shows("status 0"));
    expectTerminalBack();
}

TEST_F(AttachedPanel, FailsWithABoardThatIsKilled)
{
    kill(process(), SIGKILL);
    EXPECT_TRUE(shows("kelo-board: the board \"" + board + "\" ended, and nobody asked it to\n" +
                      "status 1"));
    expectTerminalBack();
}

TEST_F(AttachedPanel, StopsAndGoesOnWithoutTheBoard)
{
    key("C-z");
    EXPECT_TRUE(shows("[Ss]topped|^\\[1\\]"));
    EXPECT_EQ("0", terminal->ask("#{alternate_on}"));
    EXPECT_EQ("1", terminal->ask("#{cursor_flag}"));
    EXPECT_EQ(0, command({"mode", "reboot"}).status);
    EXPECT_EQ(0, command({"expect", "mode", "reboot"}).status);
    terminal->resize(100, 30);
    terminal->type("clear; fg; echo \"then $?\"");
    EXPECT_TRUE(shows("Mode +reboot"));
    EXPECT_EQ(30U, terminal->lines().size());
    EXPECT_EQ("1", terminal->ask("#{alternate_on}"));
    key("q");
    EXPECT_TRUE(shows("then 0"));
}

TEST_F(AttachedPanel, KeysWorkWhileTheBoardDoesNotAnswer)
{
    const pid_t host = process();
    kill(host, SIGSTOP);
    for (const char *const name : {"+", "w", "5", "b", "?"})
        key(name);
    EXPECT_TRUE(shows("Keys of the panel"));
    kill(host, SIGCONT);
    key("Escape");
    EXPECT_TRUE(shows("-18.0 dBm"));
    EXPECT_TRUE(shows("WAN address  2001:db8::2/64"));
    EXPECT_TRUE(shows("Mode +reboot"));
}

TEST_F(AttachedPanel, TakesNoOptionsForTheDaemon)
{
    const kelo::Result result = command({"panel", "--daemon-option=-d"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("kelo-board: the board \"" + board +
                  "\" runs already: --daemon-option is for a new one\n",
              result.output);
}

TEST_F(AttachedPanel, TwoShowTheSame)
{
    Terminal other(100, 30);
    other.type("env LC_ALL=C.UTF-8 " + boardProgram() + " panel " + board);
    EXPECT_TRUE(other.shows("Mode +errora12"));
    other.keys({"5"});
    EXPECT_TRUE(other.shows("Mode +locateme"));
    EXPECT_TRUE(shows("Mode +locateme"));
}

} // namespace
