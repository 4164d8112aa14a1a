#pragma once

#include <cstdint>
#include <optional>
#include <string>

// What the process of one board tells its parent, one line each on its
// standard output: progress, the lines of its log, and its result last.
struct BoardEvent {
    enum class Kind { Progress, Log, Done };
    Kind kind = Kind::Log;
    unsigned percent = 0;
    std::uint64_t bytes = 0;
    bool ok = false;
    std::string text; // the log line, or the reason of a failure
};

class WorkerReport {
public:
    static std::string progress(unsigned percent, std::uint64_t bytes);
    static std::string log(const std::string& line);
    static std::string done(bool ok, const std::string& reason);
    // Nothing for a line that is none of these.
    static std::optional<BoardEvent> parse(const std::string& line);
};
