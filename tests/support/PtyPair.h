#pragma once

#include <cstddef>
#include <string>

// A pseudo-terminal for the port to open: the slave path plays the serial
// device, the master is the board at the other end of the cable.
class PtyPair {
public:
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    bool isValid() const { return master >= 0; }
    const std::string& slavePath() const { return path; }

    // The board sends: all of `text`, or false.
    bool send(const std::string& text);
    // What the board received: up to `count` bytes, gathered until they are
    // all there or `timeoutMs` has passed.
    std::string receive(std::size_t count, int timeoutMs);
    // The cable is pulled: the slave side hangs up.
    void unplug();

private:
    int master = -1;
    int slave = -1;
    std::string path;
};
