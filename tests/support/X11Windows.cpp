#include "X11Windows.h"

#include "TestBasics.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

namespace programtest {

X11Windows::X11Windows() : display(XOpenDisplay(nullptr)) {
    // Windows of other processes come and go while the tests look at them; a
    // request on one that is gone only means it is not ours.
    XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
}

X11Windows::~X11Windows() {
    if (display != nullptr) {
        XCloseDisplay(display);
    }
}

bool X11Windows::matches(unsigned long window, pid_t pid, const std::string& title) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0, remaining = 0;
    unsigned char* data = nullptr;
    const bool ours =
        XGetWindowProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), 0, 1, False,
                           XA_CARDINAL, &type, &format, &count, &remaining, &data) == Success &&
        data != nullptr && count == 1 && *reinterpret_cast<long*>(data) == pid;
    XFree(data);
    char* name = nullptr;
    const bool titled = ours && XFetchName(display, window, &name) != 0 && name != nullptr && title == name;
    XFree(name);
    return titled && isViewable(window);
}

bool X11Windows::isViewable(unsigned long window) {
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display, window, &attributes) != 0 && attributes.map_state == IsViewable;
}

std::pair<int, int> X11Windows::size(unsigned long window) {
    XWindowAttributes attributes{};
    XGetWindowAttributes(display, window, &attributes);
    return {attributes.width, attributes.height};
}

std::optional<unsigned long> X11Windows::waitForWindow(pid_t pid, const std::string& title,
                                                       std::chrono::milliseconds timeout) {
    std::optional<unsigned long> found;
    testsupport::waitUntil(
        [&] {
            Window root = 0, parent = 0, *children = nullptr;
            unsigned int count = 0;
            if (display != nullptr &&
                XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count) != 0) {
                for (unsigned int index = 0; index < count && !found; ++index) {
                    found = matches(children[index], pid, title) ? std::optional(children[index]) : found;
                }
                XFree(children);
            }
            return found.has_value() || display == nullptr;
        },
        timeout);
    return found;
}

void X11Windows::requestClose(unsigned long window) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = static_cast<long>(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, window, False, NoEventMask, &event);
    XFlush(display);
}

void X11Windows::click(unsigned long window, int x, int y) {
    int rootX = 0;
    int rootY = 0;
    Window child = 0;
    XTranslateCoordinates(display, window, DefaultRootWindow(display), x, y, &rootX, &rootY, &child);
    XTestFakeMotionEvent(display, -1, rootX, rootY, CurrentTime);
    XTestFakeButtonEvent(display, 1, True, CurrentTime);
    XTestFakeButtonEvent(display, 1, False, CurrentTime);
    XSync(display, False);
}

void X11Windows::pressKey(unsigned long window, const char* keysym) {
    XSetInputFocus(display, window, RevertToParent, CurrentTime);
    const KeyCode code = XKeysymToKeycode(display, XStringToKeysym(keysym));
    XTestFakeKeyEvent(display, code, True, CurrentTime);
    XTestFakeKeyEvent(display, code, False, CurrentTime);
    XSync(display, False);
}

std::optional<std::pair<int, int>> pngSize(const std::string& path) {
    const std::string header = testsupport::readFile(path);
    if (header.size() < 24 || header.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0) {
        return std::nullopt;
    }
    // The first chunk is IHDR: width and height, big-endian, follow its type.
    const auto number = [&](std::size_t at) {
        unsigned value = 0;
        for (std::size_t i = at; i < at + 4; ++i) {
            value = value << 8 | static_cast<unsigned char>(header[i]);
        }
        return static_cast<int>(value);
    };
    return std::make_pair(number(16), number(20));
}

} // namespace programtest
