// merid-devsim with its ESP32 switches, as a child process: the program's
// flashBinary against it, and the flash it writes out at exit.
#include "MeridEspSerialFlasher.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using Bytes = std::vector<uint8_t>;

namespace {

// The simulator program with its standard output on a pipe.
class Devsim {
public:
    explicit Devsim(std::vector<std::string> args) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv{const_cast<char*>(MERID_DEVSIM_PATH)};
            for (auto& arg : args) {
                argv.push_back(arg.data());
            }
            argv.push_back(nullptr);
            execv(MERID_DEVSIM_PATH, argv.data());
            _exit(127);
        }
        close(out[1]);
        output = out[0];
    }

    ~Devsim() {
        if (pid > 0 && running) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (output >= 0) {
            close(output);
        }
    }

    Devsim(const Devsim&) = delete;
    Devsim& operator=(const Devsim&) = delete;

    // The port it serves, from its first line.
    std::string port() {
        std::string line;
        char c = 0;
        for (;;) {
            pollfd p{output, POLLIN, 0};
            if (poll(&p, 1, 5000) <= 0 || read(output, &c, 1) != 1 || c == '\n') {
                return line;
            }
            line += c;
        }
    }

    int terminate() {
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
        running = false;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid = -1;
    int output = -1;
    bool running = true;
};

Bytes readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace

TEST(EspDevsimProgram, FlashesThroughTheSwitchesAndWritesTheFlashOut) {
    testsupport::TempDir dir;
    const std::string flashOut = dir.path() + "/esp32-flash.bin";
    Devsim devsim({"--esp-flash-size", "1048576", "--esp-silent-syncs", "2", "--esp-garbage", "5",
                   "--esp-fail-block", "2", "--esp-flash-out", flashOut});
    const std::string port = devsim.port();
    ASSERT_FALSE(port.empty());

    Bytes image(2500);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>(i * 31 + 7);
    }
    const std::string imagePath = dir.path() + "/app.bin";
    std::ofstream(imagePath, std::ios::binary).write(reinterpret_cast<const char*>(image.data()), 2500);

    UsbCommunication usb;
    usb.portName = port;
    usb.baudrate = UsbTypes::Baud115200;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::vector<unsigned char> progress;
    std::string error;
    ASSERT_TRUE(MeridEspSerialFlasher::flashBinary(
        usb, imagePath, {0, 1024, false}, [&](unsigned char p) { progress.push_back(p); }, &error))
        << error;
    EXPECT_EQ(progress, (std::vector<unsigned char>{40, 81, 100}));
    usb.disconnect();

    ASSERT_EQ(devsim.terminate(), 0);
    const Bytes flash = readAll(flashOut);
    ASSERT_EQ(flash.size(), 1u << 20);
    EXPECT_EQ(Bytes(flash.begin(), flash.begin() + 2500), image);
    EXPECT_EQ(Bytes(flash.begin() + 2500, flash.end()), Bytes((1u << 20) - 2500, 0xFF));
}
