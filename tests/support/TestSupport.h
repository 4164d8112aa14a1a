#pragma once

#include "BaseLogger.h"
#include "LoggerManager.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

// Sets an environment variable for the life of the object, then restores it.
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
class ScopedTempDirEnv {
public:
    explicit ScopedTempDirEnv(const std::string& dir)
        : tmpdir("TMPDIR", dir), tmp("TMP", dir), temp("TEMP", dir) {}

private:
    ScopedEnv tmpdir;
    ScopedEnv tmp;
    ScopedEnv temp;
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
// lives, with the manager set to that sink alone at level FULL.
class CapturingLogger : public BaseLogger {
public:
    CapturingLogger();
    ~CapturingLogger() override;
    void log(const std::string& message, MessageType type, const std::string& tag) override;

    std::vector<CapturedLine> lines();
    bool contains(const std::string& text);
    bool contains(const std::string& text, MessageType type);
    std::size_t count(const std::string& text);
    void clear();

private:
    std::mutex mutex;
    std::vector<CapturedLine> captured;
};

// A fresh directory under the temporary directory, removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return dir; }

private:
    std::string dir;
};

using Bytes = std::vector<std::uint8_t>;

// Writes `bytes` to `path`, replacing the file; false when it cannot.
bool writeFile(const std::string& path, const Bytes& bytes);
// The whole file, or nothing when it cannot be read.
std::optional<Bytes> readFile(const std::string& path);

// Polls `done` every two milliseconds until it holds or `timeout` passes;
// what it returned last.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(20));

} // namespace testsupport
