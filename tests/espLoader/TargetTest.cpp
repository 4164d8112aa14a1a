#include "FakeLoaderPort.h"
#include "ScriptedRom.h"
#include "esp_loader.h"
#include "esp_targets.h"
#include "protocol.h"

#include <gtest/gtest.h>

using fakeport::Bytes;

namespace {

class Target : public fakeport::PortTest {
protected:
    static esp_loader_error_t detect(target_chip_t& target, const target_registers_t*& reg) {
        target = ESP_UNKNOWN_CHIP;
        reg = nullptr;
        return loader_detect_chip(&target, &reg);
    }
};

Bytes securityInfo(uint32_t flags, uint32_t chipId, uint32_t eco, const Bytes& middle = {}) {
    Bytes bytes;
    fakeport::putWord(bytes, flags);
    Bytes rest = middle;
    rest.resize(8, 0);
    bytes.insert(bytes.end(), rest.begin(), rest.end()); // bytes 4 to 11
    fakeport::putWord(bytes, chipId);
    fakeport::putWord(bytes, eco);
    return bytes;
}

// Builds the efuse word A of an ESP32 from four five-bit pin numbers.
uint32_t pinWord(uint32_t clk, uint32_t q, uint32_t d, uint32_t cs) {
    return clk | (q << 5) | (d << 10) | (cs << 15);
}

uint32_t esp32Config(uint32_t wordA, uint32_t wordB) {
    ScriptedRom rom;
    rom.registers[0x3FF5A000 + 20] = wordA;
    rom.registers[0x3FF5A000 + 12] = wordB;
    uint32_t config = 0xDEAD;
    EXPECT_EQ(spi_config_esp32(0x3FF5A000, &config), ESP_LOADER_SUCCESS);
    return config;
}

} // namespace

TEST_F(Target, ChipIdsMapToTargets) {
    EXPECT_EQ(target_from_chip_id(0), ESP32_CHIP);
    EXPECT_EQ(target_from_chip_id(1), ESP_UNKNOWN_CHIP);
    EXPECT_EQ(target_from_chip_id(18), ESP32P4_CHIP);
    EXPECT_EQ(target_from_chip_id(255), ESP8266_CHIP);
    EXPECT_EQ(target_from_chip_id(-1), ESP_UNKNOWN_CHIP);
}

TEST_F(Target, SecurityInfoForms) {
    ScriptedRom rom;
    // Long form. Bits 0, 3, 8, 9 and 10 set; bit 11 set too, but no field
    // reads it. Byte 4 is 0xFF and not counted; bytes 5 to 11 hold three ones.
    const uint32_t flags = (1u << 0) | (1u << 3) | (1u << 8) | (1u << 9) | (1u << 10) | (1u << 11);
    rom.securityInfo = securityInfo(flags, 9, 2, {0xFF, 0x01, 0x00, 0x03});
    esp_loader_security_info_t info = {};
    ASSERT_EQ(esp_loader_get_security_info(&info), ESP_LOADER_SUCCESS);
    EXPECT_EQ(info.target_chip, ESP32S3_CHIP);
    EXPECT_EQ(info.eco_version, 2u);
    const bool expected[12] = {true, false, false, true, false, false, false, false, true, true, true, true};
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(info.flag[i], expected[i]) << "field " << i;
    }
    EXPECT_EQ(port().requests[0].timerMs, 100u);

    // The parity counts bytes 5 to 11 only.
    const std::pair<Bytes, bool> parities[] = {{{0, 0, 0, 0, 0, 0, 0, 0x80}, true},
                                               {{0x01, 0, 0, 0, 0, 0, 0, 0}, false},
                                               {{0, 0x11, 0, 0, 0, 0, 0, 0}, false}};
    for (const auto& [middle, parity] : parities) {
        rom.securityInfo = securityInfo(0, 0, 0, middle);
        ASSERT_EQ(esp_loader_get_security_info(&info), ESP_LOADER_SUCCESS);
        EXPECT_EQ(info.flag[9], parity);
    }

    // The short form is the S2's.
    Bytes shortForm = securityInfo(0x2, 99, 99);
    shortForm.resize(12);
    rom.securityInfo = shortForm;
    ASSERT_EQ(esp_loader_get_security_info(&info), ESP_LOADER_SUCCESS);
    EXPECT_EQ(info.target_chip, ESP32S2_CHIP);
    EXPECT_EQ(info.eco_version, 0u);
    EXPECT_TRUE(info.flag[1]);

    rom.securityInfo = Bytes(16, 0);
    EXPECT_EQ(esp_loader_get_security_info(&info), ESP_LOADER_ERROR_INVALID_RESPONSE);
}

TEST_F(Target, DetectionBySecurityInfoOrTheMagicRegister) {
    target_chip_t target;
    const target_registers_t* reg;
    {
        ScriptedRom rom(ESP32C3_CHIP);
        rom.securityInfo = securityInfo(0, 5, 3);
        ASSERT_EQ(detect(target, reg), ESP_LOADER_SUCCESS);
        EXPECT_EQ(target, ESP32C3_CHIP);
        EXPECT_EQ(reg, &get_esp_target_data(ESP32C3_CHIP)->regs);
        EXPECT_EQ(port().opcodes(), std::vector<uint8_t>{GET_SECURITY_INFO});
    }
    port().reset();
    {
        // Refused: the magic register, under its own limit.
        ScriptedRom rom;
        ASSERT_EQ(detect(target, reg), ESP_LOADER_SUCCESS);
        EXPECT_EQ(target, ESP32_CHIP);
        EXPECT_EQ(reg->cmd, 0x3FF42000u);
        EXPECT_EQ(rom.registerReads, std::vector<uint32_t>{0x40001000});
        EXPECT_EQ(port().requests[1].timerMs, 1000u);
    }
    port().reset();
    {
        // Silent: the fallback comes after its hundred milliseconds.
        ScriptedRom rom;
        rom.silentOpcodes.insert(GET_SECURITY_INFO);
        rom.magic = 0x1B31506F;
        ASSERT_EQ(detect(target, reg), ESP_LOADER_SUCCESS);
        EXPECT_EQ(target, ESP32C3_CHIP);
        EXPECT_EQ(port().nowMs, 100u);
    }
    port().reset();
    {
        ScriptedRom rom;
        rom.failing[READ_REG] = {1, 6};
        EXPECT_EQ(detect(target, reg), ESP_LOADER_ERROR_INVALID_RESPONSE);
        EXPECT_EQ(target, ESP_UNKNOWN_CHIP);
    }
}

