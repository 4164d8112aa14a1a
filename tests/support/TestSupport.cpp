#include "TestSupport.h"

#include "Platform.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

namespace testsupport {

ScopedEnv::ScopedEnv(const std::string& variable, const std::optional<std::string>& value)
    : name(variable), previous(Platform::getEnv(variable)) {
    if (value) {
        Platform::setEnv(name, *value);
    } else {
        Platform::unsetEnv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (previous) {
        Platform::setEnv(name, *previous);
    } else {
        Platform::unsetEnv(name);
    }
}

namespace {
std::atomic<long long> gFixedSeconds{0};
std::chrono::system_clock::time_point fixedNow() {
    return std::chrono::system_clock::time_point(std::chrono::seconds(gFixedSeconds.load()));
}
void applyTimeZone() {
#ifdef _WIN32
    _tzset();
#else
    tzset();
#endif
}
} // namespace

FixedClock::FixedClock(long long epochSeconds) : tz("TZ", std::string("UTC")) {
    applyTimeZone();
    gFixedSeconds = epochSeconds;
    BaseLogger::setClock(&fixedNow);
}

FixedClock::~FixedClock() {
    BaseLogger::setClock(nullptr);
}

long long utcEpoch(int year, int month, int day, int hour, int minute, int second) {
    // Days from civil, so the result needs no time zone.
    year -= month <= 2 ? 1 : 0;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const long long yoe = year - era * 400;
    const long long doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const long long days = era * 146097 + doe - 719468;
    return days * 86400 + hour * 3600 + minute * 60 + second;
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

bool CapturingLogger::contains(const std::string& text) {
    return count(text) > 0;
}

bool CapturingLogger::contains(const std::string& text, MessageType type) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(captured.begin(), captured.end(), [&](const CapturedLine& line) {
        return line.type == type && (line.tag + line.message).find(text) != std::string::npos;
    });
}

std::size_t CapturingLogger::count(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count_if(captured.begin(), captured.end(), [&](const CapturedLine& line) {
        return (line.tag + line.message).find(text) != std::string::npos;
    });
}

void CapturingLogger::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
}

TempDir::TempDir() {
    std::random_device random;
    const auto base = std::filesystem::temp_directory_path();
    std::filesystem::path candidate;
    std::error_code error;
    do {
        candidate = base / ("merid-test-" + std::to_string(random()));
    } while (!std::filesystem::create_directory(candidate, error));
    dir = candidate.string();
}

TempDir::~TempDir() {
    std::error_code error;
    std::filesystem::remove_all(dir, error);
}

bool writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::optional<Bytes> readFile(const std::string& path) {
    std::ifstream in(std::filesystem::u8path(path), std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace testsupport
