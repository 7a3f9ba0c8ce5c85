/// What a person at a running board can do: turn its simulated hardware, press its button, write to
/// its display pipe, run programs in its network. The files behind it are plain ones, so a shell in
/// the board can do the same.

#pragma once

#include "process.h"

#include <optional>
#include <string>
#include <vector>

namespace kelo {

/// Where a running board is.
struct Place {
    pid_t holder = -1;     ///< the process that holds the board's namespaces
    std::string root;      ///< the board's root folder, as the holder sees it
    bool isolated = false; ///< in namespaces of its own, or on the machine's network
};

class Access {
public:
    explicit Access(Place place) : place_(std::move(place)) {}

    const Place &place() const { return place_; }

    /// A path of the board's file system as this process reaches it.
    std::string path(const std::string &boardPath) const;

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
    /// Replaces a file of the board in one step. Throws std::system_error.
    void put(const std::string &boardPath, const std::string &text) const;

    /// Writes into the display pipe, opened for this one write. Throws std::system_error when there
    /// is no pipe or nobody reads it.
    void writeKeyword(const std::string &text) const;

    /// An attribute of the configuration store, nothing when it was never set.
    std::optional<std::string> stored(const std::string &node, const std::string &attribute) const;

    /// A command line that runs in the board's network, with this machine's files.
    std::vector<std::string> inside(const std::vector<std::string> &command) const;
    /// Runs such a command to its end.
    Result exec(const std::vector<std::string> &command) const;

    /// The daemon's process as its machine numbers it; nothing while none runs.
    std::optional<pid_t> daemon() const;
    /// A file of the daemon's folder in /proc, such as "status".
    std::string daemonFile(const std::string &name) const;
    /// "running", "stopped", "zombie" or "ended".
    std::string daemonState() const;
    /// Sends the daemon a signal; false when none runs.
    bool signalDaemon(int signal) const;

    /// Whether the board is a machine of its own, of which this one sees some folders only.
    bool isMachine() const;

protected:
    /// A command line that runs in the board's network and on its files.
    std::vector<std::string> insideRoot(const std::vector<std::string> &command) const;

    Place place_;
};

} // namespace kelo
