#include "X11Windows.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <fstream>
#include <thread>

namespace programtest {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(2);

// Reads a 32-bit network-order number.
int bigEndian32(const unsigned char* bytes) {
    return static_cast<int>((static_cast<unsigned>(bytes[0]) << 24) |
                            (static_cast<unsigned>(bytes[1]) << 16) | (static_cast<unsigned>(bytes[2]) << 8) |
                            static_cast<unsigned>(bytes[3]));
}

// Windows of other processes come and go while the tests look at them; a
// request on one that is gone fails, and that only means it is not ours.
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

std::optional<long> X11Windows::windowPid(unsigned long window) {
    const Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    std::optional<long> pid;
    if (XGetWindowProperty(display, window, pidAtom, 0, 1, False, XA_CARDINAL, &type, &format, &count,
                           &remaining, &data) == Success &&
        data != nullptr && count == 1 && format == 32) {
        pid = *reinterpret_cast<long*>(data);
    }
    if (data != nullptr) {
        XFree(data);
    }
    return pid;
}

std::string X11Windows::title(unsigned long window) {
    const Atom netName = XInternAtom(display, "_NET_WM_NAME", False);
    const Atom utf8 = XInternAtom(display, "UTF8_STRING", False);
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    std::string result;
    if (XGetWindowProperty(display, window, netName, 0, 1024, False, utf8, &type, &format, &count, &remaining,
                           &data) == Success &&
        data != nullptr) {
        result.assign(reinterpret_cast<char*>(data), count);
    }
    if (data != nullptr) {
        XFree(data);
    }
    return result;
}

bool X11Windows::isViewable(unsigned long window) {
    XWindowAttributes attributes{};
    return XGetWindowAttributes(display, window, &attributes) != 0 && attributes.map_state == IsViewable;
}

std::pair<int, int> X11Windows::size(unsigned long window) {
    XWindowAttributes attributes{};
    if (XGetWindowAttributes(display, window, &attributes) == 0) {
        return {0, 0};
    }
    return {attributes.width, attributes.height};
}

std::optional<unsigned long> X11Windows::findWindow(pid_t pid, const std::string& wanted) {
    Window root = 0;
    Window parent = 0;
    Window* children = nullptr;
    unsigned int count = 0;
    std::optional<unsigned long> found;
    if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count) == 0) {
        return found;
    }
    for (unsigned int index = 0; index < count && !found; ++index) {
        const Window window = children[index];
        if (windowPid(window) == static_cast<long>(pid) && isViewable(window) && title(window) == wanted) {
            found = window;
        }
    }
    if (children != nullptr) {
        XFree(children);
    }
    return found;
}

std::optional<unsigned long> X11Windows::waitForWindow(pid_t pid, const std::string& wanted,
                                                       std::chrono::milliseconds timeout) {
    if (display == nullptr) {
        return std::nullopt;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (auto window = findWindow(pid, wanted)) {
            return window;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
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

std::optional<std::pair<int, int>> pngSize(const std::string& path) {
    static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    unsigned char header[24] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(header), sizeof(header))) {
        return std::nullopt;
    }
    for (int index = 0; index < 8; ++index) {
        if (header[index] != kSignature[index]) {
            return std::nullopt;
        }
    }
    // The first chunk is IHDR: width and height follow its type.
    return std::make_pair(bigEndian32(header + 16), bigEndian32(header + 20));
}

} // namespace programtest
