#include "BaseLogger.h"

#include "Platform.h"

#include <atomic>
#include <stdexcept>

namespace {

std::chrono::system_clock::time_point systemNow() {
    return std::chrono::system_clock::now();
}

std::atomic<BaseLogger::Clock> gClock{&systemNow};

} // namespace

void BaseLogger::setClock(Clock clock) {
    gClock.store(clock != nullptr ? clock : &systemNow);
}

void BaseLogger::TimeDescription::updateTime() {
    // Whole seconds since the epoch, as the ctime family's fixed text.
    auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(gClock.load()().time_since_epoch()).count();
    auto seconds = static_cast<std::time_t>(nanoseconds / 1000000000);
    auto text = Platform::localTimeText(seconds);
    if (!text) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    // The units digit of the day and the blank behind it; the blank goes.
    day = text->substr(9, 2);
    auto blank = day.find(' ');
    if (blank != std::string::npos && blank != 0) {
        day.erase(blank, 1);
    }
    // Month, year and the time of day.
    month = text->substr(4, 3);
    year = text->substr(20, 4);
    time = text->substr(11, 8);
}
