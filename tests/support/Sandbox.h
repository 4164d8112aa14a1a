#pragma once

#include "ProgramRun.h"

#include <string>

namespace programtest {

// A fresh directory for one run of the program: its own temporary directory
// (tmp/), home (home/) and early log (early.log). Removed with the object
// unless MERID_KEEP_SANDBOX is set.
class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& root() const { return rootDir; }
    std::string tmp() const { return rootDir + "/tmp"; }
    std::string home() const { return rootDir + "/home"; }
    std::string logPath() const { return rootDir + "/early.log"; }

    // TMPDIR, HOME and MERID_LOG_PATH pointing here; the program's other
    // variables and the XDG ones that would lead elsewhere removed.
    ProgramRun::Environment environment() const;

private:
    std::string rootDir;
};

} // namespace programtest
