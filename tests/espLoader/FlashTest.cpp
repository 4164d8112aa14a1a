#include "FakeLoaderPort.h"
#include "ScriptedRom.h"
#include "esp_loader.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <cstring>

using fakeport::Bytes;
using fakeport::Request;

namespace {

constexpr uint32_t kMiB = 1024 * 1024;

class Flash : public fakeport::PortTest {
protected:
    // Connects to the scripted chip, then forgets the connect's traffic.
    static void connect(ScriptedRom& rom, target_chip_t chip) {
        const esp_target_t* row = get_esp_target_data(chip);
        if (row->magic_values_count > 0) {
            rom.magic = row->chip_magic_value[0];
        }
        esp_loader_connect_args_t args{500, 20};
        ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
        ASSERT_EQ(esp_loader_get_target(), chip);
        port().requests.clear();
        port().prints.clear();
        rom.registerReads.clear();
        rom.registerWrites.clear();
    }
};

} // namespace

TEST_F(Flash, ConnectRunsEntrySyncDetectionAndAttachInOrder) {
    ScriptedRom rom;
    // clk 6, q 7, d 8, cs 9 and hd 10 in the efuses.
    rom.registers[0x3FF5A014] = 6 | (7 << 5) | (8 << 10) | (9 << 15);
    rom.registers[0x3FF5A00C] = 10 << 4;
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);

    EXPECT_EQ(port().enterBootloaderCalls, 1);
    EXPECT_EQ(port().opcodes(),
              (std::vector<uint8_t>{SYNC, GET_SECURITY_INFO, READ_REG, READ_REG, READ_REG, SPI_ATTACH}));
    EXPECT_EQ(rom.registerReads, (std::vector<uint32_t>{0x40001000, 0x3FF5A014, 0x3FF5A00C}));
    const auto& r = port().requests;
    EXPECT_EQ(r[0].timerMs, 500u);
    EXPECT_EQ(r[1].timerMs, 100u);
    EXPECT_EQ(r[5].timerMs, 1000u);
    EXPECT_EQ(r[5].word(8), 6u | (7u << 6) | (8u << 12) | (9u << 18) | (10u << 24));
    EXPECT_EQ(r[5].bytes.size(), 16u);
    EXPECT_EQ(esp_loader_target_flash_size(), 0u);
}

TEST_F(Flash, ConnectToAnEsp8266BringsUpTheFlashWithABegin) {
    ScriptedRom rom(ESP8266_CHIP);
    rom.magic = 0xFFF0C101;
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
    const Request& last = port().requests.back();
    EXPECT_EQ(last.opcode(), FLASH_BEGIN);
    EXPECT_EQ(last.body(), Bytes(16, 0));
}

TEST_F(Flash, SilentSyncIsTriedTheGivenNumberOfTimes) {
    ScriptedRom rom;
    rom.silentSyncs = 1000;
    esp_loader_connect_args_t args{500, 20};
    EXPECT_EQ(esp_loader_connect(&args), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port().requests.size(), 20u);
    EXPECT_EQ(port().delayedMs, 19u * 100);
    EXPECT_EQ(port().nowMs, 20u * 500 + 19u * 100);

    port().reset();
    ScriptedRom once;
    once.silentSyncs = 1000;
    args.trials = 1;
    EXPECT_EQ(loader_initialize_conn(&args), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port().requests.size(), 1u);
    EXPECT_EQ(port().delayedMs, 0u);
}

