/// What a person at a running board can do: turn its simulated hardware, press its button, write to
/// its display pipe, run programs in its network. The board's agent does it; where it can be had,
/// the files behind it are plain ones too, so that a shell in the board can do the same.
///
/// What cannot be done is thrown as std::runtime_error.

#pragma once

#include "link.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelo {

class Access {
public:
    explicit Access(std::shared_ptr<Link> link) : link_(std::move(link)) {}

    const Form &form() const { return link_->form(); }
    /// Throws, with the reason, where the board does not have something.
    void require(Ability ability) const;

    /// A path of the board's file system as this process reaches it.
    std::string path(const std::string &boardPath) const { return form().path(boardPath); }

    /// Received optical power in dBm, or whatever text the reading shall be; empty for no reading.
    void setLaser(const std::string &dbm) const;
    /// GPON ONU state; 5 is link up.
    void setGpon(int state) const;
    /// Byte counters of port 1 to 7.
    void setPort(int port, unsigned long long in, unsigned long long out) const;
    /// Makes a port unreadable.
    void removePort(int port) const;
    /// The reset button's value; 0 is up.
    void setButton(int value) const;

    /// Writes into the display pipe, opened for this one write.
    void writeKeyword(const std::string &text) const;

    /// An attribute of the configuration store, nothing when it was never set.
    std::optional<std::string> stored(const std::string &node, const std::string &attribute) const;

    /// A whole file of the board, nothing when it cannot be read.
    std::optional<std::string> read(const std::string &boardPath) const;
    /// Replaces a file of the board in one step.
    void put(const std::string &boardPath, const std::string &text) const;
    /// Removes a file or an empty folder.
    void remove(const std::string &boardPath) const;
    void makeFolder(const std::string &boardPath) const;
    /// What a folder holds; nothing when there is none.
    std::vector<std::string> list(const std::string &boardPath) const;
    /// Its type, 'f', 'd' or 'p' for a pipe, and its mode in octal: "f 644"; empty when it is not
    /// there.
    std::string statusOf(const std::string &boardPath) const;
    /// Where a symbolic link leads; empty when it is none.
    std::string linkOf(const std::string &boardPath) const;

    /// A command line that runs in the board's network, with this machine's files.
    std::vector<std::string> inside(const std::vector<std::string> &command) const;
    /// Runs such a command to its end; where only the agent can run it, with the board's files.
    Result exec(const std::vector<std::string> &command) const;
    /// The same with what the agent's command prints as it comes; its exit status.
    int exec(const std::vector<std::string> &command, const Printed &printed) const;

    /// The daemon's process as this machine numbers it; nothing while none runs.
    std::optional<pid_t> daemon() const;
    /// The daemon's folder in the board's /proc; empty while none runs.
    std::string daemonFolder() const;
    /// A file of it, such as "status".
    std::string daemonFile(const std::string &name) const;
    /// "running", "stopped", "zombie" or "ended".
    std::string daemonState() const;
    /// Sends the daemon a signal; false when none runs.
    bool signalDaemon(int signal) const;

    /// Sends the agent a request and waits for its answer; see agent/main.cpp for the verbs.
    Words ask(const Words &request) const { return link_->ask(request); }

protected:
    std::shared_ptr<Link> link_;
};

/// A signal's name as the agent takes it: "TERM".
std::string signalName(int signal);

} // namespace kelo
