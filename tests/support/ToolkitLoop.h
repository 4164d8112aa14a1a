#pragma once

#include "TestBasics.h"

#include <gtk/gtk.h>

namespace testsupport {

// The toolkit's main loop, run by a test on its own thread.
struct ToolkitLoop {
    // Runs pending events until `done` holds or `timeout` has passed; the
    // last answer of `done`.
    static bool runUntil(const std::function<bool()>& done,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        return waitUntil(done, timeout,
                         [] { gtk_events_pending() ? void(gtk_main_iteration_do(FALSE)) : g_usleep(1000); });
    }
    static void runFor(std::chrono::milliseconds duration) {
        runUntil([] { return false; }, duration);
    }
};

} // namespace testsupport
