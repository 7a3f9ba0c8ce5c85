/// What a person at a running board can do: turn its simulated hardware, press its button, write to
/// its display pipe, run programs in its network. The board's agent does it; where it can be had,
/// the files behind it are plain ones too, so that a shell in the board can do the same.
///
/// What cannot be done is thrown as std::runtime_error.

#pragma once

#include "device.h"
#include "form.h"
#include "link.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelo {

class Access {
public:
    Access(std::shared_ptr<const Form> form, std::shared_ptr<Link> link)
        : form_(std::move(form)), link_(std::move(link))
    {
    }

    /// Sends a request and waits for its answer; see agent/main.cpp for the verbs.
    Words ask(const Words &request, Clock::duration limit = requestLimit) const
    {
        return link_->ask(request, {}, limit);
    }
    /// The answer's words as one text; nothing when the agent says that there is none.
    std::optional<std::string> attempt(const Words &request) const;

    /// To ask without waiting.
    Link &link() const { return *link_; }
    /// Handles what happens, for some time at the most.
    void turn(Clock::duration time) const { link_->loop().turn(Clock::now() + time); }

    const Form &form() const { return *form_; }
    /// Throws, with the reason, where the board does not have something.
    void require(Ability ability) const;

    /// A path of the board's file system as this process reaches it.
    std::string path(const std::string &boardPath) const { return form().path(boardPath); }

    /// Received optical power in dBm, or whatever text the reading shall be; empty for no reading.
    void setLaser(const std::string &dbm) const { put(device::laserPath, dbm + "\n"); }
    /// GPON ONU state; 5 is link up.
    void setGpon(int state) const { put(device::gponPath, std::to_string(state) + "\n"); }
    /// Byte counters of port 1 to 7.
    void setPort(int port, unsigned long long in, unsigned long long out) const
    {
        ask(portRequest(port, in, out));
    }
    static Words portRequest(int port, unsigned long long in, unsigned long long out);
    /// Makes a port unreadable.
    void removePort(int port) const;
    /// The reset button's value; 0 is up.
    void setButton(int value) const { ask({"button", std::to_string(value)}); }

    /// Writes into the display pipe, opened for this one write.
    void writeKeyword(const std::string &text) const { ask({"keyword", text}); }

    /// An attribute of the configuration store, nothing when it was never set.
    std::optional<std::string> stored(const std::string &node, const std::string &attribute) const;

    /// A whole file of the board, nothing when it cannot be read.
    std::optional<std::string> read(const std::string &path) const
    {
        return attempt({"read", path});
    }
    /// Replaces a file of the board in one step.
    void put(const std::string &path, const std::string &text) const { ask({"put", path, text}); }
    /// Removes a file or an empty folder.
    void remove(const std::string &path) const { ask({"remove", path}); }
    void makeFolder(const std::string &path) const { ask({"folder", path}); }
    /// What a folder holds; nothing when there is none.
    std::vector<std::string> list(const std::string &path) const;
    /// Its type, 'f', 'd' or 'p' for a pipe, and its mode in octal: "f 644"; empty when it is not
    /// there.
    std::string statusOf(const std::string &path) const
    {
        return attempt({"stat", path}).value_or("");
    }
    /// Where a symbolic link leads; empty when it is none.
    std::string linkOf(const std::string &path) const
    {
        return attempt({"link", path}).value_or("");
    }

    /// A command line that runs in the board's network, with this machine's files; none where only
    /// the agent can run it.
    Words inside(const Words &command) const { return form().inside(command); }
    /// Runs such a command to its end; where only the agent can run it, with the board's files.
    Result exec(const Words &command) const;
    /// The same with what the agent's command prints as it comes; its exit status.
    int exec(const Words &command, const Printed &printed) const;

    /// The daemon's process as this machine numbers it; nothing while none runs.
    std::optional<pid_t> daemon() const;
    /// The daemon's folder in the board's /proc; empty while none runs.
    std::string daemonFolder() const;
    /// "running", "stopped", "zombie" or "ended".
    std::string daemonState() const { return daemonState(ask({"daemon"})); }
    /// The same of the answer to that request.
    static std::string daemonState(const Words &answer);
    /// Sends the daemon a signal; false when none runs.
    bool signalDaemon(int signal) const;

protected:
    Access() = default;

    std::shared_ptr<const Form> form_;
    std::shared_ptr<Link> link_;
};

/// A signal's name as the agent takes it: "TERM".
std::string signalName(int signal);

} // namespace kelo
