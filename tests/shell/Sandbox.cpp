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

std::string Sandbox::runtimeShare(const std::string& stem) const {
    return tmp() + "/MeridKestalUtility-runtime-" + stem + "/share";
}

ProgramRun::Environment Sandbox::environment() const {
    return {
        {"TMPDIR", tmp()},
        {"HOME", home()},
        {"MERID_LOG_PATH", logPath()},
        {"MERID_UI_GLADE", std::nullopt},
        {"MERID_LOG_DIR", root()},
        {"MERID_CRASH_PROBE", std::nullopt},
        {"XDG_STATE_HOME", std::nullopt},
        {"XDG_DATA_HOME", std::nullopt},
        {"XDG_CONFIG_HOME", std::nullopt},
        {"XDG_CACHE_HOME", std::nullopt},
        {"GSETTINGS_SCHEMA_DIR", std::nullopt},
        {"GTK_DATA_PREFIX", std::nullopt},
        {"LANG", "C.UTF-8"},
        {"NO_AT_BRIDGE", "1"},
    };
}

} // namespace programtest
