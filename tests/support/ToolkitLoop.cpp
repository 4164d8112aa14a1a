#include "ToolkitLoop.h"

#include <gtk/gtk.h>

namespace testsupport {

bool ToolkitLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return done();
        }
        if (gtk_events_pending()) {
            gtk_main_iteration_do(FALSE);
        } else {
            g_usleep(1000);
        }
    }
    return true;
}

void ToolkitLoop::runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
}

} // namespace testsupport
