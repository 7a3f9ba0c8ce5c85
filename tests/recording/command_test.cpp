// kelo-board record and plot, on a running board and on what they refuse.

#include "process.h"
#include "recording.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace {

class RecordCommand : public testing::Test {
protected:
    RecordCommand()
    {
        char name[] = "/tmp/kelo-record-XXXXXX";
        folder = mkdtemp(name);
        board = std::filesystem::path(folder).filename();
    }
    ~RecordCommand() override
    {
        if (up_)
            kb({"down"});
        std::filesystem::remove_all(folder);
    }

    kelo::Result kb(std::vector<std::string> arguments) const
    {
        const char *const limit = HasFailure() ? "2" : "20";
        arguments.insert(arguments.begin(),
                         {"timeout", "-k1", limit, KELO_BOARD_PROGRAM, "-b", board});
        return kelo::run(arguments);
    }
    void done(const std::vector<std::string> &arguments) const
    {
        const kelo::Result result = kb(arguments);
        EXPECT_EQ(0, result.status) << result.output;
    }
    void up(const std::string &kept = "64")
    {
        const kelo::Result result = kb({"up", "-d", "--keep", kept, board});
        ASSERT_EQ(0, result.status) << result.output;
        up_ = true;
    }
    std::string file(const std::string &name) const { return folder + "/" + name; }
    kelo::Recording readBack(const std::string &name) const
    {
        std::ifstream in(file(name));
        const kelo::Record record = kelo::readVcd(in);
        return makeRecording(record.events, record.end, record.begin);
    }

    std::string folder;
    std::string board;

private:
    bool up_ = false;
};

bool holds(const kelo::Recording &recording, const std::string &signal, const std::string &value)
{
    const kelo::Signal *const found = recording.find(signal);
    return found && std::any_of(found->changes.begin(), found->changes.end(),
                                [&](const auto &change) { return change.value == value; });
}

TEST_F(RecordCommand, SavesAndDrawsWhatHappened)
{
    up();
    done({"set", "laser", "-26.5"});
    done({"mode", "errora12"});
    done({"expect", "leds", "010000"});
    done({"record", file("a.vcd")});
    const kelo::Recording recording = readBack("a.vcd");
    EXPECT_TRUE(holds(recording, "mode", "1"));
    EXPECT_TRUE(holds(recording, "mode", "4"));
    EXPECT_TRUE(holds(recording, "rx_power_dbm", "-26.5"));

    done({"plot", file("a.vcd"), "-o", file("a.svg")});
    EXPECT_NE(std::string::npos, kelo::readFile(file("a.svg")).find("-26.5 dBm"));
    kelo::writeFile(file("a.json"), kb({"events", "--json"}).output);
    done({"plot", file("a.json"), "-o", file("a.svg")});
    EXPECT_NE(std::string::npos, kelo::readFile(file("a.svg")).find(">signal</text>"));
    done({"plot", "-o", file("now.svg")}); // the running board
    EXPECT_NE(std::string::npos, kelo::readFile(file("now.svg")).find("-26.5 dBm"));
}

TEST_F(RecordCommand, RecordsFromNowOnForATime)
{
    up();
    done({"mode", "reboot"});
    done({"expect", "mode", "reboot"});
    done({"record", "--for", "1s", file("a.vcd")});
    const kelo::Recording recording = readBack("a.vcd");
    EXPECT_FALSE(holds(recording, "mode", "1")) << "that was before";
    EXPECT_TRUE(holds(recording, "mode", "2")) << "this holds since before";
    EXPECT_TRUE(holds(recording, "gpio2", "1"));
    EXPECT_GE(recording.length, 100000);
}

TEST_F(RecordCommand, KeepsWhatItHasWhenItIsCutOff)
{
    up();
    done({"mode", "reboot"});
    done({"expect", "mode", "reboot"});
    for (const bool byBoard : {false, true}) {
        const pid_t recorder = kelo::spawn({"timeout", "-k9", "60", KELO_BOARD_PROGRAM, "-b", board,
                                            "record", "--for", "1000s", file("a.vcd")},
                                           {});
        done({"wait", "1s"});
        done({"mode", byBoard ? "restore" : "errora12"});
        done({"expect", "mode", byBoard ? "restore" : "errora12"});
        done({"wait", "500ms"});
        if (byBoard)
            done({"down"});
        else
            kill(recorder, SIGINT);
        EXPECT_EQ(0, kelo::waitFor(recorder));
        const kelo::Recording recording = readBack("a.vcd");
        EXPECT_TRUE(holds(recording, "mode", byBoard ? "3" : "4"));
        EXPECT_LT(recording.length, 100 * 100000);
    }
}

