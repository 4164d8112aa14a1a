#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

typedef struct _XDisplay Display;

namespace programtest {

// The test's X display (Xvfb), for looking at a child's window as a user
// would see it.
class X11Windows {
public:
    X11Windows();
    ~X11Windows();
    X11Windows(const X11Windows&) = delete;
    X11Windows& operator=(const X11Windows&) = delete;

    bool connected() const { return display != nullptr; }
    // The viewable top-level window of process `pid` titled `title`; nothing
    // when none shows within `timeout`.
    std::optional<unsigned long> waitForWindow(pid_t pid, const std::string& title,
                                               std::chrono::milliseconds timeout);
    bool isViewable(unsigned long window);
    // Width and height of the window.
    std::pair<int, int> size(unsigned long window);
    // Asks the window to close, as a window manager's close button does.
    void requestClose(unsigned long window);
    // A click of the first button at `x`, `y` inside the window, through the
    // server's input, as a user's mouse would.
    void click(unsigned long window, int x, int y);
    // Gives the window the keyboard, then presses and releases the key
    // named like an X keysym ("F10", "Down", "Return").
    void pressKey(unsigned long window, const char* keysym);

private:
    bool matches(unsigned long window, pid_t pid, const std::string& title);

    Display* display = nullptr;
};

// Width and height from a PNG file's header; nothing when it is not a PNG.
std::optional<std::pair<int, int>> pngSize(const std::string& path);

} // namespace programtest
