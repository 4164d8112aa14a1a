#pragma once

#include "TestBasics.h"

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

// A pseudo-terminal for the port to open: the slave path plays the serial
// device, the master is the board at the other end of the cable.
class PtyPair {
public:
    PtyPair() {
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
    ~PtyPair() {
        unplug();
        if (slave >= 0) {
            ::close(slave);
        }
    }
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    bool isValid() const { return master >= 0; }
    const std::string& slavePath() const { return path; }

    // The board sends: all of `text`, or false.
    bool send(const std::string& text) {
        std::size_t done = 0;
        return testsupport::waitUntil([&] {
            done += static_cast<std::size_t>(
                std::max<ssize_t>(::write(master, &text[done], text.size() - done), 0));
            return done == text.size();
        });
    }
    // What the board received: up to `count` bytes, gathered until they are
    // all there or `timeoutMs` has passed.
    std::string receive(std::size_t count, int timeoutMs) {
        std::string text;
        testsupport::waitUntil(
            [&] {
                char buffer[4096];
                const ssize_t n = ::read(master, buffer, std::min(sizeof(buffer), count - text.size()));
                text.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
                return text.size() >= count;
            },
            std::chrono::milliseconds(timeoutMs));
        return text;
    }
    // The cable is pulled: the slave side hangs up.
    void unplug() {
        if (master >= 0) {
            ::close(master);
            master = -1;
        }
    }

private:
    int master = -1;
    int slave = -1;
    std::string path;
};
