/// The reset button as a finger moves it: its value is 1 at once and grows by 1 every second while
/// it is held down.

#pragma once

#include "access.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace kelo {

class ResetButton {
public:
    explicit ResetButton(const Access &board);
    ~ResetButton();
    ResetButton(const ResetButton &) = delete;
    ResetButton &operator=(const ResetButton &) = delete;

    /// The board's clock runs at a multiple of the real one.
    void setSpeed(int speed);
    void hold();
    void release();

private:
    void count();

    const Access &board_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int value_ = 0;
    int speed_ = 1;
    bool ending_ = false;
    std::thread counter_;
};

} // namespace kelo
