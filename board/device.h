/// What the device is, written down once for everything that simulates, shows or tests it.
/// Plain C++14, because the program beside the daemon uses it too.

#pragma once

namespace kelo {
namespace device {

/// The LEDs' GPIO lines in the order in which the daemon writes them; the last ends a frame.
constexpr int ledGpios[] = {6, 7, 8, 2, 3, 4};

/// The display modes' keywords; a mode's number is its place.
constexpr const char *modeKeywords[] = {"none",     "signal",  "reboot",   "restore",    "errora12",
                                        "locateme", "ledtest", "facttest", "facttesterr"};

/// The ports' names; a port's number is its place, counted from 1.
constexpr const char *portNames[] = {"lan1", "lan2", "lan3", "lan4", "wan", "wifi2", "wifi5"};
constexpr int portCount = sizeof portNames / sizeof *portNames;

constexpr int gponUp = 5;                                 ///< the GPON ONU state that is link up
constexpr double noSignalDbm = -40;                       ///< no signal from here on down
constexpr double levelThresholds[] = {-28, -25, -11, -8}; ///< where the levels 1 to 4 begin
constexpr int pressSeconds = 2; ///< how long a press takes that the daemon surely sees
constexpr int restoreValue = 5; ///< the button's value that restores the defaults

/// What the daemon keeps in the configuration store.
constexpr char statusNode[] = "Kelo_Ipv6Status";
constexpr const char *storeAttributes[] = {"lanAddress", "lanAddressLen", "wanAddress",
                                           "wanAddressLen", "wanGateway"};

constexpr char daemonPath[] = "/usr/sbin/kelo-monitord";
constexpr char ledPath[] = "/proc/tc3162/gpio_output";
constexpr char buttonPath[] = "/proc/tc3162/reset_button";
constexpr char runFolder[] = "/var/run";
constexpr char displayPath[] = "/var/run/kelo-monitord.display";
constexpr char snapshotPath[] = "/var/run/kelo-monitord.netinfo";

// Of the simulated board: the hardware behind the vendor's libraries.
constexpr char hardwareFolder[] = "/board";
constexpr char laserPath[] = "/board/laser_rx_dbm";
constexpr char gponPath[] = "/board/gpon_state";
constexpr char portsFolder[] = "/board/ports/";
constexpr char storeFolder[] = "/board/store/";
/// The LED lines once more, by a name that stays: what the libraries and omci are called for is
/// noted there, a line each that begins with noteMark.
constexpr char channelPath[] = "/dev/channel";
constexpr char noteMark = '\036';

} // namespace device
} // namespace kelo
