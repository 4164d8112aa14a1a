#include "PayloadTestKit.h"

#include <string>

using namespace payloadtest;

namespace {

class FileTransferTest : public PayloadTest {
protected:
    void SetUp() override {
        PayloadTest::SetUp();
        GlobalHandlerEvents::getInstance().addHandler(UPDATE_LOADING_STATUS, [this] {
            ++statusUpdates;
            return GlobalHandlerEvents::Success;
        });
        discover(2, 0);
    }

    std::string file(const Bytes& data, const std::string& name = "image.bin") {
        EXPECT_TRUE(testsupport::writeFile(dir.path() + "/" + name, data));
        return dir.path() + "/" + name;
    }

    testsupport::TempDir dir;
    int statusUpdates = 0;
};

} // namespace

TEST_F(FileTransferTest, EraseWritesInChunksByTheFileSizeAndFinish) {
    // File size, chunk limit, last chunk.
    const std::uint32_t cases[][3] = {{0x3FFFF, 32, 31}, {0x40000, 64, 64}, {100, 32, 4}, {0, 32, 0}};
    for (const auto& [size, limit, last] : cases) {
        log.clear();
        statusUpdates = 0;
        Bytes data(size);
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<std::uint8_t>(i * 7 % 251);
        }
        ask(FILE_START_MSG, 2, 1, file(data));
        // Plays the device: checks each step's frame and answers it with status 0.
        std::vector<std::size_t> chunks;
        std::vector<int> progress;
        std::uint32_t offset = 0;
        for (auto sent = drain(); !sent.empty(); sent = drain()) {
            const std::size_t chunk = sent[0].bytes.size() - 11;
            ASSERT_LE(offset + chunk, data.size());
            Bytes payload{pack(), 2, FILE_WRITE_REQ, 1};
            for (int shift = 0; shift < 32; shift += 8) {
                payload.push_back(static_cast<std::uint8_t>(offset >> shift));
            }
            payload.insert(payload.end(), data.begin() + offset, data.begin() + offset + chunk);
            EXPECT_EQ(sent[0].bytes, frame(payload)) << offset;
            EXPECT_EQ(sent[0].timeout, chunks.empty() ? 20000u : 500u) << offset;
            chunks.push_back(chunk);
            progress.push_back(handler.loadProgress.load());
            offset += static_cast<std::uint32_t>(chunk);
            answer(2);
        }
        std::vector<std::size_t> expected{0};
        expected.insert(expected.end(), (size - last) / limit, limit);
        if (last != 0) {
            expected.push_back(last);
        }
        expected.push_back(0);
        EXPECT_EQ(chunks, expected) << size;
        // The erase step shows 0; the finish step keeps the value before it,
        // and only the device's answer to it makes 100.
        EXPECT_EQ(progress.front(), 0);
        EXPECT_EQ(progress.back(), progress[progress.size() - 2]);
        EXPECT_LT(progress.back(), 100);
        if (size == 100) {
            // 32 / 100 in single precision is a hair below 0.32: the cut gives 31.
            EXPECT_EQ(progress[2], 31);
            for (const char* step : {"erase file request (device 2, file 1). Pack #",
                                     "write file request (device 2, file 1, offset 96, chunk size 4). Pack #",
                                     "finish file request (device 2, file 1). Pack #"}) {
                EXPECT_TRUE(log.contains(step, BaseLogger::INFO)) << step;
            }
        }
        EXPECT_EQ(handler.loadProgress.load(), 100);
        EXPECT_EQ(statusUpdates, static_cast<int>(chunks.size()) + 1);
        EXPECT_EQ(log.contains("Firmware transfer complete: " + std::to_string(size) + " bytes in "),
                  size != 0);
    }
}

// A file that cannot be opened sends nothing; a second start during a
// transfer neither reads the new file nor changes the index, and sends the
// step in flight again under the next pack number.
TEST_F(FileTransferTest, MissingFileAndSecondStart) {
    ask(FILE_START_MSG, 2, 1, dir.path() + "/absent.bin");
    EXPECT_TRUE(log.contains("Can't open file: " + dir.path() + "/absent.bin", BaseLogger::ERROR));
    EXPECT_EQ(handler.getQueueSize(), 0u);
    EXPECT_EQ(handler.getCurrentMessage(), kNoMessage);

    ask(FILE_START_MSG, 2, 1, file(Bytes(200, 0x5A)));
    answer(2);
    ask(FILE_START_MSG, 2, 9, file(Bytes(5, 0xA5), "other.bin"));
    EXPECT_EQ(handler.getFileTransferState().fileIndex, 1);
    auto sent = drain();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[2].bytes[2], static_cast<std::uint8_t>(sent[1].bytes[2] + 1));
    EXPECT_EQ(Bytes(sent[2].bytes.begin() + 3, sent[2].bytes.end() - 1),
              Bytes(sent[1].bytes.begin() + 3, sent[1].bytes.end() - 1));
}

// The finish's answer still counts one read period after its time-out; a
// refusal, the second time-out or a failed read gives the finish up, which
// is told once and keeps the bar below the end, and a later answer is not
// taken. A write step left unanswered is no finish.
TEST_F(FileTransferTest, AFinishIsGivenUpOnceWhenRefusedAtItsSecondTimeOutOrWhenTheLinkFails) {
    ask(FILE_START_MSG, 2, 0, file(Bytes(40, 0x11)));
    drain();
    answer(2);
    drain();
    handler.onResponseTimeout();
    EXPECT_FALSE(handler.finishUnconfirmed.load());

    enum End { AnsweredLate, Refused, Unanswered, LinkFailed };
    for (const End end : {AnsweredLate, Refused, Unanswered, LinkFailed}) {
        SCOPED_TRACE(end);
        handler.resetState();
        // The erase step and two chunks, then the finish.
        ask(FILE_START_MSG, 2, 0, file(Bytes(40, 0x11)));
        for (int step = 0; step < 3; ++step) {
            drain();
            answer(2);
        }
        drain();
        ASSERT_TRUE(handler.getFileTransferState().fileFinishing);
        const int updates = statusUpdates;
        if (end == LinkFailed) {
            handler.onLinkFailure();
        } else {
            if (end == Refused) {
                answer(2, 5);
            }
            handler.onResponseTimeout();
            if (end != AnsweredLate) {
                handler.onResponseTimeout();
            }
        }
        EXPECT_EQ(handler.finishUnconfirmed.exchange(false), end != AnsweredLate);
        EXPECT_EQ(statusUpdates, updates + (end != AnsweredLate));
        answer(2);
        EXPECT_EQ(handler.loadProgress.load(), end == AnsweredLate ? 100 : 80);
        EXPECT_FALSE(handler.finishUnconfirmed.load());
    }
}
