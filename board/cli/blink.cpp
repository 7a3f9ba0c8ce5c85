#include "blink.h"

#include <algorithm>

namespace kelo {

BeatWatch::BeatWatch(Beat beat, Clock::time_point start, std::string showing)
    : beat_(std::move(beat)), steadySince_(start), shownSince_(start), showing_(std::move(showing))
{
}

void BeatWatch::see(Clock::time_point time, const std::string &pattern)
{
    if (pattern == showing_)
        return;
    judge(time);
    before_ = showing_;
    showing_ = pattern;
    shownSince_ = time;
    partial_ = false;
}

/// Looks whether the pattern that ends now was shown for the right time.
void BeatWatch::judge(Clock::time_point end)
{
    const size_t count = beat_.patterns.size();
    const double share =
        std::chrono::duration<double>(beat_.period).count() / static_cast<double>(count);
    const double shown = std::chrono::duration<double>(end - shownSince_).count();
    bool good = shown <= share * (1 + beat_.tolerance) &&
                (partial_ || shown >= share * (1 - beat_.tolerance));

    // In a cycle that shows a pattern twice, what came before tells them apart.
    bool follows = false;
    for (size_t i = 0; i < count; i++)
        follows |= beat_.patterns[i] == showing_ &&
                   (before_.empty() || before_ == beat_.patterns[(i + count - 1) % count]);
    good &= follows;

    if (!good) {
        steadySince_ = end;
        showing_.clear(); // the next one may be any of them
        return;
    }
    kept_ |= end - steadySince_ >= beat_.length;
}

} // namespace kelo
