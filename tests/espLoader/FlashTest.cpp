#include "FakeLoaderPort.h"
#include "esp_loader.h"
#include "esp_targets.h"
#include "protocol.h"

namespace {

constexpr uint32_t kMiB = 1024 * 1024;

esp_loader_error_t connect(uint32_t trials = 20) {
    esp_loader_connect_args_t args{500, trials};
    return esp_loader_connect(&args);
}

} // namespace

TEST_F(LineTest, EachChipIsFoundByItsIdOrItsMagicValue) {
    struct Row {
        target_chip_t chip;
        uint32_t id, magic, cmd, w0, efuse;
        bool encryption;
    };
    const Row rows[] = {
        {ESP8266_CHIP, 255, 0xFFF0C101, 0x60000200, 0x60000240, 0, false},
        {ESP32_CHIP, 0, 0x00F01D83, 0x3FF42000, 0x3FF42080, 0x3FF5A000, false},
        {ESP32S2_CHIP, 2, 0x000007C6, 0x3F402000, 0x3F402058, 0x3F41A000, true},
        {ESP32C3_CHIP, 5, 0x1B31506F, 0x60002000, 0x60002058, 0x60008800, true},
        {ESP32S3_CHIP, 9, 0x00000009, 0x60002000, 0x60002058, 0x60007000, true},
        {ESP32C2_CHIP, 12, 0x0C21E06F, 0x60002000, 0x60002058, 0x60008800, true},
        {ESP32C5_CHIP, 23, 0x5FD1406F, 0x60003000, 0x60003058, 0x600B4800, true},
        {ESP32H2_CHIP, 16, 0xD7B73E80, 0x60003000, 0x60003058, 0x600B0800, true},
        {ESP32C6_CHIP, 13, 0x2CE0806F, 0x60003000, 0x60003058, 0x600B0800, true},
        {ESP32P4_CHIP, 18, 0, 0x5008D000, 0x5008D058, 0x5012D000, true}, // by 0x500D0000, high bits aside
    };
    for (const Row& row : rows) {
        // By the security information's chip id (20 bytes, the id at byte 12), then by the magic value.
        for (const Bytes& info :
             {Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, uint8_t(row.id), 0, 0, 0, 0, 0, 0, 0},
              Bytes(16, 0)}) {
            line().reset();
            line().securityInfo = info;
            line().registers[0x40001000] = row.magic;
            line().registers[0x500D0000] = 0xF8000000 | 0x2207202;
            target_chip_t target = ESP_UNKNOWN_CHIP;
            const target_registers_t* reg = nullptr;
            ASSERT_EQ(loader_detect_chip(&target, &reg), ESP_LOADER_SUCCESS) << row.id;
            EXPECT_EQ(target, row.chip) << row.id << " from " << info.size() << " bytes";
            EXPECT_EQ(reg->cmd, row.cmd) << row.id;
            EXPECT_EQ(reg->w0, row.w0) << row.id;
        }
        EXPECT_EQ(get_esp_target_data(row.chip)->efuse_base, row.efuse) << row.id;
        EXPECT_EQ(encryption_in_begin_flash_cmd(row.chip), row.encryption) << row.id;
    }
    EXPECT_EQ(target_from_chip_id(1), ESP_UNKNOWN_CHIP);
    line().securityInfo = Bytes(12, 0); // the short form is an S2's
    esp_loader_security_info_t info{};
    ASSERT_EQ(esp_loader_get_security_info(&info), ESP_LOADER_SUCCESS);
    EXPECT_EQ(info.target_chip, ESP32S2_CHIP);
    EXPECT_EQ(line().requests.back().timerMs, 100u);

    line().securityInfo.reset();
    line().registers[0x40001000] = 0x12345678;
    line().registers[0x500D0000] = 0x2207203;
    target_chip_t target;
    const target_registers_t* reg;
    EXPECT_EQ(loader_detect_chip(&target, &reg), ESP_LOADER_ERROR_INVALID_TARGET);
}

TEST_F(LineTest, Esp32PinConfigFromTheEfuses) {
    const auto pins = [](uint32_t clk, uint32_t q, uint32_t d, uint32_t cs) {
        return clk | q << 5 | d << 10 | cs << 15;
    };
    const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
        {0xFFFFF, 10 << 4, 0},
        {pins(6, 7, 8, 30), 31 << 4, 6 | 7 << 6 | 8 << 12 | 32 << 18 | 33u << 24}, // 30 and up: two higher
        {pins(6, 7, 8, 6), 0, 0},
        {pins(6, 7, 7, 9), 0, 0},
        {pins(6, 7, 8, 8), 0, 6 | 7 << 6 | 8 << 12 | 8 << 18}, // cs and d aren't compared
    };
    for (const auto& [a, b, expected] : cases) {
        line().registers[0x3FF5A000 + 20] = a;
        line().registers[0x3FF5A000 + 12] = b;
        uint32_t config = 0xDEAD;
        ASSERT_EQ(spi_config_esp32(0x3FF5A000, &config), ESP_LOADER_SUCCESS);
        EXPECT_EQ(config, expected) << std::hex << a;
    }
    line().registers[0x60008800 + 72] = 0xABCD1234;
    line().registers[0x60008800 + 76] = 0x5678F0F0;
    uint32_t config = 0;
    ASSERT_EQ(spi_config_esp32xx(0x60008800, &config), ESP_LOADER_SUCCESS);
    EXPECT_EQ(config, 0x3FFFFFFFu & (0xABCDu | 0xF0F0u << 16));
}

