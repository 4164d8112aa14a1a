#pragma once

#include "TestBasics.h"

#include <sys/types.h>

#include <map>
#include <optional>

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
    // How the child ended, or nothing while it still runs after `timeout`.
    std::optional<ProgramExit> wait(std::chrono::milliseconds timeout);
    std::string standardOutput() const { return testsupport::readFile(outputDir + "/stdout.txt"); }
    std::string standardError() const { return testsupport::readFile(outputDir + "/stderr.txt"); }

private:
    pid_t childPid = -1;
    std::optional<ProgramExit> result;
    std::string outputDir;
};

// A fresh directory for one run of the program: its own temporary directory
// (tmp/), home (home/) and early log (early.log).
class Sandbox : public testsupport::TempDir {
public:
    Sandbox() {
        std::filesystem::create_directories(tmp());
        std::filesystem::create_directories(home());
    }
    const std::string& root() const { return path(); }
    std::string tmp() const { return root() + "/tmp"; }
    std::string home() const { return root() + "/home"; }
    std::string logPath() const { return root() + "/early.log"; }

    // TMPDIR, HOME and MERID_LOG_PATH pointing here; the program's other
    // variables and the XDG ones that would lead elsewhere removed.
    ProgramRun::Environment environment() const {
        ProgramRun::Environment environment = {
            {"TMPDIR", tmp()},         {"HOME", home()},    {"MERID_LOG_PATH", logPath()},
            {"MERID_LOG_DIR", root()}, {"LANG", "C.UTF-8"}, {"NO_AT_BRIDGE", "1"},
        };
        for (const char* name :
             {"MERID_UI_GLADE", "MERID_CRASH_PROBE", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME",
              "XDG_CACHE_HOME", "GSETTINGS_SCHEMA_DIR", "GTK_DATA_PREFIX"}) {
            environment[name] = std::nullopt;
        }
        return environment;
    }
};

} // namespace programtest
