#pragma once

#include "BaseLogger.h"
#include "LoggerManager.h"
#include "TestBasics.h"

#include <mutex>
#include <optional>

namespace testsupport {

// Sets an environment variable (nullopt removes it) for the life of the
// object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(const std::string& name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name;
    std::optional<std::string> previous;
};

// Points the system's temporary directory at `dir` (TMPDIR on POSIX, TMP and
// TEMP on Windows) while the object lives.
struct ScopedTempDirEnv {
    explicit ScopedTempDirEnv(const std::string& dir)
        : tmpdir("TMPDIR", dir), tmp("TMP", dir), temp("TEMP", dir) {}
    ScopedEnv tmpdir, tmp, temp;
};

// Pins the loggers' clock to one instant (seconds since the epoch) and the
// time zone to UTC while the object lives.
class FixedClock {
public:
    explicit FixedClock(long long epochSeconds);
    ~FixedClock();

private:
    ScopedEnv tz;
};

// Seconds since the epoch of a UTC calendar time.
long long utcEpoch(int year, int month, int day, int hour, int minute, int second);

struct CapturedLine {
    std::string message;
    BaseLogger::MessageType type;
    std::string tag;
};

// A sink that keeps every report, put in place of the console sink while it
// lives, with the manager set to that sink alone at level FULL. Text is
// looked for in the tag and message together, of any type unless one is given.
class CapturingLogger : public BaseLogger {
public:
    CapturingLogger();
    ~CapturingLogger() override;
    void log(const std::string& message, MessageType type, const std::string& tag) override;

    std::vector<CapturedLine> lines();
    std::size_t count(const std::string& text, std::optional<MessageType> type = std::nullopt);
    bool contains(const std::string& text, std::optional<MessageType> type = std::nullopt) {
        return count(text, type) > 0;
    }
    void clear();

private:
    std::mutex mutex;
    std::vector<CapturedLine> captured;
};

} // namespace testsupport

// Bytes of an image, the same in every build and run.
inline testsupport::Bytes linkImage(std::size_t size, std::uint32_t seed) {
    testsupport::Bytes bytes(size);
    for (auto& byte : bytes) {
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        byte = static_cast<std::uint8_t>(seed);
    }
    return bytes;
}
