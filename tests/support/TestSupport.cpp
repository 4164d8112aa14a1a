#include "TestSupport.h"

#include "Platform.h"

#include <algorithm>
#include <atomic>
#include <ctime>

namespace testsupport {

ScopedEnv::ScopedEnv(const std::string& variable, const std::optional<std::string>& value)
    : name(variable), previous(Platform::getEnv(variable)) {
    value ? void(Platform::setEnv(name, *value)) : Platform::unsetEnv(name);
}

ScopedEnv::~ScopedEnv() {
    previous ? void(Platform::setEnv(name, *previous)) : Platform::unsetEnv(name);
}

namespace {
std::atomic<long long> gFixedSeconds{0};
std::chrono::system_clock::time_point fixedNow() {
    return std::chrono::system_clock::time_point(std::chrono::seconds(gFixedSeconds.load()));
}
} // namespace

FixedClock::FixedClock(long long epochSeconds) : tz("TZ", std::string("UTC")) {
    tzset();
    gFixedSeconds = epochSeconds;
    BaseLogger::setClock(&fixedNow);
}

FixedClock::~FixedClock() {
    BaseLogger::setClock(nullptr);
}

long long utcEpoch(int year, int month, int day, int hour, int minute, int second) {
    using namespace std::chrono;
    const auto date = sys_days(std::chrono::year(year) / month / day).time_since_epoch();
    return duration_cast<seconds>(date + hours(hour) + minutes(minute) + seconds(second)).count();
}

CapturingLogger::CapturingLogger() {
    auto& manager = LoggerManager::getInstance();
    manager.overrideSink(LoggerManager::CONSOLE, this);
    manager.setActiveLoggers({LoggerManager::CONSOLE});
    manager.setGlobalLevel(LoggerManager::FULL);
}

CapturingLogger::~CapturingLogger() {
    auto& manager = LoggerManager::getInstance();
    manager.clearAllLoggers();
    manager.overrideSink(LoggerManager::CONSOLE, nullptr);
}

void CapturingLogger::log(const std::string& message, MessageType type, const std::string& tag) {
    std::lock_guard<std::mutex> lock(mutex);
    captured.push_back({message, type, tag});
}

std::vector<CapturedLine> CapturingLogger::lines() {
    std::lock_guard<std::mutex> lock(mutex);
    return captured;
}

std::size_t CapturingLogger::count(const std::string& text, std::optional<MessageType> type) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count_if(captured.begin(), captured.end(), [&](const CapturedLine& line) {
        return (!type || line.type == *type) && (line.tag + line.message).find(text) != std::string::npos;
    });
}

void CapturingLogger::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
}

} // namespace testsupport
