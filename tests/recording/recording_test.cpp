// Recordings of the real daemon: what the file says is what happened, also to another program.

#include "board_test.h"
#include "plot.h"
#include "recording.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <unistd.h>

using kelo::Recording;
using kelo::Signal;

namespace {

/// A folder that goes with the test.
class Folder {
public:
    Folder()
    {
        char name[] = "/tmp/kelo-recording-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string vcdOf(const Recording &recording)
{
    std::ostringstream out;
    out << toVcd(recording);
    return out.str();
}

Recording parse(const std::string &vcd)
{
    std::istringstream in(vcd);
    const kelo::Record record = kelo::readVcd(in);
    return makeRecording(record.events, record.end, record.begin);
}

std::vector<std::pair<int64_t, std::string>> changesOf(const Recording &recording,
                                                       const std::string &name)
{
    std::vector<std::pair<int64_t, std::string>> result;
    const Signal *const signal = recording.find(name);
    EXPECT_NE(nullptr, signal) << name;
    if (signal) {
        for (const Signal::Change &change : signal->changes)
            result.emplace_back(change.time, change.value);
    }
    return result;
}

class Recorded : public BoardTest {
protected:
    Folder folder;
    std::vector<Event> performed;

    /// Something of everything that a recording shows.
    Recording perform()
    {
        board.setLaser("-9.5");
        board.setGpon(4);
        start();
        EXPECT_TRUE(plays({"010101", "111000", "010101"}));
        send("restore");
        EXPECT_TRUE(plays({"000100", "000110", "000111", "000000"}));
        ip("-6 addr add 2001:db8::1/64 dev nas0_0 nodad");
        EXPECT_TRUE(sees(EventKind::Omci, "set update_ip"));
        board.setButton(1);
        EXPECT_TRUE(sees(EventKind::Mode, "2"));
        board.setButton(0);
        EXPECT_TRUE(sees(EventKind::Call, "syscfg_reboot"));
        performed = board.events();
        return kelo::makeRecording(performed, kelo::Clock::now());
    }

    std::string save(const std::string &name, const std::string &text) const
    {
        std::ofstream(folder / name) << text;
        return folder / name;
    }
};

TEST_F(Recorded, EdgesAreTheDaemonsLedWrites)
{
    const Recording recording = perform();
    std::string flags = "??????";
    std::map<size_t, std::vector<std::string>> expected;
    for (const Event &event : performed) {
        if (event.kind != EventKind::Leds)
            continue;
        for (size_t led = 0; led < flags.size(); led++) {
            if (event.text[led] != flags[led])
                expected[led].push_back(event.text.substr(led, 1));
        }
        flags = event.text;
    }
    const char *const names[] = {"gpio6", "gpio7", "gpio8", "gpio2", "gpio3", "gpio4"};
    for (size_t led = 0; led < std::size(names); led++) {
        std::vector<std::string> values;
        for (const auto &[time, value] : changesOf(recording, names[led]))
            values.push_back(value);
        EXPECT_EQ(expected[led], values) << names[led];
    }
}

TEST_F(Recorded, FileReadsBackAsItWasWritten)
{
    const Recording recording = perform();
    const Recording again = parse(vcdOf(recording));
    EXPECT_EQ(recording.length, again.length);
    ASSERT_EQ(recording.signals.size(), again.signals.size());
    for (const Signal &signal : recording.signals) {
        auto changes = changesOf(again, signal.name);
        // The file says of every LED what it is at the start, if only that it is not known.
        if (signal.name.starts_with("gpio"))
            changes.erase(changes.begin());
        EXPECT_EQ(changesOf(recording, signal.name), changes) << signal.name;
    }
    EXPECT_EQ("Kelo_Ipv6Status wanAddress \"2001:db8::1\"", changesOf(again, "store").at(0).second);
}

/// Edges by sigrok's channel, as "TIME:VALUE", from the VCD that it makes of what it decoded.
std::map<std::string, std::vector<std::string>> decodedEdges(const std::string &output)
{
    std::map<std::string, std::string> names;
    std::map<std::string, std::vector<std::string>> edges;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "$var") {
            std::string code;
            words >> word >> word >> code;
            words >> names[code];
        } else if (word[0] == '#') {
            const std::string time = word.substr(1);
            while (words >> word)
                edges[names[word.substr(1)]].push_back(time + ":" + word[0]);
        }
    }
    return edges;
}

TEST_F(Recorded, SigrokDecodesTheSameEdges)
{
    ASSERT_STRNE("", SIGROK_CLI) << "sigrok-cli is not installed: scripts/test installs it";
    const Recording recording = perform();
    const std::string file = save("board.vcd", vcdOf(recording));
    const kelo::Result result = kelo::run({SIGROK_CLI, "-I", "vcd", "-i", file, "-O", "vcd"});
    ASSERT_EQ(0, result.status) << result.output;
    EXPECT_EQ(std::string::npos, result.output.find("sr: ")) << result.output;
    auto decoded = decodedEdges(result.output);

    size_t edges = 0;
    for (const char *const name :
         {"gpio6", "gpio7", "gpio8", "gpio2", "gpio3", "gpio4", "link", "button"}) {
        // sigrok knows no "not known": what starts so starts as 0.
        std::vector<std::string> expected{"0:0"};
        std::string last = "0";
        for (const auto &[time, value] : changesOf(recording, name)) {
            if (time == 0)
                expected = {"0:" + value};
            else if (value != last)
                expected.push_back(std::to_string(time) + ":" + value);
            last = value;
        }
        EXPECT_EQ(expected, decoded[name]) << name;
        edges += expected.size() - 1;
    }
    EXPECT_GT(edges, 10U);
    for (const char *const bit : {"mode[0]", "mode[1]", "mode[2]", "mode[3]"})
        EXPECT_EQ(1U, decoded.count(bit)) << bit;
}

TEST_F(Recorded, PlotNamesAllThatHappened)
{
    const Recording recording = perform();
    const std::string svg = plot(recording, 0, recording.length);
    for (const char *const text :
         {"GPIO 6", "GPIO 7", "GPIO 8", "GPIO 2", "GPIO 3", "GPIO 4", "mode", "rx power",
          "-9.5 dBm", "GPON link", "down (4)", "button", "wanAddress 2001:db8::1",
          "omci set update_ip", " s</text>", ">reboot<"})
        EXPECT_NE(std::string::npos, svg.find(text)) << text;
    EXPECT_NE(std::string::npos, svg.find("prefers-color-scheme:dark"));
}

TEST_F(Recorded, PlotAsBitmap)
{
    ASSERT_STRNE("", RSVG_CONVERT) << "rsvg-convert is not installed: scripts/test installs it";
    const Recording recording = perform();
    kelo::savePicture(plot(recording, 0, recording.length), folder / "board.png");
    EXPECT_TRUE(kelo::readFile(folder / "board.png").starts_with("\x89PNG\r\n"));
}

/// Lit bars of the LED lanes in a picture: x and width.
std::vector<std::pair<double, double>> litBars(const std::string &svg)
{
    std::vector<std::pair<double, double>> bars;
    const std::regex bar("class=\"lit\" x=\"([0-9.]+)\" y=\"[0-9.]+\" width=\"([0-9.]+)\"");
    for (std::sregex_iterator match(svg.begin(), svg.end(), bar), end; match != end; ++match)
        bars.emplace_back(std::stod((*match)[1]), std::stod((*match)[2]));
    return bars;
}

TEST(Plot, BarsLieWhereTheLedIsLit)
{
    Recording recording;
    recording.signals = {{"gpio6", Signal::Type::Bit, {{0, "0"}, {250000, "1"}, {500000, "0"}}}};
    recording.length = 1000000;
    // From 110 to 980 is 870 wide.
    const std::vector<std::pair<double, double>> bars{{327.5, 217.5}};
    EXPECT_EQ(bars, litBars(plot(recording, 0, 1000000)));
    // Half of the time is twice as wide.
    const std::vector<std::pair<double, double>> zoomed{{545, 435}};
    EXPECT_EQ(zoomed, litBars(plot(recording, 0, 500000)));
}

TEST(Plot, CountsTheTextsThatItHasNoRoomFor)
{
    Recording recording;
    recording.signals = {{"gpio6", Signal::Type::Bit}, {"omci", Signal::Type::Event}};
    recording.length = 1000000;
    for (const int64_t time : {100000, 500000, 999000}) {
        for (int64_t event = 0; event < 7 + time / 250000; event++)
            recording.signals[1].changes.push_back({time + event, "set update_ip"});
    }
    const std::string svg = plot(recording, 0, recording.length);
    const std::regex text(">([^<]*)</text>");
    std::map<std::string, int> texts;
    for (std::sregex_iterator match(svg.begin(), svg.end(), text), end; match != end; ++match)
        texts[(*match)[1]]++;
    EXPECT_EQ(15, texts["omci set update_ip"]);
    EXPECT_EQ(1, texts["+2 more"]);
    EXPECT_EQ(1, texts["+4 more"]);
    EXPECT_EQ(1, texts["+5 more"]);
}

TEST(Plot, LongRecordingStaysSmall)
{
    Recording recording;
    recording.signals = {{"gpio6", Signal::Type::Bit}};
    for (int64_t change = 0; change < 200000; change++)
        recording.signals[0].changes.push_back({change * 25000, change % 2 ? "1" : "0"});
    recording.length = 200000LL * 25000;
    const std::string svg = plot(recording, 0, recording.length);
    EXPECT_LT(svg.size(), 20000U);
    EXPECT_NE(std::string::npos, svg.find("class=\"busy\""));
}

TEST(Recording, OfNothingIsEmptyButWhole)
{
    const Recording recording = kelo::makeRecording({}, kelo::Clock::now());
    const Recording again = parse(vcdOf(recording));
    EXPECT_EQ(0, again.length);
    EXPECT_NE(std::string::npos, plot(again, 0, 0).find("</svg>"));
}

TEST(Recording, ModesComeThroughBitByBit)
{
    Recording recording;
    recording.signals = {{"gpio6", Signal::Type::Bit}, {"mode", Signal::Type::Bits}};
    for (int64_t mode = 0; mode <= 8; mode++)
        recording.signals[1].changes.push_back({100 * (mode + 1), std::to_string(mode)});
    recording.length = 2000;
    EXPECT_EQ(changesOf(recording, "mode"), changesOf(parse(vcdOf(recording)), "mode"));
}

TEST(Recording, SaysWhatIsWrongWithAFile)
{
    for (const char *const text :
         {"", "hello world", "$var wire 1 a other $end #0 1a", "#x", "$scope module board",
          "$var wire 1 a gpio6 $end #5 1b", "$var wire 1 a gpio6 $end #-5 1a",
          "$var real 64 a gpio6 $end #5 r5"}) {
        try {
            parse(text);
            ADD_FAILURE() << "took " << text;
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(std::string::npos, std::string(error.what()).find('\n'));
        }
    }
}

TEST(Picture, SaysWhyItCannotBeSaved)
{
    EXPECT_THROW(kelo::savePicture("<svg/>", "/tmp/picture.gif"), std::runtime_error);
    EXPECT_THROW(kelo::savePicture("<svg/>", "/nowhere/picture.svg"), std::runtime_error);
    EXPECT_THROW(kelo::savePicture("<svg/>", "/nowhere/picture.png"), std::runtime_error);
}

} // namespace
