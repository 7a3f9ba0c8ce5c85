/// What the front panel knows of a board, gathered from its events.

#pragma once

#include "board.h"
#include "device.h"

#include <deque>
#include <map>
#include <optional>
#include <string>

namespace kelo::panel {

using namespace device;

struct Traffic {
    bool readable = false;
    std::deque<long long> in; ///< bytes in each of the last seconds, the latest last
    std::deque<long long> out;
};

struct LogLine {
    Clock::time_point time;
    std::string text; ///< printable ASCII only
};

/// What the daemon did about the button; it looks at it no more after that.
enum class ButtonOutcome { None, Reboot, Restore };

class State {
public:
    static constexpr size_t HISTORY = 240;
    static constexpr size_t LOG_LINES = 5000;

    void take(const Event &event);

    std::string leds = "??????";
    std::optional<int> mode; ///< none before the daemon's first switch
    Clock::time_point modeSince;
    std::string laser;
    std::string gpon;
    int button = 0;
    Clock::time_point buttonSince; ///< of its value
    ButtonOutcome outcome = ButtonOutcome::None;
    std::map<std::string, std::string> store; ///< of the node Kelo_Ipv6Status
    std::map<std::string, Traffic> ports;
    std::deque<LogLine> log;
    size_t logged = 0; ///< lines ever, also those that were dropped
    bool running = false;
    std::string exit; ///< how the daemon ended last

private:
    void takeLog(const Event &event);
    void takeStore(const std::string &text);
    void takeSnapshot(const std::string &text);
};

/// Received power as a number; nothing without a reading.
std::optional<double> toPower(const std::string &laser);
/// The level, 0 to 4, that the daemon takes a power for; -1 when it takes it for no signal.
int levelOf(std::optional<double> power);

/// A text with everything but printable ASCII spelled out, so that no terminal minds it.
std::string printable(const std::string &text);

} // namespace kelo::panel
