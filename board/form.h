/// The forms of a board: where its agent runs and how it is started there. Everything else about a
/// board is the same for all of them.
///
///   host          a root file system in namespaces of its own, programs of this machine
///   asan, valgrind     the same, from another build
///   mips, arm64 and others     the same, programs of another machine run by an emulator
///   malta, device      a kernel of its own, booted in an emulated machine
///   ssh:HOST           a terminal; watch:HOST, beside the daemon that runs there

#pragma once

#include "process.h"
#include "words.h"

#include <memory>
#include <string>

namespace kelo {

/// What some forms do not have.
enum class Ability {
    Always,    ///< all have this
    Network,   ///< a network and mounts of its own, which may be changed
    Programs,  ///< the same, in which programs of this machine run
    Files,     ///< files that this machine reaches, and processes that it sees
    FileFaults ///< LED and button files that can be taken away
};

class Form {
public:
    /// A form whose agent runs already, as `words` of another process says.
    static std::unique_ptr<Form> of(const Words &words);
    /// The forms to try for a name, the best first; each but the last may be refused by the
    /// machine. An empty name is that of the environment, KELO_BOARD, or host. Throws
    /// std::runtime_error when there is none of this name, or it has not been built.
    static std::vector<std::unique_ptr<Form>> named(const std::string &name);
    /// How many boards of this name may run at once, at most.
    static unsigned atOnce(const std::string &name, unsigned most);

    virtual ~Form() = default;

    struct Agent {
        pid_t process = -1; ///< of this machine; with it, all of the board ends
        Descriptor in;
        Descriptor out;
        Descriptor complaints; ///< what it says instead of starting
        int patience = 1000;   ///< milliseconds that it gets to end by itself
        bool isFar = false;    ///< it may lose us without a word, and has to be told that we live
    };
    virtual Agent start() = 0;

    /// For `of`.
    virtual Words words() const = 0;

    /// Why it does not have something; empty when it does.
    virtual std::string lacks(Ability ability) const = 0;

    /// The board's root folder for what runs inside.
    virtual std::string root() const = 0;

    /// A path of the board as this machine reaches it. Throws std::runtime_error where it does not.
    virtual std::string path(const std::string &boardPath) const = 0;

    /// A command line that runs in the board's network, with this machine's files; none where only
    /// the agent can run it, with the board's.
    virtual Words inside(const Words &command) const = 0;

    /// A command line that `inside` takes, or the agent, to run at the far end of the board's
    /// links.
    virtual Words far(const Words &command) const = 0;

    /// A process as this machine numbers it.
    virtual pid_t outside(pid_t pid) const = 0;
};

/// What keeps this user from namespaces, and how to allow them.
std::string namespaceAdvice();

/// A file of the build or the installation that this program belongs to, as
/// "rootfs/usr/sbin/kelo-monitord". Throws std::runtime_error when it is not there.
std::string builtFile(const std::string &path);

} // namespace kelo
