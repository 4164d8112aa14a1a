// merid_pty_echo: the far end of a cable that sends back every byte, on a
// pseudo-terminal. Prints the slave path on its first line, makes LINK a
// symbolic link to it when given, and runs until SIGINT or SIGTERM.
//
//     merid_pty_echo [LINK]

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

// Raw on both sides: the line discipline must neither echo nor translate.
bool makeRaw(int fd) {
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) {
        return false;
    }
    cfmakeraw(&settings);
    return tcsetattr(fd, TCSANOW, &settings) == 0;
}

bool writeAll(int fd, const unsigned char* data, ssize_t size) {
    while (size > 0) {
        const ssize_t n = write(fd, data, static_cast<std::size_t>(size));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= n;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    const std::string link = argc > 1 ? argv[1] : "";
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        std::fprintf(stderr, "merid_pty_echo: no pseudo-terminal: %s\n", std::strerror(errno));
        return 1;
    }
    char name[128] = {};
    if (ptsname_r(master, name, sizeof(name)) != 0) {
        std::fprintf(stderr, "merid_pty_echo: ptsname: %s\n", std::strerror(errno));
        return 1;
    }
    // The slave stays open here too, so that the master never sees a hang-up
    // between the program's opens.
    const int slave = open(name, O_RDWR | O_NOCTTY);
    if (slave < 0 || !makeRaw(slave) || !makeRaw(master)) {
        std::fprintf(stderr, "merid_pty_echo: cannot set up %s: %s\n", name, std::strerror(errno));
        return 1;
    }
    if (!link.empty()) {
        unlink(link.c_str());
        if (symlink(name, link.c_str()) != 0) {
            std::fprintf(stderr, "merid_pty_echo: cannot link %s: %s\n", link.c_str(), std::strerror(errno));
            return 1;
        }
    }
    std::printf("%s\n", name);
    std::fflush(stdout);

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    unsigned char buffer[4096];
    while (gStop == 0) {
        pollfd fd{master, POLLIN, 0};
        if (poll(&fd, 1, 50) <= 0 || (fd.revents & POLLIN) == 0) {
            continue;
        }
        const ssize_t n = read(master, buffer, sizeof(buffer));
        if (n > 0 && !writeAll(master, buffer, n)) {
            break;
        }
    }
    if (!link.empty()) {
        unlink(link.c_str());
    }
    close(slave);
    close(master);
    return 0;
}