TEST_F(Flash, OnlyTimeoutsAreTriedAgain) {
    {
        ScriptedRom rom;
        rom.silentSyncs = 3;
        esp_loader_connect_args_t args{500, 20};
        ASSERT_EQ(loader_initialize_conn(&args), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().requests.size(), 4u);
    }
    port().reset();
    ScriptedRom rom;
    rom.failing[SYNC] = {1, 5};
    esp_loader_connect_args_t args{500, 20};
    EXPECT_EQ(loader_initialize_conn(&args), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_EQ(port().requests.size(), 1u);
}

TEST_F(Flash, SizeDetectionRunsTheReadIdThroughTheControllerRegisters) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    rom.registers[0x3FF4201C] = 0x11111111; // usr
    rom.registers[0x3FF42024] = 0x22222222; // usr2
    uint32_t size = 0;
    ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS);
    EXPECT_EQ(size, 4 * kMiB);

    const std::vector<std::pair<uint32_t, uint32_t>> writes = {
        {0x3FF4202C, 23},      {0x3FF4201C, 0x90000000}, {0x3FF42024, 0x7000009F}, {0x3FF42080, 0},
        {0x3FF42000, 0x40000}, {0x3FF4201C, 0x11111111}, {0x3FF42024, 0x22222222},
    };
    EXPECT_EQ(rom.registerWrites, writes);
    EXPECT_EQ(rom.registerReads, (std::vector<uint32_t>{0x3FF4201C, 0x3FF42024, 0x3FF42000, 0x3FF42080}));
    for (const Request& r : port().requests) {
        EXPECT_EQ(r.timerMs, 1000u);
        if (r.opcode() == WRITE_REG) {
            EXPECT_EQ(r.word(16), 0xFFFFFFFFu);
            EXPECT_EQ(r.word(20), 0u);
        }
    }
}

TEST_F(Flash, Esp8266SizeDetectionSetsTheLengthInUsr1) {
    ScriptedRom rom(ESP8266_CHIP);
    connect(rom, ESP8266_CHIP);
    uint32_t size = 0;
    ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom.registerWrites.front(), (std::pair<uint32_t, uint32_t>{0x60000220, 0x1700}));
}

TEST_F(Flash, TenPollRule) {
    struct Case {
        int busy;
        esp_loader_error_t result;
        size_t cmdReads;
    };
    // Clear on reading 9: done. Clear only on reading 10: time-out. Never
    // clear within ten readings: taken as done.
    const Case cases[] = {{0, ESP_LOADER_SUCCESS, 1},
                          {8, ESP_LOADER_SUCCESS, 9},
                          {9, ESP_LOADER_ERROR_TIMEOUT, 10},
                          {10, ESP_LOADER_SUCCESS, 10},
                          {50, ESP_LOADER_SUCCESS, 10}};
    for (const Case& c : cases) {
        port().reset();
        ScriptedRom rom;
        connect(rom, ESP32_CHIP);
        rom.busyReadings = c.busy;
        uint32_t size = 0;
        EXPECT_EQ(esp_loader_flash_detect_size(&size), c.result) << c.busy;
        EXPECT_EQ(std::count(rom.registerReads.begin(), rom.registerReads.end(), 0x3FF42000u),
                  static_cast<long>(c.cmdReads))
            << c.busy;
    }
}

TEST_F(Flash, SizeCodes) {
    const std::pair<uint8_t, uint32_t> codes[] = {
        {0x12, 256 * 1024}, {0x1C, 256 * kMiB}, {0x20, 64 * kMiB}, {0x22, 256 * kMiB}, {0x3A, 64 * kMiB}};
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    for (const auto& [code, bytes] : codes) {
        rom.flashId = (static_cast<uint32_t>(code) << 16) | 0x40EF;
        uint32_t size = 0;
        ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS) << int(code);
        EXPECT_EQ(size, bytes) << int(code);
    }
    for (uint8_t code : {0x11, 0x1D, 0x23, 0x3B}) {
        rom.flashId = (static_cast<uint32_t>(code) << 16) | 0x40EF;
        uint32_t size = 0;
        EXPECT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_ERROR_UNSUPPORTED_CHIP) << int(code);
    }
}

