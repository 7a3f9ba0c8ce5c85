#include "form.h"

#include "device.h"

#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace kelo {

namespace fs = std::filesystem;

namespace {

constexpr char filesElsewhere[] = "this board's files are on a machine of its own";
constexpr char machinesNetwork[] =
    "this board is on the machine's own network and mounts, which stay as they are";

constexpr char isolated[] = "isolated";
constexpr char plain[] = "plain";

constexpr char overSsh[] = "ssh:";
constexpr char watching[] = "watch:";

/// The form of that name, or the one that the environment asks for.
std::string formOf(const std::string &name)
{
    const char *const given = getenv("KELO_BOARD");
    return !name.empty() ? name : given && *given ? given : "host";
}

fs::path userNamespace(const std::string &process)
{
    std::error_code ignored;
    return fs::read_symlink("/proc/" + process + "/ns/user", ignored);
}

/// A command whose standard descriptors and descriptor 3 are pipes. It ends with this process.
Form::Agent startProcess(Words command, int life = -1)
{
    Pipe in = makePipe();
    Pipe out = makePipe();
    Pipe err = makePipe();
    if (life < 0) // who has that pipe sees our end by it, and has a folder to clear away
        command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
    Form::Agent agent;
    agent.process = spawnApart(command, {in.read.get(), out.write.get(), err.write.get(), life});
    agent.in = std::move(in.write);
    agent.out = std::move(out.read);
    agent.complaints = std::move(err.read);
    return agent;
}

/// A root file system on this machine.
class Local : public Form {
public:
    Local(const char *kind, std::string rootfs, std::string machine)
        : kind_(kind), rootfs_(std::move(rootfs)), machine_(std::move(machine))
    {
    }
    /// Of the words that another process has of it.
    Local(const char *kind, const Words &words)
        : kind_(kind), holder_(atoi(words.at(1).c_str())), root_(words.at(2))
    {
    }

    Words words() const override { return {kind_, std::to_string(holder_), root_}; }

    std::string root() const override { return root_; }

    std::string path(const std::string &boardPath) const override { return reach() + boardPath; }

    pid_t outside(pid_t pid) const override
    {
        const std::string agent = agentPid();
        if (std::to_string(pid) == agent)
            return pid;
        // The last number is the one in the innermost namespace.
        std::istringstream children(readFile("/proc/" + agent + "/task/" + agent + "/children"));
        for (std::string child; children >> child;) {
            const std::string status = readFile("/proc/" + child + "/status");
            const size_t at = status.find("NSpid:");
            std::istringstream numbers(status.substr(std::min(at + 6, status.size())));
            std::string line;
            std::getline(numbers, line);
            if (line.substr(line.find_last_of(" \t") + 1) == std::to_string(pid))
                return atoi(child.c_str());
        }
        return pid;
    }

protected:
    /// The board's root folder as this process reaches it.
    virtual std::string reach() const = 0;
    /// The agent as this machine numbers it.
    std::string agentPid() const
    {
        const std::string holder = std::to_string(holder_);
        const std::string children = readFile("/proc/" + holder + "/task/" + holder + "/children");
        return children.substr(0, children.find(' '));
    }

    const char *kind_; ///< as the words and board-init have it
    pid_t holder_ = -1;
    std::string rootfs_;
    std::string machine_; ///< the emulated one's name; empty for this one
    std::string root_;    ///< as the holder sees it
};

/// In namespaces of its own.
class Isolated : public Local {
public:
    Isolated(std::string rootfs, std::string machine, bool asUser)
        : Local(isolated, std::move(rootfs), std::move(machine)), asUser_(asUser)
    {
        // Not on the template itself where that can be avoided: a build that assembles it anew
        // would unmount what is there.
        constexpr char usual[] = "/media";
        bool isFree = fs::is_directory(usual) && !rootfs_.starts_with(usual);
        for (const char *const variable : {"KELO_BOARD_DAEMON", "KELO_BOARD_SDK"}) {
            const char *const replacement = getenv(variable);
            isFree = isFree && !(replacement && std::string(replacement).starts_with(usual));
        }
        root_ = isFree ? usual : rootfs_;
    }
    explicit Isolated(const Words &words) : Local(isolated, words), asUser_(false) {}

