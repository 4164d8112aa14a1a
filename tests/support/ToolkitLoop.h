#pragma once

#include <gtk/gtk.h>

#include <chrono>
#include <functional>

namespace testsupport {

// The toolkit's main loop, run by a test on its own thread.
class ToolkitLoop {
public:
    // Runs pending events until `done` holds or `timeout` has passed; the
    // last answer of `done`.
    static bool runUntil(const std::function<bool()>& done,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
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
    // Runs pending events for `duration`.
    static void runFor(std::chrono::milliseconds duration) {
        runUntil([] { return false; }, duration);
    }
};

} // namespace testsupport