TEST_F(Flash, UnknownSizeCodeFallsBackToTwoMebibytes) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    rom.flashId = 0x1E40EF;
    ASSERT_EQ(esp_loader_flash_start(0, kMiB, 1024), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(port().printed("Flash size detection failed, falling back to default"));
    EXPECT_EQ(esp_loader_target_flash_size(), 2 * kMiB);
    const auto params = requestsOf(SPI_SET_PARAMS);
    ASSERT_EQ(params.size(), 1u);
    EXPECT_EQ(params[0]->word(12), 2 * kMiB);

    EXPECT_EQ(esp_loader_flash_start(0, 3 * kMiB, 1024), ESP_LOADER_ERROR_IMAGE_SIZE);
    // The size stays known: no second detection.
    EXPECT_EQ(requestsOf(SPI_SET_PARAMS).size(), 2u);
    EXPECT_EQ(std::count(rom.registerWrites.begin(), rom.registerWrites.end(),
                         std::pair<uint32_t, uint32_t>{0x3FF42000, 0x40000}),
              1);
}

TEST_F(Flash, UnalignedImageIsRefusedBeforeAnyCommand) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    EXPECT_EQ(esp_loader_flash_start(0, 1001, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(esp_loader_flash_start(2, 1000, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(esp_loader_flash_start(0, 1, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_TRUE(port().requests.empty());

    ASSERT_EQ(esp_loader_flash_start(0, 1000, 1024), ESP_LOADER_SUCCESS);
    const auto begins = requestsOf(FLASH_BEGIN);
    ASSERT_EQ(begins.size(), 1u);
    // erase size, blocks, block size, offset; no encryption word on an ESP32
    EXPECT_EQ(begins[0]->bytes.size(), 24u);
    EXPECT_EQ(begins[0]->word(8), 1000u);
    EXPECT_EQ(begins[0]->word(12), 1u);
    EXPECT_EQ(begins[0]->word(16), 1024u);
    EXPECT_EQ(begins[0]->word(20), 0u);
}

TEST_F(Flash, EraseLimitGrowsWithTheImage) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    for (auto [size, limit] :
         {std::pair{100000u, 3000u}, {2000000u, 20000u}, {300000u, 3000u}, {301000u, 3010u}}) {
        ASSERT_EQ(esp_loader_flash_start(0, size, 1024), ESP_LOADER_SUCCESS);
        EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->timerMs, limit) << size;
    }
}

TEST_F(Flash, EncryptionWordFollowsTheRowUnderTheRomOnly) {
    ScriptedRom rom(ESP32C3_CHIP);
    connect(rom, ESP32C3_CHIP);
    ASSERT_EQ(esp_loader_flash_start(0x10000, 4096, 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->sizeField(), 20u);
    EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->bytes.size(), 28u);

    esp_stub_set_running(true);
    ASSERT_EQ(esp_loader_flash_start(0x10000, 4096, 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->sizeField(), 16u);
}

TEST_F(Flash, Esp8266RomEraseSizeRule) {
    ScriptedRom rom(ESP8266_CHIP);
    connect(rom, ESP8266_CHIP);
    struct Case {
        uint32_t offset;
        uint32_t size;
        uint32_t erase;
    };
    const Case cases[] = {
        {0, 20 * 4096, 4 * 4096},      // more sectors than the head of the block
        {0, 3 * 4096, 2 * 4096},       // fewer: half of them, rounded up
        {0x1000, 16 * 4096, 1 * 4096}, // head of 15 at sector 1
        {0, 4, 4096},                  // one partial sector
    };
    for (const Case& c : cases) {
        ASSERT_EQ(esp_loader_flash_start(c.offset, c.size, 1024), ESP_LOADER_SUCCESS);
        EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->word(8), c.erase) << c.offset << "+" << c.size;
    }
    esp_stub_set_running(true);
    ASSERT_EQ(esp_loader_flash_start(0, 3 * 4096, 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_BEGIN).back()->word(8), 3u * 4096);
}

TEST_F(Flash, ShortLastBlockIsPaddedWithFFInTheCallersBuffer) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    ASSERT_EQ(esp_loader_flash_start(0, 1124, 1024), ESP_LOADER_SUCCESS);
    Bytes block(1024, 0x00);
    for (size_t i = 0; i < 100; ++i) {
        block[i] = static_cast<uint8_t>(i + 1);
    }
    ASSERT_EQ(esp_loader_flash_write(block.data(), 100), ESP_LOADER_SUCCESS);
    const Request& data = *requestsOf(FLASH_DATA).back();
    EXPECT_EQ(data.sizeField(), 1024u + 16);
    EXPECT_EQ(data.word(8), 1024u);
    Bytes sent(data.bytes.begin() + 24, data.bytes.end());
    ASSERT_EQ(sent.size(), 1024u);
    for (size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(sent[i], i + 1);
    }
    EXPECT_EQ(std::count(sent.begin() + 100, sent.end(), 0xFF), 924);
    EXPECT_EQ(Bytes(block.begin() + 100, block.end()), Bytes(924, 0xFF));

    Bytes big(1025);
    EXPECT_EQ(esp_loader_flash_write(big.data(), 1025), ESP_LOADER_ERROR_INVALID_PARAM);
}

TEST_F(Flash, DataBlockIsTriedThreeTimes) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    ASSERT_EQ(esp_loader_flash_start(0, 2048, 1024), ESP_LOADER_SUCCESS);
    Bytes block(1024, 0x5A);

    rom.failDataBlocks = 2;
    ASSERT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_DATA).size(), 3u);

    rom.failDataBlocks = 3;
    EXPECT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_ERROR_INVALID_RESPONSE);
    const auto data = requestsOf(FLASH_DATA);
    ASSERT_EQ(data.size(), 6u);
    for (size_t i = 0; i < data.size(); ++i) {
        EXPECT_EQ(data[i]->word(12), i) << "each attempt carries the next number";
        EXPECT_EQ(data[i]->timerMs, 1000u);
    }
    EXPECT_TRUE(port().printed("Error: BAD_DATA_CHECKSUM"));
}