    Agent start() override
    {
        Words command{"unshare", "--mount",      "--net",         "--pid",
                      "--fork",  "--kill-child", "--propagation", "unchanged"};
        if (asUser_)
            command.insert(command.end(), {"--user", "--map-root-user"});
        command.insert(command.end(),
                       {"sh", builtFile("board/board-init"), kind_, rootfs_, root_, machine_});
        Agent agent = startProcess(std::move(command));
        holder_ = agent.process;
        return agent;
    }

    std::string lacks(Ability) const override { return {}; }

    Words inside(const Words &command) const override
    {
        // The root and a folder in it, too, because the board may be inside a chroot. The holder
        // itself is not in the process namespace; its children are.
        const std::string proc = "/proc/" + std::to_string(holder_);
        Words result{"nsenter",
                     "--target",
                     std::to_string(holder_),
                     "--mount",
                     "--root",
                     "--net",
                     "--pid=" + proc + "/ns/pid_for_children",
                     "--wd=" + proc + "/root"};
        if (userNamespace(std::to_string(holder_)) != userNamespace("self"))
            result.insert(result.end(), {"--user", "--preserve-credentials"});
        result.push_back("--");
        return concat(std::move(result), command);
    }

    Words far(const Words &command) const override
    {
        return concat({"nsenter", "--net=" + root_ + "/.far", "--"}, command);
    }

private:
    std::string reach() const override
    {
        return "/proc/" + std::to_string(holder_) + "/root" + root_;
    }

    bool asUser_;
};

/// In a plain chroot, where namespaces are refused.
class Plain : public Local {
public:
    Plain(std::string rootfs, std::string machine)
        : Local(plain, std::move(rootfs), std::move(machine)), life_(makePipe())
    {
    }
    explicit Plain(const Words &words) : Local(plain, words) {}

    Agent start() override
    {
        std::string folder = fs::temp_directory_path() / "kelo-board-XXXXXX";
        if (!mkdtemp(folder.data()))
            throw std::runtime_error("cannot make a folder for the board");
        root_ = folder;
        Agent agent =
            startProcess({"sh", builtFile("board/board-init"), kind_, rootfs_, root_, machine_},
                         life_.read.get());
        life_.read.reset();
        holder_ = agent.process;
        return agent;
    }

    std::string lacks(Ability ability) const override
    {
        return ability == Ability::Network || ability == Ability::Programs ? machinesNetwork : "";
    }

    Words inside(const Words &command) const override { return command; }

    Words far(const Words &command) const override { return command; }

private:
    std::string reach() const override { return root_; }

    Pipe life_; ///< its end ends the board
};

/// On a machine of its own, whose files and processes only the agent reaches.
class Elsewhere : public Form {
public:
    std::string lacks(Ability ability) const override
    {
        switch (ability) {
        case Ability::Files:
            return filesElsewhere;
        case Ability::FileFaults:
            return "a driver's files cannot be taken away";
        default:
            return {};
        }
    }

    std::string root() const override { return "/"; }

    std::string path(const std::string &) const override
    {
        throw std::runtime_error(filesElsewhere);
    }

    Words inside(const Words &) const override { return {}; }

    pid_t outside(pid_t pid) const override { return pid; }
};

/// A kernel of its own in an emulated machine. Its console is thrown away; the agent talks through
/// a serial port of its own.
class Booted : public Elsewhere {
public:
    explicit Booted(std::string boot) : boot_(std::move(boot)) {}

    Agent start() override
    {
        if (getenv("KELO_BOARD_DAEMON") || getenv("KELO_BOARD_SDK"))
            throw std::runtime_error("this board's daemon and libraries are part of its image");
        Agent machine = startProcess({"sh", boot_, "/init", "-serial", "null", "-device",
                                      "virtio-serial-pci", "-chardev", "stdio,id=agent,signal=off",
                                      "-device", "virtserialport,chardev=agent"});
        machine.patience = 0;
        return machine;
    }

    Words words() const override { return {"booted"}; }

    std::string lacks(Ability ability) const override
    {
        return ability == Ability::Programs
                   ? "programs of this machine do not run on the kernel of this board"
                   : Elsewhere::lacks(ability);
    }

    Words far(const Words &command) const override
    {
        return concat({"ip", "netns", "exec", "far"}, command);
    }

private:
    std::string boot_; ///< the script that starts the machine
};

/// A terminal, by ssh.
class Terminal : public Elsewhere {
public:
    /// With "watch", beside the daemon that runs there.
    Terminal(std::string what, std::string destination)
        : what_(std::move(what)), destination_(std::move(destination))
    {
    }

