// One run of merid-devsim as the demo and the Windows scenario start it.
#include "MeridEspSerialFlasher.h"
#include "SimFrameCodec.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using testsupport::Bytes;

namespace {

// merid-devsim as a child process of a shell that first prints its own
// process id, which the program then takes over; stopped by SIGTERM.
struct Devsim {
    explicit Devsim(const std::string& args)
        : output(popen(("echo $$; exec " MERID_DEVSIM_PATH " " + args).c_str(), "r")),
          pid(std::atoi(line().c_str())) {}
    ~Devsim() { stop(); }
    std::string line() {
        char text[256] = {};
        return fgets(text, sizeof(text), output) != nullptr ? std::string(text, strcspn(text, "\n")) : "";
    }
    int stop() {
        if (output == nullptr || pid <= 0) {
            return -1;
        }
        kill(pid, SIGTERM);
        const int status = pclose(output);
        output = nullptr;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    FILE* output;
    pid_t pid;
};

// Writes `request` and collects `size` bytes of answer, or what came in 2 s.
Bytes exchange(int fd, const Bytes& request, std::size_t size) {
    Bytes answer;
    pollfd p{fd, POLLIN, 0};
    std::uint8_t buffer[256];
    ssize_t n = write(fd, request.data(), request.size());
    while (n > 0 && answer.size() < size && poll(&p, 1, 2000) > 0 && (n = read(fd, buffer, 256)) > 0) {
        answer.insert(answer.end(), buffer, buffer + n);
    }
    return answer;
}

} // namespace

TEST(DevsimProgram, ServesTheBoardAndWritesWhatItReceivedAtExit) {
    testsupport::TempDir dir;
    const std::string link = dir.path() + "/port", journal = dir.path() + "/journal.txt";
    Devsim devsim("--port-link " + link + " --devices 2:Alpha --image-dir " + dir.path() + " --journal " +
                  journal +
                  " --esp-flash-size 1048576 --esp-silent-syncs 2 --esp-garbage 5 --esp-fail-block 2" +
                  " --esp-flash-out " + dir.path() + "/flash.bin");
    const std::string port = devsim.line();
    ASSERT_EQ(port.rfind("/dev/pts/", 0), 0u) << port;
    EXPECT_EQ(std::filesystem::read_symlink(link).string(), port);

    // A search, then a file in three steps to the device at address 2: erase, "hi", finish.
    const int fd = open(link.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    Bytes steps;
    for (const Bytes& step : {Bytes{1, 255, 1}, Bytes{2, 2, 8, 0, 0, 0, 0, 0},
                              Bytes{3, 2, 8, 0, 0, 0, 0, 0, 'h', 'i'}, Bytes{4, 2, 8, 0, 2, 0, 0, 0}}) {
        const Bytes frame = SimFrameCodec::encode(step);
        steps.insert(steps.end(), frame.begin(), frame.end());
    }
    EXPECT_EQ(exchange(fd, steps, 79 + 3 * 6).size(), 79u + 3 * 6);
    close(fd);

    // The ESP32 through the program's own loader, past the silent syncs, the
    // garbage and the refused block.
    Bytes image(2500);
    for (std::size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    ASSERT_TRUE(testsupport::writeFile(dir.path() + "/app.bin", image));
    UsbCommunication usb;
    usb.portName = link;
    usb.baudrate = UsbTypes::Baud115200;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::string error;
    ASSERT_TRUE(
        MeridEspSerialFlasher::flashBinary(usb, dir.path() + "/app.bin", {0, 1024, false}, {}, &error))
        << error;
    usb.disconnect();

    ASSERT_EQ(devsim.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    EXPECT_EQ(testsupport::readFile(dir.path() + "/device2_file0.bin"), (Bytes{'h', 'i'}));
    Bytes written = image;
    written.resize(1u << 20, 0xFF);
    EXPECT_EQ(testsupport::readFile(dir.path() + "/flash.bin"), written);
    const Bytes bytes = testsupport::readFile(journal).value_or(Bytes{});
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text.rfind("frame ok 7E 02 01 FF 01 74\n", 0), 0u) << text;
    // The enter frame hands the link over: the loader's port reopened, its first sync.
    EXPECT_NE(text.find("\nframe ok 7E 08 00 02 03 02 08 01 00 00 00 1E\nraw port closed\nraw port opened\n"
                        "raw C0 00 08 24 00 00 00 00 00 07 07 12 20 55 "),
              std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 17), "\nraw port closed\n");
}
