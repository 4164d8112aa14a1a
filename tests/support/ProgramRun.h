#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>

namespace programtest {

struct ProgramExit {
    bool exited = false; // ended by exit() or _exit()
    int exitCode = -1;   // when exited
    int termSignal = 0;  // when killed by a signal instead
};

// A program started as a child process with the test's environment plus
// `overrides` (nullopt removes a variable); its standard output and error go
// to files in `outputDir`. A child still running at the end is killed.
class ProgramRun {
public:
    using Environment = std::map<std::string, std::optional<std::string>>;

    ProgramRun(const std::string& executable, const Environment& overrides, const std::string& outputDir);
    ~ProgramRun();
    ProgramRun(const ProgramRun&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;

    pid_t pid() const { return childPid; }
    bool started() const { return childPid > 0; }
    void sendSignal(int signalNumber);
    // How the child ended, or nothing while it still runs after `timeout`.
    std::optional<ProgramExit> wait(std::chrono::milliseconds timeout);
    std::string standardError() const;
    std::string standardOutput() const;

private:
    pid_t childPid = -1;
    std::optional<ProgramExit> result;
    std::string outputDir;
};

std::string readFile(const std::string& path);

} // namespace programtest
