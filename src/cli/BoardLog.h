#pragma once

#include "BaseLogger.h"

#include <deque>
#include <functional>
#include <mutex>
#include <string>

// Where the reports of the libraries go in merid-flash: in place of the
// console sink, each line handed on as text, the problems kept so that a
// failure can be told in the words of the log: the last kKeptProblems of
// them, however many a flood brings, with the count of all. While it lives
// it is the manager's only sink, at the full level.
class BoardLog : public BaseLogger {
public:
    using Writer = std::function<void(const std::string& line)>;
    static constexpr std::size_t kKeptProblems = 256;

    explicit BoardLog(Writer writer);
    ~BoardLog() override;
    BoardLog(const BoardLog&) = delete;
    BoardLog& operator=(const BoardLog&) = delete;

    void log(const std::string& message, MessageType type, const std::string& tag) override;

    // The number of warnings and errors so far, and the last of them (its
    // message alone), empty when there was none.
    unsigned problemCount();
    std::string lastProblem();
    // The first problem still kept whose message begins with `start`, from
    // the `from`-th on; empty when none.
    std::string problemStartingWith(const std::string& start, unsigned from);

private:
    // True when this problem is the first one not kept.
    bool keep(const std::string& message);

    Writer writer;
    std::mutex mutex;
    // The last problems, the oldest first; `dropped` came before them.
    std::deque<std::string> problems;
    unsigned dropped = 0;
};