TEST_F(LineTest, ConnectSyncsDetectsAndAttaches) {
    line().registers[0x3FF5A014] = 6 | 7 << 5 | 8 << 10 | 9 << 15;
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(opcodes(), (Bytes{0x08, 0x14, 0x0A, 0x0A, 0x0A, 0x0D}));
    const auto& r = line().requests;
    EXPECT_EQ(r[0].timerMs, 500u);
    EXPECT_EQ(r[5].timerMs, 1000u);
    EXPECT_EQ(r[5].word(8), 6u | 7 << 6 | 8 << 12 | 9 << 18);

    // Only time-outs are tried again, 100 ms apart.
    const std::tuple<int, int, uint32_t, esp_loader_error_t, size_t> cases[] = {
        {1000, 0, 20, ESP_LOADER_ERROR_TIMEOUT, 20},
        {1000, 0, 1, ESP_LOADER_ERROR_TIMEOUT, 1},
        {3, 0, 20, ESP_LOADER_SUCCESS, 4},
        {0, 1, 20, ESP_LOADER_ERROR_INVALID_RESPONSE, 1},
    };
    for (const auto& [silent, refused, trials, result, syncs] : cases) {
        line().reset();
        line().silent[0x08] = silent;
        line().refused[0x08] = refused;
        esp_loader_connect_args_t args{500, trials};
        EXPECT_EQ(loader_initialize_conn(&args), result);
        EXPECT_EQ(line().requests.size(), syncs);
        if (result == ESP_LOADER_ERROR_TIMEOUT) {
            EXPECT_EQ(line().nowMs, syncs * 500 + (syncs - 1) * 100);
        }
    }
}

TEST_F(LineTest, FlashSizeIsReadThroughTheControllerRegisters) {
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    line().registers[0x3FF4201C] = 0x11111111; // usr
    line().registers[0x3FF42024] = 0x22222222; // usr2
    line().requests.clear();
    uint32_t size = 0;
    ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS);
    EXPECT_EQ(size, 4 * kMiB);
    std::vector<std::pair<uint32_t, uint32_t>> writes;
    for (const Request& w : sent(0x09)) {
        writes.emplace_back(w.word(8), w.word(12));
    }
    EXPECT_EQ(writes, (std::vector<std::pair<uint32_t, uint32_t>>{{0x3FF4202C, 23},
                                                                  {0x3FF4201C, 0x90000000},
                                                                  {0x3FF42024, 0x7000009F},
                                                                  {0x3FF42080, 0},
                                                                  {0x3FF42000, 0x40000},
                                                                  {0x3FF4201C, 0x11111111},
                                                                  {0x3FF42024, 0x22222222}}));

    // Bit 18 of cmd, polled ten times: clear only at the tenth reading is a
    // time-out, never clear is taken as done.
    for (auto [busy, result] :
         {std::pair{8, ESP_LOADER_SUCCESS}, {9, ESP_LOADER_ERROR_TIMEOUT}, {10, ESP_LOADER_SUCCESS}}) {
        line().busyReadings = busy;
        EXPECT_EQ(esp_loader_flash_detect_size(&size), result) << busy;
    }
    line().busyReadings = 0;
    const std::pair<uint8_t, uint32_t> codes[] = {{0x12, 256 * 1024}, {0x1C, 256 * kMiB}, {0x20, 64 * kMiB},
                                                  {0x3A, 64 * kMiB},  {0x11, 0},          {0x3B, 0}};
    for (const auto& [code, bytes] : codes) {
        line().flashId = static_cast<uint32_t>(code) << 16 | 0x40EF;
        size = 0;
        EXPECT_EQ(esp_loader_flash_detect_size(&size),
                  bytes != 0 ? ESP_LOADER_SUCCESS : ESP_LOADER_ERROR_UNSUPPORTED_CHIP);
        EXPECT_EQ(size, bytes) << int(code);
    }
    // An unknown size code counts as 2 MiB for a write.
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    ASSERT_EQ(esp_loader_flash_start(0, kMiB, 1024), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(line().printed("Flash size detection failed, falling back to default"));
    EXPECT_EQ(sent(0x0B).back().word(12), 2 * kMiB);
    EXPECT_EQ(esp_loader_flash_start(0, 3 * kMiB, 1024), ESP_LOADER_ERROR_IMAGE_SIZE);
}

