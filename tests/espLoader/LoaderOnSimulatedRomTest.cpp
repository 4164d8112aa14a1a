// The whole loader against the simulated ESP32 ROM, in memory: what the
// loader sends must satisfy the chip's own checks, byte for byte.
#include "EspRomSimulator.h"
#include "FakeLoaderPort.h"
#include "esp_loader.h"
#include "esp_stubs.h"
#include "protocol.h"

#include <gtest/gtest.h>

#include <zlib.h>

using fakeport::Bytes;
using fakeport::FakePort;

namespace {

class LoaderOnSimulatedRom : public ::testing::Test {
protected:
    void SetUp() override { attach(std::make_unique<EspRomSimulator>()); }

    void attach(std::unique_ptr<EspRomSimulator> next) {
        port().reset();
        rom = std::move(next);
        port().onWrite = [this](const uint8_t* data, size_t size) {
            rom->feed(data, size, [](const uint8_t* out, size_t n) { port().pushRaw(Bytes(out, out + n)); });
        };
    }

    static FakePort& port() { return FakePort::instance(); }

    static Bytes image(size_t size, uint32_t seed) {
        Bytes bytes(size);
        for (size_t i = 0; i < size; ++i) {
            seed = seed * 1103515245u + 12345u;
            bytes[i] = static_cast<uint8_t>(seed >> 16);
        }
        return bytes;
    }

    esp_loader_error_t connect() {
        esp_loader_connect_args_t args{500, 20};
        return esp_loader_connect(&args);
    }

    // Writes an image as the program does: block by block, padded.
    esp_loader_error_t write(uint32_t offset, const Bytes& bytes, uint32_t block) {
        LOADER_TRY(esp_loader_flash_start(offset, static_cast<uint32_t>(bytes.size()), block));
        Bytes buffer(block);
        for (size_t at = 0; at < bytes.size(); at += block) {
            const size_t n = std::min<size_t>(block, bytes.size() - at);
            std::copy(bytes.begin() + at, bytes.begin() + at + n, buffer.begin());
            LOADER_TRY(esp_loader_flash_write(buffer.data(), static_cast<uint32_t>(n)));
        }
        return esp_loader_flash_finish(false);
    }

    std::unique_ptr<EspRomSimulator> rom;
};

} // namespace

TEST_F(LoaderOnSimulatedRom, NewerRomAnswersTheSecurityInfo) {
    EspRomSimulator::Config config;
    config.answerSecurityInfo = true;
    config.spiPinsWordA = 6 | (7 << 5) | (8 << 10) | (9 << 15);
    attach(std::make_unique<EspRomSimulator>(config));
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(esp_loader_get_target(), ESP32_CHIP);
    EXPECT_EQ(rom->counters().refusals, 0u);
    EXPECT_EQ(rom->counters().spiConfig, 6u | (7u << 6) | (8u << 12) | (9u << 18));
}

TEST_F(LoaderOnSimulatedRom, ReadsBackUnderTheRom) {
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    const Bytes bytes = image(300, 3);
    rom->fillFlash(0x2000, bytes);
    Bytes out(250);
    ASSERT_EQ(esp_loader_flash_read(out.data(), 0x2000 + 21, 250), ESP_LOADER_SUCCESS);
    EXPECT_EQ(out, Bytes(bytes.begin() + 21, bytes.begin() + 271));
    uint8_t mac[6] = {};
    ASSERT_EQ(esp_loader_read_mac(mac), ESP_LOADER_SUCCESS);
    EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{0xA1, 0xB2, 0x7A, 0x5B, 0x3C, 0x4D}));
}

TEST_F(LoaderOnSimulatedRom, StubLoadsGreetsAndServesItsCommands) {
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect_with_stub(&args), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(esp_stub_get_running());
    const auto counters = rom->counters();
    EXPECT_TRUE(counters.stubRunning);
    EXPECT_EQ(counters.memBlocks, 4u); // 6144 + 6144 + 596 of code, 468 of data

    // The stub's SPI attach is the short one.
    ASSERT_EQ(loader_spi_attach_cmd(0), ESP_LOADER_SUCCESS);

    const Bytes bytes = image(20000, 4);
    ASSERT_EQ(write(0x3000, bytes, 4096), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom->flash(0x3000, 20000), bytes);

    Bytes out(1000);
    ASSERT_EQ(esp_loader_flash_read(out.data(), 0x3000 + 3, 1000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(out, Bytes(bytes.begin() + 3, bytes.begin() + 1003));

    uint8_t digest[32] = {};
    ASSERT_EQ(loader_md5_cmd(0x3000, 20000, digest), ESP_LOADER_SUCCESS);

    ASSERT_EQ(esp_loader_flash_erase_region(0x4000, 0x1000), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom->flash(0x4000, 0x1000), Bytes(0x1000, 0xFF));
    ASSERT_EQ(esp_loader_flash_erase(), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom->flash(0x3000, 20000), Bytes(20000, 0xFF));

    ASSERT_EQ(esp_loader_change_transmission_rate_stub(115200, 921600), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom->counters().baudRate, 921600u);

    // The stub's own addresses are off limits now.
    EXPECT_EQ(esp_loader_mem_start(0x40080000, 16, 16), ESP_LOADER_ERROR_INVALID_PARAM);
}

TEST_F(LoaderOnSimulatedRom, CompressedWriteIsInflatedIntoTheFlash) {
    ASSERT_EQ(connect(), ESP_LOADER_SUCCESS);
    Bytes bytes = image(30000, 5);
    std::fill(bytes.begin() + 5000, bytes.begin() + 20000, 0x42);
    uLongf packedSize = compressBound(static_cast<uLong>(bytes.size()));
    Bytes packed(packedSize);
    ASSERT_EQ(compress2(packed.data(), &packedSize, bytes.data(), static_cast<uLong>(bytes.size()), 9), Z_OK);
    packed.resize(packedSize);

    ASSERT_EQ(esp_loader_flash_deflate_start(0x8000, static_cast<uint32_t>(bytes.size()),
                                             static_cast<uint32_t>(packed.size()), 1024),
              ESP_LOADER_SUCCESS);
    for (size_t at = 0; at < packed.size(); at += 1024) {
        const size_t n = std::min<size_t>(1024, packed.size() - at);
        ASSERT_EQ(esp_loader_flash_deflate_write(packed.data() + at, static_cast<uint32_t>(n)),
                  ESP_LOADER_SUCCESS);
    }
    ASSERT_EQ(esp_loader_flash_deflate_finish(true), ESP_LOADER_SUCCESS);
    EXPECT_EQ(rom->flash(0x8000, 30000), bytes);
}