TEST_F(Target, P4IsFoundByItsChipIdRegisterWithHighBitsIgnored) {
    target_chip_t target;
    const target_registers_t* reg;
    for (uint32_t id : {0xF8000000u | 0x2207202u, 0x2207203u}) {
        port().reset();
        ScriptedRom rom;
        rom.magic = 0x12345678;
        rom.registers[0x500D0000] = id;
        if (id == 0x2207203u) {
            EXPECT_EQ(detect(target, reg), ESP_LOADER_ERROR_INVALID_TARGET);
        } else {
            ASSERT_EQ(detect(target, reg), ESP_LOADER_SUCCESS);
            EXPECT_EQ(target, ESP32P4_CHIP);
            EXPECT_EQ(reg->cmd, 0x5008D000u);
        }
    }
}

TEST_F(Target, UnlistedChipIdGivesAnEmptyRowAndNoCrash) {
    ScriptedRom rom;
    rom.securityInfo = securityInfo(0, 1, 0);
    target_chip_t target;
    const target_registers_t* reg;
    ASSERT_EQ(detect(target, reg), ESP_LOADER_SUCCESS);
    EXPECT_EQ(target, ESP_UNKNOWN_CHIP);
    ASSERT_NE(reg, nullptr);
    EXPECT_EQ(reg->cmd, 0u);
    uint32_t config = 7;
    EXPECT_NE(loader_read_spi_config(target, &config), ESP_LOADER_SUCCESS);
}

TEST_F(Target, Esp32PinRules) {
    // Default pins, by either empty pattern.
    EXPECT_EQ(esp32Config(0, 0), 0u);
    EXPECT_EQ(esp32Config(0xFFFFF, 0), 0u);
    EXPECT_EQ(esp32Config(0xFFF00000, 0), 0u); // bits above 19 don't count

    // clk 6, q 7, d 8, cs 9, hd 10 from bits 4 to 8 of word B.
    EXPECT_EQ(esp32Config(pinWord(6, 7, 8, 9), 10u << 4),
              6u | (7u << 6) | (8u << 12) | (9u << 18) | (10u << 24));

    // Numbers of 30 and above stand for two pins higher.
    EXPECT_EQ(esp32Config(pinWord(6, 7, 8, 30), 31u << 4),
              6u | (7u << 6) | (8u << 12) | (32u << 18) | (33u << 24));

    // Colliding pins keep the defaults; cs equal to d is not a collision.
    for (uint32_t word : {pinWord(6, 7, 8, 6), pinWord(6, 7, 6, 9), pinWord(6, 6, 8, 9), pinWord(6, 7, 8, 7),
                          pinWord(6, 7, 7, 9)}) {
        EXPECT_EQ(esp32Config(word, 0), 0u) << std::hex << word;
    }
    EXPECT_EQ(esp32Config(pinWord(6, 7, 8, 8), 0), 6u | (7u << 6) | (8u << 12) | (8u << 18));
}

TEST_F(Target, Esp32xxPinConfigJoinsTwoHalfWords) {
    ScriptedRom rom(ESP32C3_CHIP);
    rom.registers[0x60008800 + 72] = 0xABCD1234;
    rom.registers[0x60008800 + 76] = 0x5678F0F0;
    uint32_t config = 0;
    ASSERT_EQ(spi_config_esp32xx(0x60008800, &config), ESP_LOADER_SUCCESS);
    EXPECT_EQ(config, (0xABCDu | (0xF0F0u << 16)) & 0x3FFFFFFF);

    rom.failing[READ_REG] = {1, 6};
    config = 5;
    EXPECT_EQ(spi_config_esp32xx(0x60008800, &config), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_EQ(config, 0u);

    // Chips without a pin config get zero without traffic.
    port().requests.clear();
    config = 9;
    EXPECT_EQ(loader_read_spi_config(ESP32C6_CHIP, &config), ESP_LOADER_SUCCESS);
    EXPECT_EQ(config, 0u);
    EXPECT_TRUE(port().requests.empty());
}

TEST_F(Target, MacIsTheBigEndianReadingOfHighAndLowAndTheEsp8266HasNone) {
    {
        ScriptedRom rom;
        rom.registers[0x3FF5A004] = 0x33445566;
        rom.registers[0x3FF5A008] = 0xFFFF1122;
        uint8_t mac[6] = {};
        ASSERT_EQ(loader_read_mac(ESP32_CHIP, mac), ESP_LOADER_SUCCESS);
        EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66}));
    }
    port().reset();
    ScriptedRom rom(ESP8266_CHIP);
    rom.magic = 0xFFF0C101;
    esp_loader_connect_args_t args{100, 1};
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
    ASSERT_EQ(esp_loader_get_target(), ESP8266_CHIP);
    uint8_t mac[6] = {};
    EXPECT_EQ(esp_loader_read_mac(mac), ESP_LOADER_ERROR_UNSUPPORTED_CHIP);
}