TEST_F(RecordCommand, WhatHappenedBeforeItIsNoEventOfTheRecording)
{
    up();
    done({"press", "1500ms"});
    done({"expect", "calls", "reboot"});
    done({"ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "nas0_0", "nodad"});
    done({"expect", "store", "wanAddressLen", "64"});
    done({"expect", "omci", "1"});
    done({"stop"});
    done({"record", "--for", "200ms", file("a.vcd")});
    const kelo::Recording recording = readBack("a.vcd");
    EXPECT_TRUE(holds(recording, "mode", "2"));
    for (const char *const name : {"reboot", "store", "omci", "daemon_exit"}) {
        const kelo::Signal *const signal = recording.find(name);
        ASSERT_TRUE(signal) << name;
        EXPECT_EQ(0U, signal->changes.size()) << name;
    }
}

TEST_F(RecordCommand, ARecordWithoutItsBeginningBeginsWithWhatHeld)
{
    up("1");
    done({"mode", "errora12"});
    done({"expect", "leds", "010000"});
    done({"set", "laser", "-26.5"});
    std::string path = kb({"path", "/dev/channel"}).output;
    path.pop_back();
    for (int i = 0; i < 300; i++)
        std::ofstream(path) << "\036omci " + std::string(4000, 'y') + "\n" << std::flush;
    const std::string loss = "is no longer kept\n";
    kelo::Result result{};
    const auto end = kelo::Clock::now() + std::chrono::seconds(30);
    while (result.output.find(loss) == std::string::npos && kelo::Clock::now() < end)
        result = kb({"record", file("a.vcd")});
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find(loss)) << result.output;
    const kelo::Recording recording = readBack("a.vcd");
    for (const auto &[name, value] :
         {std::pair{"mode", "4"}, {"gpio7", "1"}, {"rx_power_dbm", "-26.5"}, {"link", "1"}}) {
        const kelo::Signal *const signal = recording.find(name);
        ASSERT_TRUE(signal && !signal->changes.empty()) << name;
        EXPECT_EQ(value, signal->changes.back().value) << name;
        EXPECT_LE(signal->changes.back().time, 1) << name << " holds from the beginning on";
    }
    result = kb({"plot", "-o", file("a.svg")});
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find(loss)) << result.output;
}

TEST_F(RecordCommand, RefusesInOneLine)
{
    std::ofstream(file("other")) << "export TEXT=1\n";
    std::ofstream(file("short.vcd")) << "$var wire 1 a gpio6 $end #0 0a #100000 1a\n";
    const struct {
        int status;
        std::vector<std::string> arguments;
    } cases[] = {
        {1, {"record", file("a.vcd")}}, // no such board
        {1, {"plot", "-o", file("a.svg")}},
        {1, {"plot", file("nowhere"), "-o", file("a.svg")}},
        {1, {"plot", file("other"), "-o", file("a.svg")}},
        {1, {"plot", folder, "-o", file("a.svg")}},
        {1, {"plot", file("short.vcd"), "-o", "/nowhere/a.svg"}},
        {1, {"plot", file("short.vcd"), "-o", "/nowhere/a.png"}},
        {1, {"plot", file("short.vcd"), "-o", file("a.svg"), "--from", "99"}},
        {2, {"plot", file("short.vcd"), "-o", file("a.gif")}},
        {2, {"plot", file("short.vcd"), "-o", file("a.svg"), "--from", "-1"}},
        {2, {"plot", file("short.vcd"), "-o", file("a.svg"), "--from", "2", "--to", "1"}},
        {2, {"plot", file("short.vcd"), "-o", file("a.svg"), "--to", "soon"}},
        {2, {"plot", file("short.vcd")}},
        {2, {"record"}},
    };
    for (const auto &one : cases) {
        const kelo::Result result = kb(one.arguments);
        std::string words;
        for (const std::string &word : one.arguments)
            words += " " + word;
        EXPECT_EQ(one.status, result.status) << words << "\n" << result.output;
        EXPECT_EQ(1, std::count(result.output.begin(), result.output.end(), '\n')) << words << "\n"
                                                                                   << result.output;
        EXPECT_FALSE(std::filesystem::exists(file("a.vcd"))) << words;
        EXPECT_FALSE(std::filesystem::exists(file("a.svg"))) << words;
    }
}

TEST_F(RecordCommand, FileThatCannotBeWrittenIsSaidBeforeTheWait)
{
    up();
    const kelo::Result result = kb({"record", "--for", "1000s", "/nowhere/a.vcd"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("kelo-board: cannot write /nowhere/a.vcd: No such file or directory\n",
              result.output);
}

} // namespace
