#pragma once

#include "esp_loader_error.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// The chips the loader knows, as indices into every per-chip table.
enum target_chip_t : int32_t {
    ESP8266_CHIP = 0,
    ESP32_CHIP = 1,
    ESP32S2_CHIP = 2,
    ESP32C3_CHIP = 3,
    ESP32S3_CHIP = 4,
    ESP32C2_CHIP = 5,
    ESP32C5_CHIP = 6,
    ESP32H2_CHIP = 7,
    ESP32C6_CHIP = 8,
    ESP32P4_CHIP = 9,
    ESP_MAX_CHIP = 10,
    ESP_UNKNOWN_CHIP = 10,
};

// Registers of the SPI flash controller, by which the flash is identified.
struct target_registers_t {
    uint32_t cmd;
    uint32_t usr;
    uint32_t usr1;
    uint32_t usr2;
    uint32_t w0;
    uint32_t mosi_dlen;
    uint32_t miso_dlen;
};

using read_spi_config_t = esp_loader_error_t (*)(uint32_t efuse_base, uint32_t* spi_config);

struct esp_target_t {
    target_registers_t regs;
    uint32_t efuse_base;
    const uint32_t* chip_magic_value;
    uint8_t magic_values_count;
    uint32_t mac_efuse_offset;
    uint32_t chip_id;
    read_spi_config_t read_spi_config;
    bool encryption_in_begin_flash_cmd;
};

// Fields 0 to 8 are bits 0 to 8 of the chip's flag word, field 9 the parity
// of response bytes 5 to 11, fields 10 and 11 bits 9 and 10.
struct esp_loader_security_info_t {
    target_chip_t target_chip;
    uint32_t eco_version;
    bool flag[12];
};

// The register every chip's ROM leaves a chip-specific value in.
constexpr uint32_t kChipMagicRegister = 0x40001000;
// Identifies the P4, whose magic register holds nothing useful.
constexpr uint32_t kP4ChipIdRegister = 0x500D0000;
constexpr uint32_t kP4ChipIdValue = 0x2207202;

esp_loader_error_t loader_detect_chip(target_chip_t* target, const target_registers_t** reg);
target_chip_t target_from_chip_id(int chip_id);
// The row of a target; ESP_UNKNOWN_CHIP gives an empty row.
const esp_target_t* get_esp_target_data(target_chip_t target);
esp_loader_error_t loader_read_spi_config(target_chip_t target, uint32_t* spi_config);
bool encryption_in_begin_flash_cmd(target_chip_t target);
esp_loader_error_t loader_read_mac(target_chip_t target, uint8_t* mac);
esp_loader_error_t esp_loader_read_mac(uint8_t* mac);
target_chip_t esp_loader_get_target();
esp_loader_error_t esp_loader_get_security_info(esp_loader_security_info_t* security_info);

esp_loader_error_t spi_config_esp32(uint32_t efuse_base, uint32_t* spi_config);
esp_loader_error_t spi_config_esp32xx(uint32_t efuse_base, uint32_t* spi_config);
esp_loader_error_t spi_config_unsupported(uint32_t efuse_base, uint32_t* spi_config);

// The target found by the last connect and its controller registers.
extern target_chip_t s_target;
extern const target_registers_t* s_reg;

ESP_LOADER_NAMESPACE_END
