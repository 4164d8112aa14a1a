#include "SimDevice.h"
#include "SimCrc8.h"
#include "SimFrameCodec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

TEST(SimFrameCodec, EncodesTheKnownFrames) {
    EXPECT_EQ(SimFrameCodec::encode({0x01, 0xFF, 0x01}), (Bytes{0x7E, 0x02, 0x01, 0xFF, 0x01, 0x74}));
    EXPECT_EQ(SimFrameCodec::encode({0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00}),
              (Bytes{0x7E, 0x08, 0x00, 0x02, 0x03, 0x02, 0x08, 0x01, 0x00, 0x00, 0x00, 0x1E}));
    EXPECT_TRUE(SimFrameCodec::encode({}).empty());
    EXPECT_TRUE(SimFrameCodec::encode(Bytes(256, 1)).empty());
    const std::string check = "123456789";
    EXPECT_EQ(SimCrc8::compute(reinterpret_cast<const std::uint8_t*>(check.data()), check.size()), 0xA1);
}

TEST(SimFrameCodec, ReadsAcrossBlocksAndCountsStrayBytes) {
    SimFrameCodec codec;
    std::vector<SimFrameCodec::Frame> frames;
    auto collect = [&](const SimFrameCodec::Frame& frame) {
        frames.push_back(frame);
        return true;
    };
    Bytes stream{0x11, 0x22, 0x7E, 0xFF};
    const Bytes good = SimFrameCodec::encode({1, 2, 3, 0x7E});
    Bytes bad = SimFrameCodec::encode({4, 5, 6});
    bad.back() ^= 1;
    stream.insert(stream.end(), good.begin(), good.end());
    stream.insert(stream.end(), bad.begin(), bad.end());
    for (std::uint8_t byte : stream) {
        codec.feed(&byte, 1, collect);
    }
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].raw, good);
    EXPECT_TRUE(frames[0].crcOk);
    EXPECT_EQ(frames[0].payloadSize(), 4u);
    EXPECT_FALSE(frames[1].crcOk);
    EXPECT_EQ(codec.strayBytes(), 4u);

    // A handler that takes the link stops the walk behind its frame.
    frames.clear();
    Bytes block = good;
    block.push_back(0x99);
    EXPECT_EQ(codec.feed(block.data(), block.size(), [&](const SimFrameCodec::Frame&) { return false; }),
              good.size());
}

class SimDeviceTest : public ::testing::Test {
protected:
    SimDevice device = SimDevice::standard(2, "MeridKestal STM32");

    Bytes ask(const Bytes& request, std::uint8_t status = 0) {
        auto response = device.handle(request, status);
        return response ? response->payload : Bytes{};
    }
};

TEST_F(SimDeviceTest, DescribesItselfAndItsFields) {
    const Bytes info = ask({5, 255, 1});
    ASSERT_EQ(info.size(), 76u);
    EXPECT_EQ(info[0], 5);
    EXPECT_EQ(info[1], 2);
    EXPECT_EQ(info[2], 0);
    EXPECT_EQ(info[7], device.getFields().size());
    EXPECT_EQ(info[12], 17);
    EXPECT_EQ(std::string(info.begin() + 13, info.begin() + 30), "MeridKestal STM32");

    EXPECT_EQ(ask({6, 2, 5, 0}), (Bytes{6, 2, 0, 8, 5, 'e', 'r', 'a', 's', 'e'}));
    EXPECT_EQ(ask({7, 2, 5, 99}), (Bytes{7, 2, SimDevice::kStatusBadIndex}));
    device.declareFieldCount(0);
    EXPECT_EQ(ask({5, 255, 1})[7], 0);
}

TEST_F(SimDeviceTest, SetsAndGetsFieldsAndCountsCommands) {
    EXPECT_EQ(ask({1, 2, 3, 0, 8, 0x78, 0x56, 0x34, 0x12}), (Bytes{1, 2, 0}));
    EXPECT_EQ(device.fieldValue("erase"), 0x12345678u);
    EXPECT_EQ(device.getCounters().eraseCommands, 1u);
    EXPECT_EQ(ask({2, 2, 4, 0}), (Bytes{2, 2, 0, 8, 0x78, 0x56, 0x34, 0x12}));
    ask({3, 2, 3, 1, 8, 1, 0, 0, 0});
    ask({4, 2, 3, 2, 8, 1, 0, 0, 0});
    EXPECT_EQ(device.getCounters().rebootCommands, 1u);
    EXPECT_EQ(device.getCounters().bootloaderCommands, 1u);
    // Too short for its type.
    EXPECT_EQ(ask({5, 2, 3, 0, 8, 1}), (Bytes{5, 2, SimDevice::kStatusBadRequest}));
    // A refused request changes nothing.
    EXPECT_EQ(ask({6, 2, 3, 0, 8, 0, 0, 0, 0}, 9), (Bytes{6, 2, 9}));
    EXPECT_EQ(device.fieldValue("erase"), 0x12345678u);
    EXPECT_EQ(ask({7, 2, 42}), (Bytes{7, 2, SimDevice::kStatusUnknownCommand}));
}

TEST_F(SimDeviceTest, KeepsAFileWrittenInSteps) {
    auto step = [&](std::uint8_t pack, std::uint32_t offset, const Bytes& chunk) {
        Bytes request{
            pack, 2, 8, 1, static_cast<std::uint8_t>(offset), static_cast<std::uint8_t>(offset >> 8), 0, 0};
        request.insert(request.end(), chunk.begin(), chunk.end());
        return ask(request);
    };
    EXPECT_EQ(step(1, 0, {}), (Bytes{1, 2, 0}));
    EXPECT_EQ(step(2, 0, {1, 2, 3}), (Bytes{2, 2, 0}));
    EXPECT_EQ(step(3, 3, {4, 5}), (Bytes{3, 2, 0}));
    EXPECT_EQ(step(4, 3, {4, 5}), (Bytes{4, 2, 0})); // a repeated chunk lands in the same place
    EXPECT_EQ(device.openImage(1), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(step(5, 4, {}), (Bytes{5, 2, SimDevice::kStatusBadRequest}));
    EXPECT_EQ(step(6, 5, {}), (Bytes{6, 2, 0}));
    ASSERT_TRUE(device.finishedImage(1));
    EXPECT_EQ(*device.finishedImage(1), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(device.getCounters().fileErases, 1u);
    EXPECT_EQ(device.getCounters().fileWrites, 3u);
    EXPECT_EQ(device.getCounters().fileFinishes, 1u);
    EXPECT_EQ(device.getCounters().finishMismatches, 1u);
    EXPECT_EQ(device.getCounters().writesWithoutErase, 0u);

    // An empty file: erase, then finish, both at offset 0.
    EXPECT_EQ(step(7, 0, {}), (Bytes{7, 2, 0}));
    EXPECT_EQ(step(8, 0, {}), (Bytes{8, 2, 0}));
    EXPECT_TRUE(device.finishedImage(1)->empty());

    // File information answers with the finished image's size and check code.
    EXPECT_EQ(ask({9, 2, 7, 1}), (Bytes{9, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(device.finishedImage(4));

    // Beyond the board's flash: refused, nothing kept.
    EXPECT_EQ(ask({10, 2, 8, 2, 0, 0, 0, 1, 0xAB}), (Bytes{10, 2, SimDevice::kStatusBadRequest}));
    EXPECT_TRUE(device.openImage(2).empty());
}
