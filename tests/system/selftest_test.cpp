// The board itself, before the daemon is blamed for anything: it leaves nothing behind however it
// ends, and the program is linked as the device needs it.

#include "board_test.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

namespace {

/// kelo-board as a program of its own.
class Program : public testing::Test {
protected:
    const std::string name = "selftest-" + std::to_string(getpid());
    kelo::Pipe output = kelo::makePipe();
    pid_t program = -1;

    /// Runs a board that ends with this test, however that ends.
    void up(const kelo::Words &prefix = {})
    {
        // Last: the kernel forgets it where the prefix changes the user.
        program = kelo::spawnApart(kelo::concat(prefix, {"setpriv", "--pdeathsig", "KILL",
                                                         KELO_BOARD_PROGRAM, "up", name}),
                                   {-1, output.write.get(), output.write.get()});
        output.write.reset();
    }

    /// Reads the program's output until it contains a text.
    testing::AssertionResult prints(const std::string &text)
    {
        std::string seen;
        char buffer[4096];
        ssize_t length;
        while ((length = read(output.read.get(), buffer, sizeof buffer)) > 0) {
            seen.append(buffer, static_cast<size_t>(length));
            if (seen.find(text) != std::string::npos)
                return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "printed instead: " << seen;
    }

    /// The command line of a process that has a text in it; empty when there is none.
    static std::string processWith(const std::string &text)
    {
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            std::string line = kelo::readFile(entry.path() / "cmdline");
            std::replace(line.begin(), line.end(), '\0', ' ');
            if (line.find(text) != std::string::npos)
                return line;
        }
        return {};
    }

    /// The network namespaces in which a process of this machine lives.
    static bool namespaceLives(const std::string &link)
    {
        for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
            std::error_code none;
            if (std::filesystem::read_symlink(entry.path() / "ns/net", none) == link)
                return true;
        }
        return false;
    }

    static testing::AssertionResult within(const std::function<bool()> &condition)
    {
        const auto end = kelo::Clock::now() + 20s;
        while (!condition()) {
            if (kelo::Clock::now() > end)
                return testing::AssertionFailure() << "not in time";
            std::this_thread::sleep_for(10ms);
        }
        return testing::AssertionSuccess();
    }

    /// The board's namespace, by the daemon that runs in it.
    std::string boardsNamespace()
    {
        const kelo::Result holder = kelo::run(
            {KELO_BOARD_PROGRAM, "--board", name, "exec", "--", "readlink", "/proc/self/ns/net"});
        EXPECT_EQ(0, holder.status) << holder.output;
        return holder.output.substr(0, holder.output.find('\n'));
    }

    std::string mountsBefore = kelo::readFile("/proc/self/mounts");
};

class EndOfProgram : public Program, public testing::WithParamInterface<int> {};

TEST_P(EndOfProgram, LeavesNothingBehind)
{
    up();
    ASSERT_TRUE(prints("snapshot"));
    const std::string network = boardsNamespace();
    ASSERT_TRUE(namespaceLives(network));
    kill(program, GetParam());
    const int status = kelo::waitFor(program);
    EXPECT_EQ(GetParam() == SIGKILL ? 128 + SIGKILL : 0, status);
    EXPECT_TRUE(within([&] { return !namespaceLives(network); }));
    EXPECT_EQ(mountsBefore, kelo::readFile("/proc/self/mounts"));
    const kelo::Result gone = kelo::run({KELO_BOARD_PROGRAM, "--board", name, "mode", "none"});
    EXPECT_EQ(1, gone.status);
    EXPECT_NE(std::string::npos, gone.output.find("no board named")) << gone.output;
}

INSTANTIATE_TEST_SUITE_P(By, EndOfProgram, testing::Values(SIGINT, SIGTERM, SIGHUP, SIGKILL),
                         [](const auto &test) { return sigabbrev_np(test.param); });

bool isReached(const kelo::Words &prefix)
{
    return kelo::run(kelo::concat(prefix, {"test", "-x", KELO_BOARD_PROGRAM})).status == 0;
}

