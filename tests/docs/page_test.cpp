/// Whether kelo-monitord.8 tells the truth. The whole daemon runs on the fakes of the unit tests;
/// what it does there is put into the page's own words, and the page has to have them.

#include "../unit/datagram.h"
#include "fakes/event_loop.h"
#include "fakes/faults.h"
#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/netlink.h"
#include "fakes/process.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <regex.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern "C" int daemon_main(int argc, char **argv);

namespace {

using namespace std::chrono_literals;
using std::string;
using std::to_string;
using ::operator+;
using fakes::operator+;
using fakes::eventLoop;
using fakes::files;
using fakes::Lines;
using fakes::netlink;
using fakes::process;
using fakes::vendor;

constexpr int netlinkFd = 500;
constexpr int pipeFd = fakes::firstDescriptor;
constexpr char snapshotPath[] = "/var/run/kelo-monitord.netinfo";

/// What the page has to say.
struct Truth {
    /// The rows under a heading that begin as the expression says: these and no others.
    struct Table {
        string heading;
        string rowExpression;
        std::set<string> rows;
    };
    std::vector<Table> tables;
    std::set<string> sentences; ///< each once in the page, where line ends count as spaces
    /// Log records, without the daemon's name, by the file that they come from: each for a message
    /// under DIAGNOSTICS and each message for one of them.
    std::map<string, std::set<string>> records;
};

// Running the daemon, and reading what it did.

/// Runs the daemon in a process of its own, `scene` while its event loop would run. Returns what
/// the fakes noted.
Lines play(const std::function<void()> &scene, string option = "--")
{
    FILE *const file = tmpfile();
    const pid_t child = fork();
    if (child == 0) {
        eventLoop().duringDispatch = scene;
        string name = "kelo-monitord";
        char *arguments[] = {name.data(), option.data(), nullptr};
        try {
            daemon_main(2, arguments);
        } catch (const fakes::Exit &) {
        }
        for (const string &line : fakes::journal().take())
            fwrite(line.c_str(), line.size() + 1, 1, file);
        fflush(file);
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    rewind(file);
    Lines noted;
    char *line = nullptr;
    size_t size = 0;
    while (getdelim(&line, &size, '\0', file) > 0)
        noted.emplace_back(line);
    free(line);
    fclose(file);
    return noted;
}

/// What the first group of a POSIX extended regular expression matched, in each line that it
/// matches. (What compilers make of <regex> draws false warnings.)
Lines found(const Lines &lines, const string &expression)
{
    regex_t compiled;
    EXPECT_EQ(regcomp(&compiled, expression.c_str(), REG_EXTENDED), 0) << expression;
    Lines matches;
    for (const string &line : lines) {
        regmatch_t match[2];
        if (regexec(&compiled, line.c_str(), 2, match, 0) == 0)
            matches.emplace_back(line.c_str() + match[1].rm_so, line.c_str() + match[1].rm_eo);
    }
    regfree(&compiled);
    return matches;
}

/// The lines from the first one on that has this text.
Lines from(const string &text, const Lines &lines)
{
    const auto has = [&](const string &line) { return line.find(text) != string::npos; };
    return {std::ranges::find_if(lines, has), lines.end()};
}

string joined(const Lines &parts, const string &between, const string &last)
{
    string text;
    for (size_t i = 0; i < parts.size(); i++)
        text += (i == 0 ? "" : i + 1 < parts.size() ? between : last) + parts[i];
    return text;
}

string replaced(string text, const string &what, const string &with)
{
    for (size_t place = 0; (place = text.find(what, place)) != string::npos; place += with.size())
        text.replace(place, what.size(), with);
    return text;
}

string decimal(double number)
{
    std::ostringstream stream;
    stream << number;
    return stream.str();
}

/// The patterns drawn, as the page shows them.
Lines patterns(const Lines &noted)
{
    static const Lines order = {"6", "7", "8", "2", "3", "4"};
    Lines drawn;
    size_t led = 0;
    for (const string &write : found(noted, "gpio_output: active ([0-9]+ [0-9])\n$")) {
        if (led % order.size() == 0)
            drawn.emplace_back();
        const bool inOrder = write.starts_with(order[led++ % order.size()] + ' ');
        drawn.back() += !inOrder ? '?' : write.back() == '0' ? '*' : '.';
    }
    return drawn;
}

/// The shortest run of patterns that these repeat.
string cycle(const Lines &drawn)
{
    ptrdiff_t length = 1;
    while (length < ssize(drawn) && !equal(drawn.begin() + length, drawn.end(), drawn.begin()))
        length++;
    return joined({drawn.begin(), drawn.begin() + length}, " ", " ");
}

void write(const string &command)
{
    files().chunks = {command};
    if (eventLoop().isPending(pipeFd))
        eventLoop().readable(pipeFd);
}

void receive(const Bytes &datagram, int flags = 0)
{
    netlink().receptions = {{datagram, flags}};
    for (const int fd : {netlinkFd, 0}) {
        if (eventLoop().isPending(fd))
            eventLoop().readable(fd);
    }
}

void receiveAddress(unsigned type, uint32_t ifindex)
{
    receive(message(type, Bytes(AddressHeader{.ifindex = ifindex}) +
                              attribute(IFA_ADDRESS, address("2001:db8::1"))));
}

void receiveRoute(unsigned type, uint32_t ifindex, const Bytes &destination = {})
{
    receive(message(type, Bytes(RouteHeader{}) + attribute(RTA_GATEWAY, address("fe80::1")) +
                              attribute(RTA_OIF, ifindex) + destination));
}

void pushButton(int value)
{
    files().content["/proc/tc3162/reset_button"] = to_string(value);
    eventLoop().run(1s);
}

// What the page has to say of each part.

void tellModes(Truth &truth)
{
    std::set<string> rows;
    for (const string keyword : {"none", "signal", "reboot", "restore", "errora12", "locateme",
                                 "ledtest", "facttest", "facttesterr"}) {
        Lines noted = play([&] {
            write(keyword == "none" ? "ledtest" : "none");
            fakes::note("here");
            write(keyword);
            eventLoop().run(60s);
        });
        noted = from("here", noted);
        noted.resize(noted.size() - from("switch display mode 5 -> 1", noted).size());
        const Lines drawn = patterns(noted);
        double seconds = 0;
        for (const string &interval : found(noted, "^event_add fd=-1 every ([0-9]+)us$"))
            seconds = std::stod(interval) / 1e6;
        rows.insert(
            ".It Li " + keyword + " Ta " + found(noted, "mode [0-9] -> ([0-9])\n")[0] + " Ta " +
            (seconds == 0  ? "-"
             : seconds < 1 ? decimal(seconds * 1000) + " ms"
                           : decimal(seconds) + " s") +
            " Ta " + (keyword == "signal" ? "see Sx The signal bar" : "Li " + cycle(drawn)));
        if (keyword == "locateme") {
            const auto ticks = static_cast<double>(drawn.size());
            truth.sentences.insert("after " + decimal(ticks) + " ticks, " +
                                   decimal((ticks - 1) * seconds) +
                                   " s from the first to the last.");
        }
        if (keyword == "signal") {
            const double each =
                std::round(static_cast<double>(drawn.size()) /
                           static_cast<double>(found(noted, "(syscfg_getLaserInfo)").size()));
            truth.sentences.insert("every " + decimal(each) + " ticks, that is, every " +
                                   decimal(each * seconds) + " s.");
            truth.sentences.insert("for up to " + decimal((each - 1) * seconds) + " s.");
        }
    }
    truth.sentences.insert("on GPIO lines 6, 7, 8, 2, 3 and 4.");
    truth.tables.push_back({".Sh DISPLAY", "^\\.It Li [a-z0-9]+ Ta [0-9]", rows});
}

/// What the signal mode goes on showing.
string shown(double power, int reading = 1, int gponState = 5)
{
    Lines drawn = patterns(play([&] {
        vendor().laserPower = static_cast<float>(power);
        vendor().laserResult = reading;
        vendor().gponState = gponState;
        eventLoop().run(5s);
    }));
    drawn.erase(drawn.begin()); // all dark at start
    return cycle(drawn);
}

void tellSignalBar(Truth &truth)
{
    std::set<string> rows;
    string lower;
    string pattern = shown(-50);
    for (int halves = -100; halves < 10; halves++) {
        const double power = halves / 2.0;
        const string next = power == 0 ? pattern : shown(power);
        if (next == pattern)
            continue;
        // A band begins at a whole number, which belongs to it or else to the band below.
        const bool whole = halves % 2 == 0;
        const string limit = decimal(whole ? power : power - 0.5) + " dBm";
        rows.insert(".It " + (lower.empty() ? limit + " and below" : lower + " to below " + limit) +
                    " Ta Li " + pattern);
        lower = (whole ? "" : "above ") + limit;
        pattern = next;
    }
    rows.insert(".It " + lower + " and above Ta Li " + pattern);
    for (const string &missing : {shown(0), shown(-20, 0), shown(0, 1, 4)})
        rows.insert(".It no reading, or exactly 0 dBm Ta Li " + missing);
    const string bar = shown(-20);
    const string turns = shown(-20, 1, 4);
    rows.insert(".It link down, on every other tick Ta Li " +
                turns.substr(0, turns.find(' ' + bar)));
    truth.tables.push_back({".Ss The signal bar", "^\\.It .* Ta Li [.*]", rows});

    Lines up;
    for (int state = -1; state < 10; state++) {
        if (shown(-20, 1, state) == bar)
            up.push_back(to_string(state));
    }
    truth.sentences.insert("in GPON ONU state " + joined(up, ", ", " and ") + " only.");
}

void tellPipe(Truth &truth)
{
    const Lines noted = play([] {
        for (size_t length = 1; length < 200; length++)
            write(string(length, 'x'));
    });
    for (const string &mode : found(noted, "^mkfifo [^ ]+ ([0-9]+)$"))
        truth.sentences.insert("made at start with mode " + mode + " less");
    const string most = found(noted, "^read fd=[0-9]+ size=([0-9]+)$")[0];
    truth.sentences.insert("returns, at most " + most + " bytes.");
    truth.sentences.insert("Bytes after the " + most + "th");
    // The message ends in the newline before the location, as long as there is one.
    const Lines messages = found(noted, "^stderr kelo-monitord: (received \"x+\"\n)");
    const Lines whole = found(noted, "^stderr kelo-monitord: (received \"x+\"\n) .*\n$");
    truth.sentences.insert("A command of more than " + to_string(whole.size()) + " characters,");
    truth.sentences.insert("messages of at most " + to_string(whole.back().size()) +
                           " characters.");
    truth.sentences.insert("longer than " + to_string(messages[126].size()) + " characters.");
    truth.sentences.insert("datagram of more than " + to_string(fakes::datagramRoom) + " bytes");
}

void tellButton(Truth &truth)
{
    const auto pressed = [](const std::vector<int> &values) {
        const Lines noted = play([&] {
            process().forkResult = 0; // it is the child that goes on
            for (const int value : values)
                pushButton(value);
        });
        return joined(found(noted, "^syscfg_(re.*)$"), "", "");
    };
    int limit = 1;
    while (limit < 20 && pressed({limit}).empty())
        limit++;
    EXPECT_EQ(pressed({limit}), "restoreDefaultBg");
    EXPECT_EQ(pressed({1, limit - 1, 0}), "reboot");
    const string value = to_string(limit);
    truth.sentences.insert("released before it reaches " + value + " Ta Li reboot Ta reboot");
    truth.sentences.insert("held until it reaches " + value + " Ta Li restore Ta restore");
    truth.sentences.insert("first value seen is " + value + " or more,");
    truth.sentences.insert("no longer be read, before its value reached " + value + ".");
    truth.sentences.insert("held until its value reached " + value + ".");
}

void tellStore(Truth &truth)
{
    std::map<string, string> words = {{"\"2001:db8::1\"", "address"},
                                      {"\"fe80::1\"", "gateway of a default route"},
                                      {"64", "prefix length"},
                                      {"\"\"", "empty"},
                                      {"0", "0"},
                                      {"", "kept"}};
    std::set<string> rows;
    for (const auto &[name, column] : {std::pair{"br0", "br0"},
                                       {"nas0", "nas0*, ppp*"},
                                       {"nas0_1", "nas0*, ppp*"},
                                       {"ppp7", "nas0*, ppp*"},
                                       {"br0.1", "never"},
                                       {"nas1_0", "never"},
                                       {"eth0", "never"}}) {
        const auto changed = [interface = name](unsigned addressType, unsigned routeType) {
            return [=] {
                netlink().names[3] = interface;
                receiveAddress(addressType, 3);
                receiveRoute(routeType, 3);
            };
        };
        const Lines added = play(changed(RTM_NEWADDR, RTM_NEWROUTE));
        const Lines removed = from("here", play([&] {
                                       changed(RTM_NEWADDR, RTM_NEWROUTE)();
                                       fakes::note("here");
                                       changed(RTM_DELADDR, RTM_DELROUTE)();
                                   }));
        for (const string &attribute : found(added, "^tcapiSet[^ ]* Kelo_Ipv6Status ([^ ]+)")) {
            const string value = ' ' + attribute + " (.*)$";
            rows.insert(".It Li " + attribute + " Ta " + words[found(added, value)[0]] + " Ta " +
                        words[joined(found(removed, value), "", "")] + " Ta " + column);
        }
        for (const string &command : found(removed, "^system (.*)$"))
            truth.sentences.insert(".Dl " + command + ' ');
    }
    truth.tables.push_back({".Sh IP STATUS", "^\\.It Li ", rows});
    truth.sentences.insert("attributes of the node .Li Kelo_Ipv6Status in");
}

void tellCounters(Truth &truth)
{
    const auto snapshot = [](fakes::PortBytes before, fakes::PortBytes now) {
        return found(play([&] {
                         for (const fakes::PortBytes bytes : {before, now}) {
                             vendor().ports.fill(bytes);
                             eventLoop().run(1s);
                         }
                         std::istringstream lines(files().content[snapshotPath]);
                         for (string line; getline(lines, line);)
                             fakes::note("%s", line.c_str());
                     }),
                     "^(port=.*)$");
    };
    std::set<string> rows;
    for (const auto &[before, now] : {std::pair{750ULL, 900ULL},
                                      {4294967040, 4294967552},
                                      {0, 4294968296},
                                      {0, 2147484648},
                                      {1000, 400},
                                      {1000, 4294968303}}) {
        rows.insert(".It " + to_string(before) + " Ta " + to_string(now) + " Ta " +
                    found(snapshot({before, 0}, {now, 0}), "in=([0-9]+),")[0]);
    }
    truth.tables.push_back({".Sh PORT COUNTERS", "^\\.It [0-9]", rows});

    const Lines lines = snapshot({750, 608}, {900, 640});
    truth.tables.push_back({".Sh PORT COUNTERS", "^port=", {lines[0]}});
    truth.sentences.insert(".Li " + joined(found(lines, "port=([^,]*)"), " , ", " , ") + " :");
}

void tellStartAndEnd(Truth &truth)
{
    const Lines started = play([] { eventLoop().dispatchResult = -1; });
    std::map<string, string> names = {{"1", "HUP"}, {"2", "INT"}, {"3", "QUIT"}, {"15", "TERM"}};
    Lines signals;
    for (const string &number : found(started, "^event_add fd=([0-9][0-9]?)$"))
        signals.push_back(".Dv SIG" + names[number]);
    truth.sentences.insert(joined(signals, " , ", " and ") + " end the daemon with exit status 0.");

    std::set<string> statuses;
    for (const string call : {"nothing", "fork", "setsid", "chdir"}) {
        fakes::chooseFailure() = [call](auto &name, auto &) { return name == call; };
        process().forkResult = 0;
        for (const string &status : found(started + play([] {}, "-d"), "^exit ([0-9]+)$"))
            statuses.insert(".It " + status);
    }
    fakes::chooseFailure() = nullptr;
    process().forkResult = 4711;
    truth.tables.push_back({".Sh EXIT STATUS", "^\\.It [0-9]", statuses});
}

/// Everything that the daemon has a log message for, and every path.
void tellRecordsAndPaths(Truth &truth)
{
    const auto day = [](bool longHold) {
        netlink().names[3] = "nas0_0";
        write("locateme");
        write("");
        receiveAddress(RTM_NEWADDR, 3);
        receiveRoute(RTM_NEWROUTE, 3);
        receiveRoute(RTM_NEWROUTE, 3, attribute(RTA_DST, address("2001:db8::")));
        receive(message(RTM_DELLINK, linkHeader(3)));
        receive(message(NLMSG_ERROR, {}));
        receive(message(NLMSG_ERROR, {}), MSG_TRUNC);
        pushButton(longHold ? 9 : 1);
        pushButton(0);
    };
    process().forkResult = 0;
    Lines noted = play([] {}, "-d") + play([&] { day(true); });
    process().forkResult = 4711;
    netlink().socketResult = 0;
    noted = noted + play([&] { day(false); });
    netlink().socketResult = netlinkFd;
    for (const string failing : {"mkfifo", "open", "read", "fopen", "socket", "setsockopt", "bind",
                                 "getsockname", "recvmsg", "calloc"}) {
        fakes::chooseFailure() = [&](auto &name, auto &) { return name == failing; };
        noted = noted + play([&] { day(false); });
    }
    fakes::chooseFailure() = nullptr;

    for (const string &record : found(noted, "^stderr kelo-monitord: (.*)$"))
        truth.records[found({record}, "\\[([^ ]*):[0-9]+ [^ ]+\\]\n$")[0]].insert(record);
    const string examples = "Netlink error|switch display mode 1 -> 5";
    for (const string &record : found(noted, "^stderr (kelo-monitord: (" + examples + ").*)\n$"))
        truth.sentences.insert(replaced(record, "\n", " "));
    std::set<string> rows;
    for (const string &path :
         found(noted, "^[a-z]+ (/[^ :]+)") + found(noted, "^rename [^ ]+ (.*)$"))
        rows.insert(".It Pa " + path);
    truth.sentences.insert("A message of .Pa ipinfo.cpp makes a record of one line. All others");
    truth.tables.push_back({".Sh FILES", "^\\.It Pa ", rows});
}

// Comparing.

/// The page as it reads: without what troff makes of minus signs and quotes.
string readPage()
{
    std::ifstream file(PAGE);
    const string page{std::istreambuf_iterator<char>(file), {}};
    return replaced(replaced(page, "\\-", "-"), "\\(dq", "\"");
}

/// The lines under a heading.
Lines section(const string &page, const string &heading)
{
    const size_t start = page.find('\n' + heading + '\n') + 1;
    const size_t end = std::min(page.find("\n.Sh ", start), page.find("\n.Ss ", start));
    std::istringstream stream(page.substr(start, end - start));
    Lines lines;
    for (string line; getline(stream, line);)
        lines.push_back(line);
    return lines;
}

Lines messages(const string &page, const string &file)
{
    return found(section(page, ".Ss " + file), "^\\.It (.*)$");
}

/// What the records look like that a message of the page is for.
string recordExpression(string message, const string &file)
{
    for (const char *special : {"(", ")", "."})
        message = replaced(message, special, string("\\") + special);
    message = replaced(message, "%d", "-?[0-9]+");
    message = replaced(message, "%p", "0x[0-9a-f]+");
    message = replaced(message, "%s", "[-0-9]*[^-0-9 ][^ ]*"); // no number
    return '^' + message + (file == "ipinfo.cpp" ? "" : "\n") + " \\[" + file +
           ":[0-9]+ [^ ]+\\]\n$";
}

/// What the page lacks and what it says too much.
Lines differences(const string &page, const Truth &truth)
{
    Lines different;
    const string running = replaced(page, "\n", " ");
    for (const string &sentence : truth.sentences) {
        const size_t place = running.find(sentence);
        if (place == string::npos || running.find(sentence, place + 1) != string::npos)
            different.push_back("not once: " + sentence);
    }
    for (auto [heading, expression, missing] : truth.tables) {
        for (const string &row : found(section(page, heading), "(" + expression + ".*)$")) {
            if (missing.erase(row) == 0)
                different.push_back("wrong: " + row);
        }
        for (const string &row : missing)
            different.push_back("missing: " + row);
    }
    for (auto [file, unexplained] : truth.records) {
        for (const string &message : messages(page, file)) {
            const Lines records({unexplained.begin(), unexplained.end()});
            const Lines explained = found(records, '(' + recordExpression(message, file) + ')');
            if (explained.empty())
                different.push_back("never written: " + message);
            for (const string &record : explained)
                unexplained.erase(record);
        }
        for (const string &record : unexplained)
            different.push_back("not explained: " + record);
    }
    return different;
}

Truth tellTruth()
{
    netlink().socketResult = netlinkFd;
    Truth truth;
    tellModes(truth);
    tellSignalBar(truth);
    tellPipe(truth);
    tellButton(truth);
    tellStore(truth);
    tellCounters(truth);
    tellStartAndEnd(truth);
    tellRecordsAndPaths(truth);
    return truth;
}

TEST(Manual, SaysWhatTheDaemonDoes)
{
    const Truth truth = tellTruth();
    const string page = readPage();
    EXPECT_EQ(differences(page, truth), Lines{});

    // Each word of all that was compared, were it another.
    std::set<string> compared = truth.sentences;
    for (const Truth::Table &table : truth.tables) {
        for (const string &row : table.rows)
            compared.insert(' ' + row + ' ');
    }
    for (const auto &[file, records] : truth.records) {
        for (const string &message : messages(page, file))
            compared.insert(".It " + message + ' ');
    }
    const string running = replaced(page, "\n", " ");
    const auto isWord = [](char letter) { return isalnum(letter) || strchr("_*", letter); };
    size_t changes = 0;
    for (const string &text : compared) {
        const size_t start = running.find(text);
        for (size_t i = 0; i < text.size(); i++) {
            if (!isWord(text[i]) || (i + 1 < text.size() && isWord(text[i + 1])))
                continue;
            string changed = page;
            changed.at(start + i) = text[i] == 'x' ? 'y' : 'x';
            EXPECT_NE(differences(changed, truth), Lines{}) << text << ", changed at " << i;
            changes++;
        }
    }
    EXPECT_GT(changes, 500U);
}

} // namespace
