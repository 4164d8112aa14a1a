// One run of merid-devsim as the demo and the Windows scenario start it.
#include "MeridEspSerialFlasher.h"
#include "SimFrameCodec.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>

#include <algorithm>
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
        if (output == nullptr || pid <= 0 || kill(pid, SIGTERM) != 0) {
            return -1;
        }
        const int status = pclose(std::exchange(output, nullptr));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    FILE* output;
    pid_t pid;
};

} // namespace

TEST(DevsimProgram, ServesTheBoardAndWritesWhatItReceivedAtExit) {
    testsupport::TempDir dir;
    const std::string link = dir.path() + "/port", journal = dir.path() + "/journal.txt";
    Devsim devsim("--port-link " + link + " --devices 2:Alpha --image-dir " + dir.path() + " --journal " +
                  journal +
                  " --esp-flash-size 1048576 --esp-silent-syncs 2 --esp-garbage 5 --esp-fail-block 2" +
                  " --esp-lose-answer 5 --esp-late-answer 7 --esp-late-ms 1200 --esp-lose-request 9" +
                  " --esp-flash-out " + dir.path() + "/flash.bin");
    ASSERT_EQ(devsim.line().rfind("/dev/pts/", 0), 0u);

    // A search, then a file in three steps to the device at address 2:
    // erase, "hi", finish; the answers are 79 bytes and three of 6.
    const int fd = open(link.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    Bytes steps;
    for (const Bytes& step : {Bytes{1, 255, 1}, Bytes{2, 2, 8, 0, 0, 0, 0, 0},
                              Bytes{3, 2, 8, 0, 0, 0, 0, 0, 'h', 'i'}, Bytes{4, 2, 8, 0, 2, 0, 0, 0}}) {
        const Bytes frame = SimFrameCodec::encode(step);
        steps.insert(steps.end(), frame.begin(), frame.end());
    }
    ASSERT_EQ(write(fd, steps.data(), steps.size()), static_cast<ssize_t>(steps.size()));
    std::size_t answered = 0;
    char buffer[256];
    for (pollfd p{fd, POLLIN, 0}; answered < 79 + 3 * 6 && poll(&p, 1, 2000) > 0;) {
        answered += static_cast<std::size_t>(std::max<ssize_t>(read(fd, buffer, sizeof(buffer)), 0));
    }
    EXPECT_EQ(answered, 79u + 3 * 6);
    close(fd);

    // The ESP32 through the program's own loader, past the silent syncs, the
    // garbage, the refused block and the lost and late messages; blocks are at least 256 bytes and each
    // reports the percent done, rounded down.
    Bytes image(2500);
    std::generate(image.begin(), image.end(),
                  [i = 0]() mutable { return static_cast<std::uint8_t>(i++ % 251); });
    ASSERT_TRUE(testsupport::writeFile(dir.path() + "/app.bin", image));
    UsbCommunication usb;
    usb.portName = link;
    ASSERT_EQ(usb.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    std::string error;
    std::vector<int> progress;
    const auto report = [&progress](unsigned char percent) { progress.push_back(percent); };
    ASSERT_TRUE(
        MeridEspSerialFlasher::flashBinary(usb, dir.path() + "/app.bin", {0, 16, false}, report, &error))
        << error;
    EXPECT_EQ(progress, (std::vector<int>{10, 20, 30, 40, 51, 61, 71, 81, 92, 100}));
    usb.disconnect();

    // A later run of the program finds the chip holding the image already.
    UsbCommunication again;
    again.portName = link;
    ASSERT_EQ(again.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    MeridEspSerialFlasher::FlashOptions skip;
    skip.skipUnchanged = true;
    std::vector<PartOutcome> outcomes;
    ASSERT_TRUE(
        MeridEspSerialFlasher::flashParts(again, {{0, dir.path() + "/app.bin"}}, skip, {}, &outcomes, &error))
        << error;
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_FALSE(outcomes[0].written);
    again.disconnect();

    ASSERT_EQ(devsim.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link)));
    EXPECT_EQ(testsupport::readFile(dir.path() + "/device2_file0.bin"), "hi");
    image.resize(1u << 20, 0xFF);
    EXPECT_EQ(testsupport::readFile(dir.path() + "/flash.bin"), std::string(image.begin(), image.end()));
    const std::string text = testsupport::readFile(journal);
    EXPECT_EQ(text.rfind("frame ok 7E 02 01 FF 01 74\n", 0), 0u) << text;
    // The enter frame hands the link over: the loader's port reopened, its first sync.
    EXPECT_NE(text.find("\nframe ok 7E 08 00 02 03 02 08 01 00 00 00 1E\nraw port closed\nraw port opened\n"
                        "raw C0 00 08 24 00 00 00 00 00 07 07 12 20 55 "),
              std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 17), "\nraw port closed\n");
}