TEST_F(LineTest, FlashBeginBlockMath) {
    struct Case {
        target_chip_t chip;
        bool stub;
        uint32_t offset, size, block;
        esp_loader_error_t result;
        uint32_t erase, blocks, sizeField, limit;
    };
    const Case cases[] = {
        {ESP32_CHIP, false, 0, 1000, 1024, ESP_LOADER_SUCCESS, 1000, 1, 16, 3000},
        {ESP32_CHIP, false, 0, 301000, 4096, ESP_LOADER_SUCCESS, 301000, 74, 16, 3010},
        {ESP32_CHIP, false, 0, 2000000, 1024, ESP_LOADER_SUCCESS, 2000000, 1954, 16, 20000},
        {ESP32_CHIP, false, 0, 1001, 1024, ESP_LOADER_ERROR_INVALID_PARAM, 0, 0, 0, 0},
        {ESP32_CHIP, false, 2, 1000, 1024, ESP_LOADER_ERROR_INVALID_PARAM, 0, 0, 0, 0},
        {ESP32_CHIP, false, 4096, 4 * kMiB, 1024, ESP_LOADER_ERROR_IMAGE_SIZE, 0, 0, 0, 0},
        {ESP32C3_CHIP, false, 0x10000, 4096, 1024, ESP_LOADER_SUCCESS, 4096, 4, 20, 3000},
        {ESP32C3_CHIP, true, 0x10000, 4096, 1024, ESP_LOADER_SUCCESS, 4096, 4, 16, 3000},
        // The ESP8266's ROM erases by its own rule.
        {ESP8266_CHIP, false, 0, 20 * 4096, 4096, ESP_LOADER_SUCCESS, 4 * 4096, 20, 16, 3000},
        {ESP8266_CHIP, false, 0, 3 * 4096, 4096, ESP_LOADER_SUCCESS, 2 * 4096, 3, 16, 3000},
        {ESP8266_CHIP, false, 0x1000, 16 * 4096, 4096, ESP_LOADER_SUCCESS, 4096, 16, 16, 3000},
        {ESP8266_CHIP, true, 0, 3 * 4096, 4096, ESP_LOADER_SUCCESS, 3 * 4096, 3, 16, 3000},
    };
    for (const Case& c : cases) {
        line().reset();
        esp_loader_connect_args_t args{500, 1};
        ASSERT_EQ(esp_loader_connect_secure_download_mode(&args, 4 * kMiB, c.chip), ESP_LOADER_SUCCESS);
        esp_stub_set_running(c.stub);
        const size_t before = line().requests.size();
        ASSERT_EQ(esp_loader_flash_start(c.offset, c.size, c.block), c.result) << c.size;
        // Alignment is checked before any command, the size after the SPI parameters.
        const Request& begin = line().requests.back();
        if (c.result != ESP_LOADER_SUCCESS) {
            EXPECT_EQ(line().requests.size(), before + (c.result == ESP_LOADER_ERROR_IMAGE_SIZE));
            continue;
        }
        Bytes expected = packet(0x02, c.sizeField, 0, {c.erase, c.blocks, c.block, c.offset});
        if (c.sizeField == 20) {
            putWord(expected, 0);
        }
        EXPECT_EQ(begin.bytes, expected) << c.chip << " " << c.size;
        EXPECT_EQ(begin.timerMs, c.limit) << c.size;
    }
}

TEST_F(LineTest, BlocksArePaddedAndTriedThreeTimes) {
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    ASSERT_EQ(esp_loader_flash_start(0, 2148, 1024), ESP_LOADER_SUCCESS);
    Bytes block(1025, 0x5A);
    EXPECT_EQ(esp_loader_flash_write(block.data(), 1025), ESP_LOADER_ERROR_INVALID_PARAM);
    line().refused[0x03] = 2;
    ASSERT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_SUCCESS);
    line().refused[0x03] = 3;
    EXPECT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_TRUE(line().printed("Error: BAD_DATA_CHECKSUM"));
    // A last block of 100 bytes goes out whole, padded with FF in the caller's buffer.
    ASSERT_EQ(esp_loader_flash_write(block.data(), 100), ESP_LOADER_SUCCESS);
    const auto data = sent(0x03);
    ASSERT_EQ(data.size(), 7u);
    for (uint32_t i = 0; i < 7; ++i) {
        EXPECT_EQ(data[i].word(12), i) << "each attempt carries the next number";
        EXPECT_EQ(data[i].timerMs, 1000u);
    }
    Bytes expected(100, 0x5A);
    expected.resize(1024, 0xFF);
    EXPECT_EQ(Bytes(data[6].bytes.begin() + 24, data[6].bytes.end()), expected);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 1024), expected);

    ASSERT_EQ(esp_loader_flash_finish(false), ESP_LOADER_SUCCESS);
    EXPECT_EQ(line().requests.back().bytes, packet(0x04, 4, 0, {1}));
}
