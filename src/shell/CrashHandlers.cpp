#include "CrashHandlers.h"

#include "EarlyLog.h"
#include "Platform.h"

#include <cstdlib>
#include <exception>
#include <sstream>

namespace {

void reportFault(unsigned long code, void* const* frames, int frameCount) {
    std::ostringstream header;
    header << "Unhandled exception code=0x" << std::hex << code;
    writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, header.str());
    for (int index = 0; index < frameCount; ++index) {
        std::ostringstream frame;
        frame << "  #" << index << " " << frames[index];
        writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, frame.str());
    }
}

[[noreturn]] void onTerminate() {
    writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, "std::terminate() called");
    std::abort();
}

void onSignal(int signalNumber) {
    writeCrashLogLine("Crash", G_LOG_LEVEL_CRITICAL, "Signal " + std::to_string(signalNumber));
    Platform::exitImmediately(128 + signalNumber);
}

} // namespace

void installCrashHandlers() {
    Platform::installFaultReporter(&reportFault);
    std::set_terminate(&onTerminate);
}

void installSignalHandlers() {
    Platform::installSignalReporter(Platform::abortSignalNumber(), &onSignal);
    Platform::installSignalReporter(Platform::segmentationFaultSignalNumber(), &onSignal);
}