    Agent start() override
    {
        Agent agent = startProcess({"sh", builtFile("board/board-ssh"), what_, destination_});
        agent.patience = 20000; // the terminal's own daemon starts again
        agent.isFar = true;
        return agent;
    }

    Words words() const override { return {"terminal"}; }

    std::string lacks(Ability ability) const override
    {
        return ability == Ability::Network || ability == Ability::Programs
                   ? machinesNetwork
                   : Elsewhere::lacks(ability);
    }

    Words far(const Words &command) const override { return command; }

private:
    std::string what_;
    std::string destination_;
};

} // namespace

std::unique_ptr<Form> Form::of(const Words &words)
{
    if (words.at(0) == isolated)
        return std::make_unique<Isolated>(words);
    if (words.at(0) == plain)
        return std::make_unique<Plain>(words);
    if (words.at(0) == "terminal")
        return std::make_unique<Terminal>("", "");
    return std::make_unique<Booted>("");
}

unsigned Form::atOnce(const std::string &name, unsigned most)
{
    const std::string form = formOf(name);
    return form.starts_with(overSsh) || form.starts_with(watching) ? 1 : most;
}

std::vector<std::unique_ptr<Form>> Form::named(const std::string &name)
{
    const std::string form = formOf(name);
    std::vector<std::unique_ptr<Form>> forms;
    if (form.starts_with(overSsh) || form.starts_with(watching)) {
        const size_t end = form.find(':') + 1;
        forms.push_back(std::make_unique<Terminal>(form.starts_with(watching) ? "watch" : "board",
                                                   form.substr(end)));
        return forms;
    }
    if (form == "malta" || form == "device") {
        forms.push_back(std::make_unique<Booted>(builtFile("machine/" + form + "/boot")));
        return forms;
    }
    // A path names a root file system; a name, that of a build.
    std::string rootfs = form;
    if (form.find('/') == std::string::npos) {
        const std::string folder = form == "host" ? "rootfs" : form + "/rootfs";
        try {
            const std::string file = builtFile(folder + device::daemonPath);
            rootfs = file.substr(0, file.size() - strlen(device::daemonPath));
        } catch (const std::runtime_error &) {
            throw std::runtime_error("no board of the form \"" + form + "\" is built here");
        }
    } else if (!fs::exists(rootfs + device::daemonPath)) {
        throw std::runtime_error("no board to start in " + rootfs + ": build it first");
    }
    const std::string cpu = form.substr(0, form.find('-'));
    const std::string machine = cpu.starts_with("mips") ? cpu
                                : cpu == "arm64"        ? "aarch64"
                                : cpu == "armhf"        ? "arm"
                                                        : "";
    // Only a user namespace can have an emulator of its own for programs of another machine; where
    // root is refused one, the board gets by without.
    const bool isRoot = geteuid() == 0;
    if (!isRoot || !machine.empty())
        forms.push_back(std::make_unique<Isolated>(rootfs, machine, true));
    if (isRoot) {
        forms.push_back(std::make_unique<Isolated>(rootfs, machine, false));
        forms.push_back(std::make_unique<Plain>(rootfs, machine));
    }
    return forms;
}

std::string builtFile(const std::string &path)
{
    for (fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
         folder.has_relative_path(); folder = folder.parent_path()) {
        for (const fs::path &file : {folder / path, folder / "lib/kelo-board" / path}) {
            if (fs::exists(file))
                return file;
        }
    }
    throw std::runtime_error("there is no " + path + " beside this program: build it first");
}

std::string namespaceAdvice()
{
    const auto is = [](const char *path, int value) {
        return access(path, R_OK) == 0 && atoi(readFile(path).c_str()) == value;
    };
    if (geteuid() == 0)
        return "root here lacks the right to make namespaces (CAP_SYS_ADMIN): start the container "
               "with it, or run outside the container";
    if (is("/proc/sys/kernel/unprivileged_userns_clone", 0))
        return "user namespaces are off: sysctl kernel.unprivileged_userns_clone=1, or run as root";
    if (is("/proc/sys/user/max_user_namespaces", 0))
        return "user namespaces are off: sysctl user.max_user_namespaces=15000, or run as root";
    if (is("/proc/sys/kernel/apparmor_restrict_unprivileged_userns", 1))
        return "user namespaces are restricted: sysctl "
               "kernel.apparmor_restrict_unprivileged_userns=0, or run as root";
    return "user namespaces are refused, as they are inside a chroot: run as root";
}

} // namespace kelo
