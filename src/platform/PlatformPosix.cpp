#include "Platform.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace Platform {

std::optional<std::string> localTimeText(std::time_t seconds) {
    char buffer[64];
    if (ctime_r(&seconds, buffer) == nullptr) {
        return std::nullopt;
    }
    return std::string(buffer);
}

bool utcTime(std::time_t seconds, std::tm& out) { return gmtime_r(&seconds, &out) != nullptr; }

std::string tempDirectory() {
    const char* dir = std::getenv("TMPDIR");
    std::string result = (dir != nullptr && *dir != '\0') ? dir : "/tmp";
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

std::optional<std::string> getEnv(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value);
}

bool setEnv(const std::string& name, const std::string& value) {
    return ::setenv(name.c_str(), value.c_str(), 1) == 0;
}

void unsetEnv(const std::string& name) { ::unsetenv(name.c_str()); }

std::optional<std::string> localAppDataDirectory() {
    // Logs are state, so they go where XDG puts state.
    auto state = getEnv("XDG_STATE_HOME");
    if (state && !state->empty() && state->front() == '/') {
        return *state;
    }
    auto home = getEnv("HOME");
    if (!home || home->empty()) {
        return std::nullopt;
    }
    return *home + "/.local/state";
}

std::optional<std::string> desktopDirectory() {
    auto home = getEnv("HOME");
    if (!home || home->empty()) {
        return std::nullopt;
    }
    return *home + "/Desktop";
}

std::string executablePath() {
    char buffer[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return {};
    }
    return std::string(buffer, static_cast<std::size_t>(length));
}

char pathListSeparator() { return ':'; }

} // namespace Platform
