// merid_pty_echo: the far end of a cable that sends back every byte, on a
// pseudo-terminal. Prints the slave path on its first line and runs until
// it is killed. With --hang-up it is a cable pulled out instead: at the
// first byte it receives it closes the pseudo-terminal and exits.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <termios.h>
#include <unistd.h>

int main(int argc, char** argv) {
    const bool hangUp = argc > 1 && std::strcmp(argv[1], "--hang-up") == 0;
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    const char* name =
        master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ? nullptr : ptsname(master);
    // The slave stays open here too, so that the master never sees a hang-up
    // between the program's opens.
    const int slave = name == nullptr ? -1 : open(name, O_RDWR | O_NOCTTY);
    termios settings{};
    for (const int fd : {slave, master}) {
        // Raw on both sides: the line discipline must neither echo nor translate.
        if (fd < 0 || tcgetattr(fd, &settings) != 0 ||
            (cfmakeraw(&settings), tcsetattr(fd, TCSANOW, &settings)) != 0) {
            std::perror("merid_pty_echo: no raw pseudo-terminal");
            return 1;
        }
    }
    std::printf("%s\n", name);
    std::fflush(stdout);
    unsigned char buffer[4096];
    for (ssize_t n; (n = read(master, buffer, sizeof(buffer))) > 0;) {
        if (hangUp) {
            close(slave);
            close(master);
            return 0;
        }
        for (ssize_t done = 0, written = 0; done < n; done += written) {
            if ((written = write(master, buffer + done, static_cast<std::size_t>(n - done))) <= 0) {
                return 1;
            }
        }
    }
    return 0;
}
