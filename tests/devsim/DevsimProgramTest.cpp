#include "MeridEspSerialFlasher.h"
#include "SimFrameCodec.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

namespace {

// merid-devsim as a child process, its standard output on a pipe.
class DevsimProcess {
public:
    explicit DevsimProcess(std::vector<std::string> args) {
        int out[2];
        if (pipe(out) != 0) {
            return;
        }
        pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(MERID_DEVSIM_PATH));
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

    ~DevsimProcess() {
        if (pid > 0 && !exited) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (output >= 0) {
            close(output);
        }
    }

    std::string firstLine() {
        std::string line;
        char c = 0;
        while (true) {
            pollfd p{output, POLLIN, 0};
            if (poll(&p, 1, 5000) <= 0 || read(output, &c, 1) != 1 || c == '\n') {
                break;
            }
            line += c;
        }
        return line;
    }

    int stop(int signal = SIGTERM) {
        kill(pid, signal);
        return waitForExit();
    }

    int waitForExit() {
        int status = 0;
        waitpid(pid, &status, 0);
        exited = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid = -1;
    int output = -1;
    bool exited = false;
};

Bytes exchange(int fd, const Bytes& request, std::size_t answerSize) {
    if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return {};
    }
    Bytes answer;
    while (answer.size() < answerSize) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 2000) <= 0) {
            break;
        }
        std::uint8_t buffer[256];
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        answer.insert(answer.end(), buffer, buffer + n);
    }
    return answer;
}

} // namespace

TEST(DevsimProgram, ServesItsPortThroughTheLinkAndKeepsTheImage) {
    char dirTemplate[] = "/tmp/merid-devsim-cli-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    const std::string dir = dirTemplate;
    const std::string link = dir + "/port";
    DevsimProcess devsim({"--port-link", link, "--devices", "5:Alpha", "--image-dir", dir});
    const std::string slave = devsim.firstLine();
    ASSERT_EQ(slave.rfind("/dev/pts/", 0), 0u) << slave;
    char target[256] = {};
    ASSERT_GT(readlink(link.c_str(), target, sizeof(target) - 1), 0);
    EXPECT_EQ(std::string(target), slave);

    const int fd = open(link.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    const Bytes info = exchange(fd, SimFrameCodec::encode({1, 255, 1}), 79);
    ASSERT_EQ(info.size(), 79u);
    EXPECT_EQ(info[3], 5);
    EXPECT_EQ(std::string(info.begin() + 15, info.begin() + 20), "Alpha");
    EXPECT_EQ(exchange(fd, SimFrameCodec::encode({2, 5, 8, 0, 0, 0, 0, 0}), 6),
              SimFrameCodec::encode({2, 5, 0}));
    EXPECT_EQ(exchange(fd, SimFrameCodec::encode({3, 5, 8, 0, 0, 0, 0, 0, 'h', 'i'}), 6),
              SimFrameCodec::encode({3, 5, 0}));
    EXPECT_EQ(exchange(fd, SimFrameCodec::encode({4, 5, 8, 0, 2, 0, 0, 0}), 6),
              SimFrameCodec::encode({4, 5, 0}));
    close(fd);

    EXPECT_EQ(devsim.stop(), 0);
    std::ifstream image(dir + "/device5_file0.bin", std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(image)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, "hi");
    EXPECT_NE(access(link.c_str(), F_OK), 0);
    std::remove((dir + "/device5_file0.bin").c_str());
    rmdir(dir.c_str());
}

TEST(DevsimProgram, JournalListsWhatCameInOrderAcrossTheSwitchToTheEsp32) {
    char dirTemplate[] = "/tmp/merid-devsim-journal-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    const std::string dir = dirTemplate;
    const std::string journal = dir + "/journal.txt";
    DevsimProcess devsim({"--journal", journal});
    const std::string slave = devsim.firstLine();
    ASSERT_FALSE(slave.empty());
    const int fd = open(slave.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(exchange(fd, SimFrameCodec::encode({1, 255, 1}), 79).size(), 79u);
    Bytes broken = SimFrameCodec::encode({2, 2, 4, 0});
    broken.back() ^= 0xFF;
    ASSERT_EQ(write(fd, broken.data(), broken.size()), static_cast<ssize_t>(broken.size()));
    usleep(100000);
    // The enter frame, then a loader frame in the same block.
    Bytes block = SimFrameCodec::encode({0, 2, 3, 2, 8, 1, 0, 0, 0});
    const Bytes loaderFrame{0xC0, 0x00, 0x99, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xC0};
    block.insert(block.end(), loaderFrame.begin(), loaderFrame.end());
    ASSERT_EQ(write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
    usleep(100000);
    close(fd);
    usleep(200000);
    EXPECT_EQ(devsim.stop(), 0);

    std::ifstream in(journal);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "frame ok 7E 02 01 FF 01 74");
    EXPECT_EQ(lines[1].rfind("frame bad-crc 7E 03 02 02 04 00 ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2], "frame ok 7E 08 00 02 03 02 08 01 00 00 00 1E");
    EXPECT_EQ(lines[3], "raw C0 00 99 00 00 00 00 00 00 C0");
    EXPECT_EQ(lines[4], "raw port closed");
    std::remove(journal.c_str());
    rmdir(dir.c_str());
}

TEST(DevsimProgram, RefusesBadOptions) {
    DevsimProcess unknown({"--no-such-option"});
    EXPECT_EQ(unknown.waitForExit(), 2);
    DevsimProcess badDevices({"--devices", "300:Too far"});
    EXPECT_EQ(badDevices.waitForExit(), 2);
    DevsimProcess badNumber({"--baud", "fast"});
    EXPECT_EQ(badNumber.waitForExit(), 2);
}

// The ESP32 switches: the loader gets through silent syncs, garbage and a
// refused block, and the flash is written out at exit.
TEST(DevsimProgram, Esp32SwitchesAndTheFlashWrittenOut) {
    testsupport::TempDir dir;
    const std::string flashOut = dir.path() + "/esp32-flash.bin";
    DevsimProcess devsim({"--esp-flash-size", "1048576", "--esp-silent-syncs", "2", "--esp-garbage", "5",
                          "--esp-fail-block", "2", "--esp-flash-out", flashOut});
    const std::string port = devsim.firstLine();
    ASSERT_FALSE(port.empty());

    Bytes image(2500);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    const std::string imagePath = dir.path() + "/app.bin";
    ASSERT_TRUE(testsupport::writeFile(imagePath, image));

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

    ASSERT_EQ(devsim.stop(), 0);
    const Bytes flash = testsupport::readFile(flashOut).value_or(Bytes{});
    ASSERT_EQ(flash.size(), 1u << 20);
    EXPECT_EQ(Bytes(flash.begin(), flash.begin() + 2500), image);
    EXPECT_EQ(Bytes(flash.begin() + 2500, flash.end()), Bytes((1u << 20) - 2500, 0xFF));
}
