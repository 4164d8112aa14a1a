#include "CrashProbe.h"

#include "Platform.h"

#include <stdexcept>

namespace {

// Left alone by the sanitizers, which would report the store themselves
// instead of letting the fault happen.
__attribute__((no_sanitize("address", "undefined"))) void writeThroughNull() {
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

} // namespace

void runCrashProbe() {
    const auto probe = Platform::getEnv("MERID_CRASH_PROBE");
    if (!probe) {
        return;
    }
    if (*probe == "throw") {
        throw std::runtime_error("crash probe: exception outside the guarded region");
    }
    if (*probe == "fault") {
        writeThroughNull();
    }
}
