#include "PayloadFixture.h"

#include <fstream>
#include <string>

using payloadkit::Bytes;
using payloadkit::feed;

namespace {

Bytes pattern(std::size_t size) {
    Bytes data(size);
    std::uint32_t x = 2463534242u;
    for (auto& byte : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        byte = static_cast<std::uint8_t>(x);
    }
    return data;
}

std::uint32_t u32(const Bytes& frame, std::size_t payloadOffset) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value |= static_cast<std::uint32_t>(frame[2 + payloadOffset + i]) << (8 * i);
    }
    return value;
}

} // namespace

class FileTransferTest : public PayloadFixture {
protected:
    struct Step {
        std::uint32_t offset;
        std::size_t chunk;
        unsigned timeout;
        std::uint8_t progress;
    };

    void SetUp() override {
        PayloadFixture::SetUp();
        GlobalHandlerEvents::getInstance().addHandler(UPDATE_LOADING_STATUS, [this] {
            ++statusUpdates;
            return GlobalHandlerEvents::Success;
        });
        discover(2, 0);
    }

    std::string writeFile(const Bytes& data, const std::string& name = "image.bin") {
        const std::string path = dir.path() + "/" + name;
        std::ofstream out(path, std::ios::binary);
        out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        return path;
    }

    void startTransfer(const std::string& path, std::uint8_t fileIndex = 1) {
        MessageArgs args;
        args.device = 2;
        args.field = fileIndex;
        args.path = path;
        handler.onMessage(FILE_START_MSG, &args);
        handler.generateResponse(FILE_WRITE_MSG);
    }

    // Plays the device: answers every step with status 0 and keeps the chunks.
    std::vector<Step> runDevice(Bytes& image, std::size_t maxSteps = 1'000'000) {
        std::vector<Step> steps;
        for (std::size_t i = 0; i < maxSteps; ++i) {
            auto sent = payloadkit::drainWithTimeouts(handler);
            if (sent.empty()) {
                break;
            }
            EXPECT_EQ(sent.size(), 1u);
            const Bytes& frame = sent[0].bytes;
            EXPECT_EQ(frame, payloadkit::frame(Bytes(frame.begin() + 2, frame.end() - 1)));
            EXPECT_EQ(frame[3], 2);
            EXPECT_EQ(frame[4], FILE_WRITE_REQ);
            const std::uint32_t offset = u32(frame, 4);
            const std::size_t chunk = frame.size() - 3 - 8;
            if (chunk > 0) {
                image.resize(std::max<std::size_t>(image.size(), offset + chunk));
                std::copy(frame.begin() + 10, frame.end() - 1, image.begin() + offset);
            }
            steps.push_back(Step{offset, chunk, sent[0].timeout, handler.loadProgress.load()});
            feed(handler, payloadkit::statusAnswer(frame[2], 2));
        }
        return steps;
    }

    testsupport::TempDir dir;
    int statusUpdates = 0;
};

TEST_F(FileTransferTest, SmallFileGoesInChunksOf32) {
    const Bytes data = pattern(0x3FFFF);
    startTransfer(writeFile(data));
    EXPECT_TRUE(log.contains("File size in bytes: 262143", BaseLogger::INFO));
    Bytes image;
    auto steps = runDevice(image);
    EXPECT_EQ(image, data);
    ASSERT_EQ(steps.size(), 1 + (0x3FFFF + 31) / 32 + 1);
    // Erase: no bytes, offset 0, long time-out, progress 0.
    EXPECT_EQ(steps.front().chunk, 0u);
    EXPECT_EQ(steps.front().offset, 0u);
    EXPECT_EQ(steps.front().timeout, 20000u);
    EXPECT_EQ(steps.front().progress, 0);
    for (std::size_t i = 1; i + 2 < steps.size(); ++i) {
        EXPECT_EQ(steps[i].chunk, 32u);
        EXPECT_EQ(steps[i].offset, (i - 1) * 32);
        EXPECT_EQ(steps[i].timeout, 500u);
    }
    // A short last chunk, then the finish step at the file's size.
    EXPECT_EQ(steps[steps.size() - 2].chunk, 31u);
    EXPECT_EQ(steps.back().chunk, 0u);
    EXPECT_EQ(steps.back().offset, 0x3FFFFu);
    EXPECT_EQ(steps.back().timeout, 500u);
    EXPECT_EQ(steps.back().progress, 100);
    EXPECT_EQ(handler.loadProgress.load(), 100);
    EXPECT_EQ(statusUpdates, static_cast<int>(steps.size()) + 1);
    EXPECT_TRUE(log.contains("Firmware transfer complete: 262143 bytes in ", BaseLogger::WARNING));
    EXPECT_TRUE(log.contains(" KiB/s)"));
    auto state = handler.getFileTransferState();
    EXPECT_FALSE(state.transferTimed);
    EXPECT_EQ(state.dataSize, 0u);
    EXPECT_EQ(state.fileSize, 0u);
}

TEST_F(FileTransferTest, LargeFileGoesInChunksOf64WithAFullLastChunk) {
    const Bytes data = pattern(0x40000);
    startTransfer(writeFile(data));
    Bytes image;
    auto steps = runDevice(image);
    EXPECT_EQ(image, data);
    ASSERT_EQ(steps.size(), 1 + 0x40000 / 64 + 1);
    EXPECT_EQ(steps[1].chunk, 64u);
    EXPECT_EQ(steps[steps.size() - 2].chunk, 64u);
    EXPECT_EQ(steps.back().offset, 0x40000u);
}