/// A command prefix that drops root's rights. Where the source tree stands in a folder that is
/// closed to other users, it first gets its place in an open one, in a mount namespace of its own.
kelo::Words asNobody()
{
    const kelo::Words nobody{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    if (isReached(nobody))
        return nobody;
    const kelo::Words result{"unshare",
                             "--mount",
                             "sh",
                             "-c",
                             "exec 3< " KELO_SOURCE "\n"
                             "top=$(echo " KELO_SOURCE " | cut -d/ -f1,2)\n"
                             "mount -t tmpfs -o mode=755 open \"$top\" &&\n"
                             "for name in board build; do\n"
                             "mkdir -p " KELO_SOURCE "/$name &&\n"
                             "mount --no-canonicalize --bind /proc/self/fd/3/$name " KELO_SOURCE
                             "/$name || exit\n"
                             "done\n"
                             "exec \"$@\" 3<&-",
                             "sh"};
    return kelo::concat(result, nobody);
}

TEST_F(Program, RunsForAnOrdinaryUserOrSaysWhatIsMissing)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "this is an ordinary user already";
    const kelo::Words nobody = asNobody();
    if (!isReached(nobody))
        GTEST_SKIP() << "the build folder is closed to other users and cannot be shown to them";
    const bool allowed =
        kelo::run(kelo::concat(nobody, {"unshare", "--user", "--map-root-user", "true"})).status ==
        0;
    up(nobody);
    if (allowed) {
        EXPECT_TRUE(prints("snapshot"));
        kill(program, SIGINT);
        EXPECT_EQ(0, kelo::waitFor(program));
    } else {
        EXPECT_TRUE(prints("run as root"));
        EXPECT_EQ(1, kelo::waitFor(program));
    }
}

TEST_F(Program, WithoutTheRightToNamespacesRootGetsAPlainBoard)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    // What looks for the board's processes in the end finds one that is gone before it can be
    // killed.
    const std::filesystem::path tools = "/tmp/" + name + "-tools";
    std::filesystem::create_directory(tools);
    const std::string readlink = tools / "readlink";
    std::ofstream(readlink) << "#!/bin/sh\n/bin/readlink \"$1\" | grep /tmp/kelo-board- || exit\n"
                               "kill -9 \"$(basename \"${1%/root}\")\"\nsleep 0.2\n";
    std::filesystem::permissions(readlink, std::filesystem::perms::owner_all);
    up({"env", "PATH=" + tools.string() + ":" + getenv("PATH"), "setpriv",
        "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"});
    ASSERT_TRUE(prints("snapshot"));
    const std::string root = processWith("board-init plain");
    EXPECT_NE("", root);
    const std::string folder = std::filesystem::temp_directory_path() / "kelo-board-";
    const size_t at = root.find(folder);
    ASSERT_NE(std::string::npos, at);
    const std::string own = root.substr(at, folder.size() + strlen("XXXXXX"));
    const pid_t gone = kelo::spawnApart({"chroot", own, "sleep", "100"}, {});
    kill(program, SIGKILL);
    kelo::waitFor(program);
    EXPECT_EQ(128 + SIGKILL, kelo::waitFor(gone));
    EXPECT_TRUE(within([&] { return processWith("board-init plain").empty(); }));
    EXPECT_TRUE(within([&] { return !std::filesystem::exists(own); })) << own << " is left";
    std::filesystem::remove_all(tools);
}

TEST(Board, LivesOnWhenABuildReplacesItsRootFileSystem)
{
    const std::filesystem::path built = std::filesystem::path(KELO_DAEMON).parent_path() / "rootfs";
    const std::filesystem::path copy =
        std::filesystem::temp_directory_path() / ("kelo-rootfs-" + std::to_string(getpid()));
    std::filesystem::copy(built, copy,
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::copy_symlinks);
    kelo::Board board(kelo::Board::Options{copy, {}});
    std::filesystem::remove_all(copy);
    board.startDaemon();
    EXPECT_TRUE(board.waitUntil(
        [](const std::vector<kelo::Event> &events) {
            return std::any_of(events.begin(), events.end(), [](const kelo::Event &event) {
                return event.kind == kelo::EventKind::Snapshot;
            });
        },
        20s));
}

TEST(Link, DaemonNeedsTheSixPlatformLibrariesLibeventAndLibcOnly)
{
    const std::vector<std::string> expected{
        "libapi_lib_switchmgr.so", "libapi_libbsp_fe.so", "libc.so.6",      "libcfg_clisvc.so",
        "libevent_core-2.1.so.7",  "libkelosyscfg.so",    "liblauncher.so", "libtcapi.so"};
    const kelo::Result needed = kelo::run({"sh", "-c",
                                           "readelf -d " KELO_DAEMON
                                           " | sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p' | sort"});
    std::string text;
    for (const std::string &library : expected)
        text += library + "\n";
    EXPECT_EQ(text, needed.output);
}

TEST(Link, OtherPlatformLibrariesCanBePutInPlace)
{
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("kelo-lib-" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    std::filesystem::copy(KELO_LIBRARIES "/libtcapi.so", folder);
    const kelo::Result own = kelo::run({"ldd", KELO_DAEMON});
    const kelo::Result other =
        kelo::run({"env", "LD_LIBRARY_PATH=" + folder.string(), "ldd", KELO_DAEMON});
    std::filesystem::remove_all(folder);
    EXPECT_NE(std::string::npos, own.output.find(KELO_LIBRARIES "/libtcapi.so")) << own.output;
    EXPECT_NE(std::string::npos, other.output.find(folder.string() + "/libtcapi.so"))
        << other.output;
}

} // namespace
