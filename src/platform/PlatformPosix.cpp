#include "Platform.h"

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <execinfo.h>
#include <unistd.h>

namespace Platform {
namespace {

constexpr int kSignalSlots = 65;
constexpr std::array<int, 4> kFaultSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};

// Read once, before main can change it.
const std::string gInheritedDataDirs = [] {
    const char* value = std::getenv("XDG_DATA_DIRS");
    return (value != nullptr && *value != '\0') ? std::string(value)
                                                : std::string("/usr/local/share:/usr/share");
}();

std::atomic<FaultReporter> gFaultReporter{nullptr};
std::array<std::atomic<SignalReporter>, kSignalSlots> gSignalReporters{};

bool isFaultSignal(int signalNumber) {
    for (int fault : kFaultSignals) {
        if (fault == signalNumber) {
            return true;
        }
    }
    return false;
}

void reportFault(int signalNumber) {
    FaultReporter reporter = gFaultReporter.load();
    if (reporter == nullptr) {
        return;
    }
    void* frames[kMaxCrashFrames];
    int count = ::backtrace(frames, kMaxCrashFrames);
    reporter(static_cast<unsigned long>(signalNumber), frames, count < 0 ? 0 : count);
}

void onFault(int signalNumber, siginfo_t*, void*) {
    reportFault(signalNumber);
    ::_exit(128 + signalNumber);
}

void onSignal(int signalNumber, siginfo_t* info, void*) {
    // A positive code means the kernel raised it for this thread's own fault;
    // kill() and raise() give zero or a negative code and carry no fault.
    if (isFaultSignal(signalNumber) && info != nullptr && info->si_code > 0) {
        reportFault(signalNumber);
    }
    SignalReporter reporter = nullptr;
    if (signalNumber > 0 && signalNumber < kSignalSlots) {
        reporter = gSignalReporters[static_cast<std::size_t>(signalNumber)].load();
    }
    if (reporter != nullptr) {
        reporter(signalNumber);
    }
    ::_exit(128 + signalNumber);
}

// A stack overflow leaves no stack to run a handler on.
void ensureAlternateSignalStack() {
    stack_t current{};
    if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
        return;
    }
    static char stackMemory[64 * 1024];
    stack_t stack{};
    stack.ss_sp = stackMemory;
    stack.ss_size = sizeof(stackMemory);
    ::sigaltstack(&stack, nullptr);
}

void installAction(int signalNumber, void (*action)(int, siginfo_t*, void*)) {
    struct sigaction sa {};
    sa.sa_sigaction = action;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&sa.sa_mask);
    ::sigaction(signalNumber, &sa, nullptr);
}

} // namespace

std::optional<std::string> localTimeText(std::time_t seconds) {
    char buffer[64];
    if (ctime_r(&seconds, buffer) == nullptr) {
        return std::nullopt;
    }
    return std::string(buffer);
}

bool utcTime(std::time_t seconds, std::tm& out) {
    return gmtime_r(&seconds, &out) != nullptr;
}

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

void unsetEnv(const std::string& name) {
    ::unsetenv(name.c_str());
}

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

char pathListSeparator() {
    return ':';
}

std::string dataDirsWith(const std::string& dir) {
    return dir + ":" + gInheritedDataDirs;
}

void installFaultReporter(FaultReporter reporter) {
    // The first backtrace() loads the unwinder; do that now, not in a handler.
    void* warmUp[1];
    ::backtrace(warmUp, 1);
    ensureAlternateSignalStack();
    gFaultReporter = reporter;
    for (int signalNumber : kFaultSignals) {
        installAction(signalNumber, &onFault);
    }
}

void installSignalReporter(int signalNumber, SignalReporter reporter) {
    if (signalNumber <= 0 || signalNumber >= kSignalSlots) {
        return;
    }
    gSignalReporters[static_cast<std::size_t>(signalNumber)] = reporter;
    installAction(signalNumber, &onSignal);
}

int abortSignalNumber() {
    return SIGABRT;
}

int segmentationFaultSignalNumber() {
    return SIGSEGV;
}

void exitImmediately(int code) {
    ::_exit(code);
}

} // namespace Platform
