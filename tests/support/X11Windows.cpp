#include "X11Windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

#include <cstring>
#include <fstream>
#include <thread>

namespace programtest {
namespace {

// Windows of other processes come and go while the tests look at them; a
// request on one that is gone only means it is not ours.
int ignoreXError(Display*, XErrorEvent*) {
    return 0;
}

} // namespace

X11Windows::X11Windows() : display(XOpenDisplay(nullptr)) {
    XSetErrorHandler(&ignoreXError);
}

X11Windows::~X11Windows() {
    if (display != nullptr) {
        XCloseDisplay(display);
    }
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

bool X11Windows::matches(unsigned long window, pid_t pid, const std::string& title) {
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    const bool ours =
        XGetWindowProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), 0, 1, False,
                           XA_CARDINAL, &type, &format, &count, &remaining, &data) == Success &&
        data != nullptr && count == 1 && *reinterpret_cast<long*>(data) == pid;
    if (data != nullptr) {
        XFree(data);
    }
    char* name = nullptr;
    const bool titled = ours && XFetchName(display, window, &name) != 0 && name != nullptr && title == name;
    if (name != nullptr) {
        XFree(name);
    }
    return titled && isViewable(window);
}

std::optional<unsigned long> X11Windows::waitForWindow(pid_t pid, const std::string& title,
                                                       std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (display != nullptr && std::chrono::steady_clock::now() < deadline) {
        Window root = 0;
        Window parent = 0;
        Window* children = nullptr;
        unsigned int count = 0;
        std::optional<unsigned long> found;
        if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count) != 0) {
            for (unsigned int index = 0; index < count && !found; ++index) {
                if (matches(children[index], pid, title)) {
                    found = children[index];
                }
            }
            XFree(children);
        }
        if (found) {
            return found;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return std::nullopt;
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
    unsigned char header[24] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(header), sizeof(header)) ||
        std::memcmp(header, "\x89PNG\r\n\x1a\n", 8) != 0) {
        return std::nullopt;
    }
    // The first chunk is IHDR: width and height, big-endian, follow its type.
    const auto number = [&](int at) {
        return static_cast<int>((unsigned{header[at]} << 24) | (unsigned{header[at + 1]} << 16) |
                                (unsigned{header[at + 2]} << 8) | unsigned{header[at + 3]});
    };
    return std::make_pair(number(16), number(20));
}

} // namespace programtest
