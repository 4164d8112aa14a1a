#include "Sandbox.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace programtest {

Sandbox::Sandbox() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/merid-program-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    rootDir = pattern;
    std::filesystem::create_directories(tmp());
    std::filesystem::create_directories(home());
}

Sandbox::~Sandbox() {
    if (std::getenv("MERID_KEEP_SANDBOX") == nullptr) {
        std::error_code ignored;
        std::filesystem::remove_all(rootDir, ignored);
    }
}

ProgramRun::Environment Sandbox::environment() const {
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

} // namespace programtest
