#include "PtyPair.h"

#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

PtyPair::PtyPair() {
    char name[256] = {};
    if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        master = slave = -1;
        return;
    }
    path = name;
    // Raw from the start, as a serial line is; the port configures it again.
    termios tio{};
    ::tcgetattr(slave, &tio);
    ::cfmakeraw(&tio);
    ::tcsetattr(slave, TCSANOW, &tio);
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
}

PtyPair::~PtyPair() {
    unplug();
    if (slave >= 0) {
        ::close(slave);
    }
}

bool PtyPair::send(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(master, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        pollfd fd{master, POLLOUT, 0};
        if (::poll(&fd, 1, 1000) <= 0) {
            return false;
        }
    }
    return true;
}

std::string PtyPair::receive(std::size_t count, int timeoutMs) {
    std::string text;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (text.size() < count) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now())
                .count();
        pollfd fd{master, POLLIN, 0};
        if (left <= 0 || ::poll(&fd, 1, static_cast<int>(left)) <= 0) {
            break;
        }
        char buffer[4096];
        const std::size_t want = std::min(sizeof(buffer), count - text.size());
        const ssize_t n = ::read(master, buffer, want);
        if (n <= 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

void PtyPair::unplug() {
    if (master >= 0) {
        ::close(master);
        master = -1;
    }
}