TEST_F(Flash, FinishAndEraseUnderTheRom) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    ASSERT_EQ(esp_loader_flash_finish(false), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().requests.back().word(8), 1u); // stay in the loader
    ASSERT_EQ(esp_loader_flash_finish(true), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().requests.back().word(8), 0u);
    port().requests.clear();

    EXPECT_EQ(esp_loader_flash_erase_region(0x1000, 0x800), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(esp_loader_flash_erase_region(0x800, 0x1000), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_TRUE(port().requests.empty());

    EXPECT_EQ(esp_loader_flash_erase_region(4 * kMiB - 0x1000, 0x2000), ESP_LOADER_ERROR_FAIL);
    EXPECT_TRUE(requestsOf(FLASH_BEGIN).empty());

    ASSERT_EQ(esp_loader_flash_erase_region(0x10000, 0x3000), ESP_LOADER_SUCCESS);
    const Request& begin = *requestsOf(FLASH_BEGIN).back();
    EXPECT_EQ(begin.word(8), 0x3000u);
    EXPECT_EQ(begin.word(16), 1024u);
    EXPECT_EQ(begin.word(20), 0x10000u);

    // The whole chip is a begin over all of it.
    ASSERT_EQ(esp_loader_flash_erase(), ESP_LOADER_SUCCESS);
    const Request& whole = *requestsOf(FLASH_BEGIN).back();
    EXPECT_EQ(whole.word(8), 4 * kMiB);
    EXPECT_EQ(whole.word(12), 4096u);
    EXPECT_EQ(whole.timerMs, 41943u);
    EXPECT_TRUE(requestsOf(ERASE_FLASH).empty());
}

TEST_F(Flash, EraseWithTheStubUsesItsCommands) {
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    esp_stub_set_running(true);
    ASSERT_EQ(esp_loader_flash_erase(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(ERASE_FLASH).back()->timerMs, 41943u);
    ASSERT_EQ(esp_loader_flash_erase_region(0x1000, 0x1000), ESP_LOADER_SUCCESS);
    const Request& region = *requestsOf(ERASE_REGION).back();
    EXPECT_EQ(region.word(8), 0x1000u);
    EXPECT_EQ(region.word(12), 0x1000u);
    EXPECT_EQ(region.timerMs, 3000u);
    EXPECT_TRUE(requestsOf(FLASH_BEGIN).empty());
}

TEST_F(Flash, RomReadInSixtyFourByteBlocks) {
    ScriptedRom rom;
    rom.flash.resize(4096);
    for (size_t i = 0; i < rom.flash.size(); ++i) {
        rom.flash[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    connect(rom, ESP32_CHIP);

    Bytes out(0x50, 0);
    ASSERT_EQ(esp_loader_flash_read(out.data(), 0x30, 0x50), ESP_LOADER_SUCCESS);
    EXPECT_EQ(out, Bytes(rom.flash.begin() + 0x30, rom.flash.begin() + 0x80));
    const auto reads = requestsOf(READ_FLASH_ROM);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0]->word(8), 0u);
    EXPECT_EQ(reads[1]->word(8), 0x40u);

    port().requests.clear();
    ASSERT_EQ(esp_loader_flash_read(out.data(), 0x40, 0), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(requestsOf(READ_FLASH_ROM).empty());

    EXPECT_EQ(esp_loader_flash_read(out.data(), 4 * kMiB - 4, 8), ESP_LOADER_ERROR_IMAGE_SIZE);
}

TEST_F(Flash, StubReadStreamsWithAcknowledgementsAndADigest) {
    ScriptedRom rom;
    rom.flash.resize(8192);
    for (size_t i = 0; i < rom.flash.size(); ++i) {
        rom.flash[i] = static_cast<uint8_t>((i * 13) ^ (i >> 8));
    }
    connect(rom, ESP32_CHIP);
    esp_stub_set_running(true);

    Bytes out(600, 0);
    ASSERT_EQ(esp_loader_flash_read(out.data(), 0x102, 600), ESP_LOADER_SUCCESS);
    EXPECT_EQ(out, Bytes(rom.flash.begin() + 0x102, rom.flash.begin() + 0x102 + 600));
    const Request& read = *requestsOf(READ_FLASH_STUB).back();
    EXPECT_EQ(read.word(8), 0x100u);
    EXPECT_EQ(read.word(12), 604u); // 600 + 2 ahead, rounded up to words
    EXPECT_EQ(read.word(16), 256u);

    // Acknowledgements carry the running count: 256, 512, 604.
    std::vector<uint32_t> acks;
    for (const Request& r : port().requests) {
        if (r.bytes.size() == 4) {
            acks.push_back(r.word(0));
        }
    }
    EXPECT_EQ(acks, (std::vector<uint32_t>{256, 512, 604}));

    port().requests.clear();
    rom.wrongDigest = true;
    EXPECT_EQ(esp_loader_flash_read(out.data(), 0, 16), ESP_LOADER_ERROR_INVALID_MD5);
}

TEST_F(Flash, TransmissionRateRules) {
    {
        ScriptedRom rom(ESP8266_CHIP);
        connect(rom, ESP8266_CHIP);
        EXPECT_EQ(esp_loader_change_transmission_rate(921600), ESP_LOADER_ERROR_UNSUPPORTED_FUNC);
        EXPECT_EQ(esp_loader_change_transmission_rate_stub(115200, 921600),
                  ESP_LOADER_ERROR_UNSUPPORTED_FUNC);
    }
    port().reset();
    {
        ScriptedRom rom;
        connect(rom, ESP32_CHIP);
        ASSERT_EQ(esp_loader_change_transmission_rate(921600), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().requests.back().word(8), 921600u);
        EXPECT_EQ(port().requests.back().word(12), 0u);
        EXPECT_EQ(esp_loader_change_transmission_rate_stub(115200, 921600),
                  ESP_LOADER_ERROR_UNSUPPORTED_FUNC);

        esp_stub_set_running(true);
        EXPECT_EQ(esp_loader_change_transmission_rate(921600), ESP_LOADER_ERROR_UNSUPPORTED_FUNC);
        const uint64_t delayed = port().delayedMs;
        ASSERT_EQ(esp_loader_change_transmission_rate_stub(115200, 460800), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().requests.back().word(8), 460800u);
        EXPECT_EQ(port().requests.back().word(12), 115200u);
        EXPECT_EQ(port().delayedMs - delayed, 25u);
    }
    port().reset();
    {
        ScriptedRom rom(ESP32C2_CHIP);
        connect(rom, ESP32C2_CHIP);
        rom.registers[0x60000014] = 200; // 200 * 115200 is below 34000000: a 26 MHz crystal
        ASSERT_EQ(esp_loader_change_transmission_rate(115200), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().requests.back().word(8), 115200u * 40 / 26);
        rom.registers[0x60000014] = 400;
        ASSERT_EQ(esp_loader_change_transmission_rate(115200), ESP_LOADER_SUCCESS);
        EXPECT_EQ(port().requests.back().word(8), 115200u);
    }
}

TEST_F(Flash, DeflateRules) {
    {
        ScriptedRom rom(ESP8266_CHIP);
        connect(rom, ESP8266_CHIP);
        EXPECT_EQ(esp_loader_flash_deflate_start(0, 4096, 100, 1024), ESP_LOADER_ERROR_UNSUPPORTED_FUNC);
        EXPECT_TRUE(port().requests.empty());
    }
    port().reset();
    ScriptedRom rom;
    connect(rom, ESP32_CHIP);
    // Only the offset needs alignment; blocks come from the compressed size.
    ASSERT_EQ(esp_loader_flash_deflate_start(0x1000, 4097, 2100, 1024), ESP_LOADER_SUCCESS);
    const Request& begin = *requestsOf(FLASH_DEFL_BEGIN).back();
    EXPECT_EQ(begin.word(8), 4097u);
    EXPECT_EQ(begin.word(12), 3u);
    EXPECT_EQ(esp_loader_flash_deflate_start(2, 4096, 100, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    ASSERT_EQ(esp_loader_flash_deflate_start(0x1000, 4097, 2100, 1024), ESP_LOADER_SUCCESS);

    const uint8_t compressed[] = {1, 2, 3};
    ASSERT_EQ(esp_loader_flash_deflate_write(compressed, 3), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_DEFL_DATA).back()->word(8), 3u); // not padded
    Bytes big(1025);
    EXPECT_EQ(esp_loader_flash_deflate_write(big.data(), 1025), ESP_LOADER_ERROR_INVALID_PARAM);

    const size_t before = port().requests.size();
    ASSERT_EQ(esp_loader_flash_deflate_finish(false), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().requests.size(), before);
    ASSERT_EQ(esp_loader_flash_deflate_finish(true), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_DEFL_END).back()->word(8), 0u);
    esp_stub_set_running(true);
    ASSERT_EQ(esp_loader_flash_deflate_finish(false), ESP_LOADER_SUCCESS);
    EXPECT_EQ(requestsOf(FLASH_DEFL_END).back()->word(8), 1u);

    esp_loader_reset_target();
    EXPECT_FALSE(esp_stub_get_running());
    EXPECT_EQ(port().resetCalls, 1);
}

TEST_F(Flash, SecureDownloadModeSkipsDetectionForAKnownTarget) {
    ScriptedRom rom(ESP32S3_CHIP);
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect_secure_download_mode(&args, 8 * kMiB, ESP32S3_CHIP), ESP_LOADER_SUCCESS);
    EXPECT_EQ(port().opcodes(), (std::vector<uint8_t>{SYNC, SPI_ATTACH}));
    EXPECT_EQ(port().requests.back().word(8), 0u);
    EXPECT_EQ(esp_loader_target_flash_size(), 8 * kMiB);
    EXPECT_EQ(esp_loader_get_target(), ESP32S3_CHIP);
}
