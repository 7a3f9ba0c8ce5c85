#include "button.h"

#include <chrono>

namespace kelo {

ResetButton::ResetButton(const Access &board) : board_(board), counter_(&ResetButton::count, this)
{
}

ResetButton::~ResetButton()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
    counter_.join();
}

void ResetButton::setSpeed(int speed)
{
    const std::lock_guard lock(mutex_);
    speed_ = speed;
}

void ResetButton::hold()
{
    const std::lock_guard lock(mutex_);
    if (value_ > 0)
        return;
    board_.setButton(1);
    value_ = 1;
    changed_.notify_all();
}

void ResetButton::release()
{
    const std::lock_guard lock(mutex_);
    board_.setButton(0);
    value_ = 0;
    changed_.notify_all();
}

void ResetButton::count()
{
    std::unique_lock lock(mutex_);
    while (!ending_) {
        const bool held = value_ > 0;
        if (!held) {
            changed_.wait(lock);
            continue;
        }
        const bool moved = changed_.wait_for(lock, std::chrono::nanoseconds(1000000000) / speed_,
                                             [this] { return ending_ || value_ == 0; });
        if (moved)
            continue;
        try {
            board_.setButton(value_ + 1);
        } catch (const std::exception &) {
            // The button's folder is gone: as good as stuck.
        }
        value_++;
    }
}

} // namespace kelo
