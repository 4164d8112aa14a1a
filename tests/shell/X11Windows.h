#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

typedef struct _XDisplay Display;

namespace programtest {

// A connection to the X display the tests run on (Xvfb), for looking at a
// child's window the way a user would see it.
class X11Windows {
public:
    X11Windows();
    ~X11Windows();
    X11Windows(const X11Windows&) = delete;
    X11Windows& operator=(const X11Windows&) = delete;

    bool connected() const { return display != nullptr; }

    // The top-level window of process `pid` titled `title`, once it is mapped
    // and viewable; nothing when that has not happened within `timeout`.
    std::optional<unsigned long> waitForWindow(pid_t pid, const std::string& title,
                                               std::chrono::milliseconds timeout);

    std::string title(unsigned long window);
    bool isViewable(unsigned long window);
    // Width and height of the window's area.
    std::pair<int, int> size(unsigned long window);

    // Asks the window to close, as a window manager's close button does.
    void requestClose(unsigned long window);

private:
    std::optional<unsigned long> findWindow(pid_t pid, const std::string& title);
    std::optional<long> windowPid(unsigned long window);

    Display* display = nullptr;
};

// Width and height from a PNG file's header; nothing when it is not a PNG.
std::optional<std::pair<int, int>> pngSize(const std::string& path);

} // namespace programtest