TEST_F(FileTransferTest, StepFramesAreByteExact) {
    Bytes data(100);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i);
    }
    startTransfer(writeFile(data), 3);
    auto erase = payloadkit::drain(handler);
    ASSERT_EQ(erase.size(), 1u);
    std::uint8_t pack = handler.getPackNumber();
    EXPECT_EQ(erase[0], payloadkit::frame({pack, 2, FILE_WRITE_REQ, 3, 0, 0, 0, 0}));
    EXPECT_TRUE(log.contains("erase file request (device 2, file 3). Pack #" + std::to_string(pack) +
                             ", attempt #0"));
    feed(handler, payloadkit::statusAnswer(pack, 2));
    EXPECT_TRUE(log.contains("erase file response (device 2, file #3) Pack #" + std::to_string(pack)));

    auto write = payloadkit::drain(handler);
    pack = handler.getPackNumber();
    Bytes expected{pack, 2, FILE_WRITE_REQ, 3, 0, 0, 0, 0};
    expected.insert(expected.end(), data.begin(), data.begin() + 32);
    ASSERT_EQ(write.size(), 1u);
    EXPECT_EQ(write[0], payloadkit::frame(expected));
    EXPECT_EQ(write[0].size(), 43u);
    EXPECT_TRUE(log.contains("write file request (device 2, file 3, offset 0, chunk size 32). Pack #" +
                             std::to_string(pack) + ", attempt #0"));
    feed(handler, payloadkit::statusAnswer(pack, 2));
    EXPECT_TRUE(log.contains("write file response (device 2, file #3) Pack #" + std::to_string(pack)));
    auto second = payloadkit::drain(handler);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(u32(second[0], 4), 32u);
    // 32 / 100 in single precision is a hair below 0.32: the cut gives 31.
    EXPECT_EQ(handler.loadProgress.load(), 31);
}

TEST_F(FileTransferTest, SixtyFourByteChunkFrame) {
    Bytes data(0x40000, 0x7E);
    startTransfer(writeFile(data), 0);
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    auto write = payloadkit::drain(handler);
    ASSERT_EQ(write.size(), 1u);
    Bytes expected(8 + 64, 0x7E);
    const Bytes header{handler.getPackNumber(), 2, FILE_WRITE_REQ, 0, 0, 0, 0, 0};
    std::copy(header.begin(), header.end(), expected.begin());
    EXPECT_EQ(write[0], payloadkit::frame(expected));
    EXPECT_EQ(write[0].size(), 75u);
}

TEST_F(FileTransferTest, EmptyFileIsErasedAndFinishedWithoutAResultLine) {
    startTransfer(writeFile({}));
    Bytes image;
    auto steps = runDevice(image);
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].timeout, 20000u);
    EXPECT_EQ(steps[1].chunk, 0u);
    EXPECT_EQ(steps[1].offset, 0u);
    EXPECT_EQ(steps[1].timeout, 500u);
    EXPECT_TRUE(log.contains("finish file request (device 2, file 1)"));
    EXPECT_EQ(handler.loadProgress.load(), 100);
    EXPECT_FALSE(log.contains("Firmware transfer complete"));
}

TEST_F(FileTransferTest, MissingFileSendsNothing) {
    startTransfer(dir.path() + "/absent.bin");
    EXPECT_TRUE(log.contains("Can't open file.", BaseLogger::ERROR));
    EXPECT_TRUE(log.contains("Can't open file: " + dir.path() + "/absent.bin", BaseLogger::ERROR));
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.getCurrentMessage(), kNoMessage);
    EXPECT_FALSE(handler.getPendingMessage(FILE_WRITE_MSG));
}

TEST_F(FileTransferTest, SecondStartRepeatsTheStepUnderANewPack) {
    const Bytes data = pattern(200);
    const std::string path = writeFile(data);
    startTransfer(path, 1);
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    auto first = payloadkit::drain(handler);
    ASSERT_EQ(first.size(), 1u);
    const std::uint8_t oldPack = handler.getPackNumber();

    // No answer; the flow is started again with another file and index.
    startTransfer(writeFile(pattern(5), "other.bin"), 9);
    EXPECT_TRUE(log.contains("Send queue is full!", BaseLogger::WARNING));
    auto again = payloadkit::drain(handler);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0][2], static_cast<std::uint8_t>(oldPack + 1));
    EXPECT_EQ(Bytes(again[0].begin() + 3, again[0].end() - 1),
              Bytes(first[0].begin() + 3, first[0].end() - 1));
    EXPECT_EQ(handler.getFileTransferState().fileIndex, 1);

    // The late answer to the old pack no longer counts.
    feed(handler, payloadkit::statusAnswer(oldPack, 2));
    EXPECT_EQ(handler.getQueueSize(), 0u);
    Bytes image(data.begin(), data.begin() + 32);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    runDevice(image);
    EXPECT_EQ(image, data);
    EXPECT_EQ(handler.loadProgress.load(), 100);
}

TEST_F(FileTransferTest, ErrorStatusLeavesTheTransferAtRest) {
    const Bytes data = pattern(100);
    startTransfer(writeFile(data));
    payloadkit::drain(handler);
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2));
    payloadkit::drain(handler);
    const auto before = handler.getFileTransferState();
    const int updates = statusUpdates;
    feed(handler, payloadkit::statusAnswer(handler.getPackNumber(), 2, 7));
    EXPECT_TRUE(log.contains("Message with problem - error code: 7"));
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_FALSE(handler.getPendingMessage(FILE_WRITE_MSG));
    const auto after = handler.getFileTransferState();
    EXPECT_EQ(after.fileOffset, before.fileOffset);
    EXPECT_EQ(after.fileRemaining, before.fileRemaining);
    EXPECT_EQ(after.fileOffset + after.fileRemaining, after.fileSize);
    EXPECT_EQ(statusUpdates, updates);
    EXPECT_EQ(handler.loadProgress.load(), 0);
}
