#pragma once

#include <chrono>
#include <functional>

namespace testsupport {

// The toolkit's main loop, run by a test on its own thread.
class ToolkitLoop {
public:
    // Runs pending events until `done` holds or `timeout` has passed; the
    // last answer of `done`.
    static bool runUntil(const std::function<bool()>& done,
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
    // Runs pending events for `duration`.
    static void runFor(std::chrono::milliseconds duration);
};

} // namespace testsupport
