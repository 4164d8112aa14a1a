#include "DeviceSimulator.h"
#include "SimFrameCodec.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

namespace {

// The program's end of the link, opened straight on the slave.
class SlavePort {
public:
    explicit SlavePort(const std::string& path) { fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK); }
    ~SlavePort() { closePort(); }
    void closePort() {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
    bool isOpen() const { return fd >= 0; }

    ssize_t send(const Bytes& bytes) { return write(fd, bytes.data(), bytes.size()); }

    // Collects what arrives until `count` bytes are in or `timeout` passes.
    Bytes receive(std::size_t count, std::chrono::milliseconds timeout) {
        Bytes out;
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (out.size() < count) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                break;
            }
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            std::uint8_t buffer[512];
            const ssize_t n = read(fd, buffer, sizeof(buffer));
            if (n <= 0) {
                // A hung-up terminal reads as the end of the data.
                ended = true;
                lastReadError = n < 0 ? errno : 0;
                break;
            }
            out.insert(out.end(), buffer, buffer + n);
        }
        return out;
    }

    bool ended = false;
    int lastReadError = 0;

private:
    int fd = -1;
};

Bytes frame(const Bytes& payload) {
    return SimFrameCodec::encode(payload);
}

// What the raw-mode handler saw; it outlives the handler, which the
// simulator drops when the link goes back to the payload devices.
struct EchoRecord {
    std::mutex mutex;
    Bytes received;
    std::atomic<int> closes{0};
    std::atomic<int> opens{0};

    Bytes got() {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
};

// Records what the link hands it and echoes it back inverted; a 'Q' gives the
// link back.
class EchoHandler : public RawLinkHandler {
public:
    explicit EchoHandler(std::shared_ptr<EchoRecord> shared) : record(std::move(shared)) {}

    void onBytes(const std::uint8_t* data, std::size_t size, SimLink& link) override {
        {
            std::lock_guard<std::mutex> lock(record->mutex);
            record->received.insert(record->received.end(), data, data + size);
        }
        Bytes inverted(data, data + size);
        for (auto& b : inverted) {
            b = static_cast<std::uint8_t>(~b);
        }
        if (!inverted.empty() && inverted.back() == static_cast<std::uint8_t>(~'Q')) {
            link.leaveRawMode();
        }
        link.send(inverted.data(), inverted.size());
    }
    void onPortClosed() override { ++record->closes; }
    void onPortOpened(SimLink&) override { ++record->opens; }

private:
    std::shared_ptr<EchoRecord> record;
};

class DeviceSimulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        simulator.addDevice(SimDevice::standard(2, "MeridKestal STM32"));
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        port = std::make_unique<SlavePort>(simulator.slavePath());
        ASSERT_TRUE(port->isOpen());
    }

    DeviceSimulator simulator;
    std::unique_ptr<SlavePort> port;
};

} // namespace

TEST_F(DeviceSimulatorTest, PacedLinkIsNoFasterThanTheWire) {
    simulator.setPacing(9600, 1ms);
    const auto start = std::chrono::steady_clock::now();
    port->send(frame({1, 255, 1}));
    ASSERT_EQ(port->receive(79, 3000ms).size(), 79u);
    // Request and answer, 85 bytes at 10 bits a byte, plus the turnaround.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 85 * 10 * 1000us / 9600 * 1000 / 1000 + 1ms);
}

TEST_F(DeviceSimulatorTest, RecognisesTheDfuBlock) {
    port->send(Bytes(DeviceSimulator::kDfuRequest.begin(), DeviceSimulator::kDfuRequest.end()));
    ASSERT_TRUE(simulator.waitForJournal(1, 2000ms));
    auto journal = simulator.journal();
    EXPECT_EQ(journal[0].kind, DeviceSimulator::JournalEntry::DfuRequest);
    EXPECT_TRUE(port->receive(1, 100ms).empty());
    EXPECT_EQ(simulator.strayBytes(), 30u);
}

TEST_F(DeviceSimulatorTest, UnplugAfterAnAgreedNumberOfFrames) {
    DeviceSimulator::Faults faults;
    faults.unplugAfterFrames = 2;
    simulator.setFaults(faults);
    port->send(frame({1, 2, 5, 0}));
    EXPECT_EQ(port->receive(13, 1000ms).size(), 13u);
    port->send(frame({2, 2, 5, 0}));
    EXPECT_TRUE(port->receive(1, 1000ms).empty());
    EXPECT_TRUE(port->ended);
    for (int i = 0; i < 500 && !simulator.isUnplugged(); ++i) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(simulator.isUnplugged());
}

TEST_F(DeviceSimulatorTest, RawModeSeamHandsOverTheLink) {
    auto handler = std::make_shared<EchoRecord>();
    simulator.setRawModeFactory([handler]() { return std::make_unique<EchoHandler>(handler); });

    Bytes block(DeviceSimulator::kEnterEspFlashingFrame.begin(),
                DeviceSimulator::kEnterEspFlashingFrame.end());
    block.push_back('a');
    block.push_back('b');
    port->send(block);
    EXPECT_EQ(port->receive(2, 1000ms),
              (Bytes{static_cast<std::uint8_t>(~'a'), static_cast<std::uint8_t>(~'b')}));
    EXPECT_TRUE(simulator.inRawMode());
    // The device does not answer the switch frame itself.
    EXPECT_EQ(simulator.answersSent(), 0u);

    // The program closes and reopens its port across the switch.
    port->closePort();
    for (int i = 0; i < 500 && handler->closes == 0; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(handler->closes, 1);
    port = std::make_unique<SlavePort>(simulator.slavePath());
    ASSERT_TRUE(port->isOpen());
    port->send(Bytes{'Q'});
    EXPECT_EQ(port->receive(1, 1000ms), (Bytes{static_cast<std::uint8_t>(~'Q')}));
    EXPECT_GE(handler->opens, 1);
    EXPECT_EQ(handler->got(), (Bytes{'a', 'b', 'Q'}));

    // Back in payload mode, frames are answered again.
    for (int i = 0; i < 500 && simulator.inRawMode(); ++i) {
        std::this_thread::sleep_for(1ms);
    }
    port->send(frame({1, 2, 5, 0}));
    EXPECT_EQ(port->receive(13, 1000ms).size(), 13u);
}

TEST(DeviceSimulatorLink, SymbolicLinkToTheSlave) {
    DeviceSimulator simulator;
    ASSERT_TRUE(simulator.start());
    const std::string link = "/tmp/merid-devsim-test-" + std::to_string(getpid());
    ASSERT_TRUE(simulator.createLink(link));
    char target[256] = {};
    ASSERT_GT(readlink(link.c_str(), target, sizeof(target) - 1), 0);
    EXPECT_EQ(std::string(target), simulator.slavePath());
    simulator.stop();
    EXPECT_NE(access(link.c_str(), F_OK), 0);
}
