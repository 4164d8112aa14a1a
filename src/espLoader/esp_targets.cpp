#include "esp_targets.h"

#include "loader_port.h"
#include "protocol.h"

#include <bit>

ESP_LOADER_NAMESPACE_BEGIN

target_chip_t s_target = ESP_UNKNOWN_CHIP;
const target_registers_t* s_reg = nullptr;

namespace {

constexpr uint32_t kSecurityInfoTimeoutMs = 100;
constexpr uint32_t kChipIdUnknown = 0xFFFFFFFF;

const uint32_t kEsp8266Magic[] = {0xFFF0C101};
const uint32_t kEsp32Magic[] = {0x00F01D83};
const uint32_t kEsp32s2Magic[] = {0x000007C6};
const uint32_t kEsp32c3Magic[] = {0x6921506F, 0x1B31506F, 0x4881606F, 0x4361606F};
const uint32_t kEsp32s3Magic[] = {0x00000009};
const uint32_t kEsp32c2Magic[] = {0x6F51306F, 0x7C41A06F, 0x0C21E06F};
const uint32_t kEsp32c5Magic[] = {0x1101406F, 0x5FD1406F};
const uint32_t kEsp32h2Magic[] = {0xD7B73E80};
const uint32_t kEsp32c6Magic[] = {0x2CE0806F};

template <size_t N> constexpr uint8_t countOf(const uint32_t (&)[N]) {
    return static_cast<uint8_t>(N);
}

// Ten rows, indexed by target_chip_t, and one empty row behind them for a chip
// id that names no listed target, so that nothing reads beyond the table.
const esp_target_t esp_target[ESP_MAX_CHIP + 1] = {
    // ESP8266
    {{0x60000200, 0x6000021C, 0x60000220, 0x60000224, 0x60000240, 0, 0},
     0,
     kEsp8266Magic,
     countOf(kEsp8266Magic),
     0,
     255,
     nullptr,
     false},
    // ESP32
    {{0x3FF42000, 0x3FF4201C, 0x3FF42020, 0x3FF42024, 0x3FF42080, 0x3FF42028, 0x3FF4202C},
     0x3FF5A000,
     kEsp32Magic,
     countOf(kEsp32Magic),
     4,
     0,
     spi_config_esp32,
     false},
    // ESP32-S2
    {{0x3F402000, 0x3F402018, 0x3F40201C, 0x3F402020, 0x3F402058, 0x3F402024, 0x3F402028},
     0x3F41A000,
     kEsp32s2Magic,
     countOf(kEsp32s2Magic),
     0x44,
     2,
     spi_config_esp32xx,
     true},
    // ESP32-C3
    {{0x60002000, 0x60002018, 0x6000201C, 0x60002020, 0x60002058, 0x60002024, 0x60002028},
     0x60008800,
     kEsp32c3Magic,
     countOf(kEsp32c3Magic),
     0x44,
     5,
     spi_config_esp32xx,
     true},
    // ESP32-S3
    {{0x60002000, 0x60002018, 0x6000201C, 0x60002020, 0x60002058, 0x60002024, 0x60002028},
     0x60007000,
     kEsp32s3Magic,
     countOf(kEsp32s3Magic),
     0x44,
     9,
     spi_config_esp32xx,
     true},
    // ESP32-C2
    {{0x60002000, 0x60002018, 0x6000201C, 0x60002020, 0x60002058, 0x60002024, 0x60002028},
     0x60008800,
     kEsp32c2Magic,
     countOf(kEsp32c2Magic),
     0x40,
     12,
     spi_config_unsupported,
     true},
    // ESP32-C5
    {{0x60003000, 0x60003018, 0x6000301C, 0x60003020, 0x60003058, 0x60003024, 0x60003028},
     0x600B4800,
     kEsp32c5Magic,
     countOf(kEsp32c5Magic),
     0x44,
     23,
     spi_config_unsupported,
     true},
    // ESP32-H2
    {{0x60003000, 0x60003018, 0x6000301C, 0x60003020, 0x60003058, 0x60003024, 0x60003028},
     0x600B0800,
     kEsp32h2Magic,
     countOf(kEsp32h2Magic),
     0x44,
     16,
     spi_config_unsupported,
     true},
    // ESP32-C6
    {{0x60003000, 0x60003018, 0x6000301C, 0x60003020, 0x60003058, 0x60003024, 0x60003028},
     0x600B0800,
     kEsp32c6Magic,
     countOf(kEsp32c6Magic),
     0x44,
     13,
     spi_config_unsupported,
     true},
    // ESP32-P4: no magic value, found by its security information or its
    // chip id register.
    {{0x5008D000, 0x5008D018, 0x5008D01C, 0x5008D020, 0x5008D058, 0x5008D024, 0x5008D028},
     0x5012D000,
     nullptr,
     0,
     0x44,
     18,
     spi_config_esp32xx,
     true},
    // No listed chip.
    {{0, 0, 0, 0, 0, 0, 0}, 0, nullptr, 0, 0, kChipIdUnknown, nullptr, false},
};

const esp_target_t& rowOf(target_chip_t target) {
    if (target < 0 || target >= ESP_MAX_CHIP) {
        return esp_target[ESP_MAX_CHIP];
    }
    return esp_target[target];
}

uint32_t wordAt(const uint8_t* bytes, size_t offset) {
    return static_cast<uint32_t>(bytes[offset]) | static_cast<uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<uint32_t>(bytes[offset + 2]) << 16 | static_cast<uint32_t>(bytes[offset + 3]) << 24;
}

bool bitOf(uint32_t word, unsigned bit) {
    return ((word >> bit) & 1u) != 0;
}

// Pin numbers 30 and 31 stand for pins 32 and 33.
uint32_t pinNumber(uint32_t value) {
    return value >= 30 ? value + 2 : value;
}

esp_loader_error_t detectByMagicValue(target_chip_t* target, const target_registers_t** reg) {
    uint32_t magic = 0;
    LOADER_TRY(esp_loader_read_register(kChipMagicRegister, &magic));
    for (int chip = 0; chip < ESP_MAX_CHIP; ++chip) {
        const esp_target_t& row = esp_target[chip];
        for (uint8_t i = 0; i < row.magic_values_count; ++i) {
            if (row.chip_magic_value[i] == magic) {
                *target = static_cast<target_chip_t>(chip);
                *reg = &row.regs;
                return ESP_LOADER_SUCCESS;
            }
        }
    }

    uint32_t chipId = 0;
    LOADER_TRY(esp_loader_read_register(kP4ChipIdRegister, &chipId));
    if ((chipId & 0x7FFFFFF) == kP4ChipIdValue) {
        *target = ESP32P4_CHIP;
        *reg = &esp_target[ESP32P4_CHIP].regs;
        return ESP_LOADER_SUCCESS;
    }
    return ESP_LOADER_ERROR_INVALID_TARGET;
}

} // namespace

target_chip_t target_from_chip_id(int chip_id) {
    for (int chip = 0; chip < ESP_MAX_CHIP; ++chip) {
        if (static_cast<int64_t>(esp_target[chip].chip_id) == chip_id) {
            return static_cast<target_chip_t>(chip);
        }
    }
    return ESP_UNKNOWN_CHIP;
}

const esp_target_t* get_esp_target_data(target_chip_t target) {
    return &rowOf(target);
}

esp_loader_error_t esp_loader_get_security_info(esp_loader_security_info_t* security_info) {
    uint8_t response[20] = {};
    uint32_t received = 0;
    loader_port_start_timer(kSecurityInfoTimeoutMs);
    LOADER_TRY(loader_get_security_info_cmd(response, &received));

    if (received == 20) {
        security_info->target_chip = target_from_chip_id(static_cast<int>(wordAt(response, 12)));
        security_info->eco_version = wordAt(response, 16);
    } else if (received == 12) {
        // Only the S2 answers in the short form.
        security_info->target_chip = ESP32S2_CHIP;
        security_info->eco_version = 0;
    } else {
        return ESP_LOADER_ERROR_INVALID_RESPONSE;
    }

    const uint32_t flags = wordAt(response, 0);
    for (unsigned n = 0; n <= 8; ++n) {
        security_info->flag[n] = bitOf(flags, n);
    }
    int ones = 0;
    for (size_t i = 5; i <= 11; ++i) {
        ones += std::popcount(response[i]);
    }
    security_info->flag[9] = (ones & 1) != 0;
    security_info->flag[10] = bitOf(flags, 9);
    security_info->flag[11] = bitOf(flags, 10);
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_detect_chip(target_chip_t* target, const target_registers_t** reg) {
    esp_loader_security_info_t info = {};
    if (esp_loader_get_security_info(&info) == ESP_LOADER_SUCCESS) {
        *target = info.target_chip;
        *reg = &rowOf(info.target_chip).regs;
        return ESP_LOADER_SUCCESS;
    }
    return detectByMagicValue(target, reg);
}

esp_loader_error_t loader_read_spi_config(target_chip_t target, uint32_t* spi_config) {
    const esp_target_t& row = rowOf(target);
    if (row.read_spi_config == nullptr) {
        *spi_config = 0;
        return ESP_LOADER_ERROR_UNSUPPORTED_CHIP;
    }
    return row.read_spi_config(row.efuse_base, spi_config);
}

bool encryption_in_begin_flash_cmd(target_chip_t target) {
    return rowOf(target).encryption_in_begin_flash_cmd;
}

esp_loader_error_t spi_config_esp32xx(uint32_t efuse_base, uint32_t* spi_config) {
    *spi_config = 0;
    uint32_t first = 0;
    uint32_t second = 0;
    LOADER_TRY(esp_loader_read_register(efuse_base + 72, &first));
    LOADER_TRY(esp_loader_read_register(efuse_base + 76, &second));
    const uint32_t lo = first >> 16;
    const uint32_t hi = second & 0xFFFF;
    const uint32_t pins = (lo | (hi << 16)) & 0x3FFFFFFF;
    // Zero means the default pins.
    if (pins != 0) {
        *spi_config = pins;
    }
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t spi_config_esp32(uint32_t efuse_base, uint32_t* spi_config) {
    *spi_config = 0;
    uint32_t wordA = 0;
    uint32_t wordB = 0;
    LOADER_TRY(esp_loader_read_register(efuse_base + 20, &wordA));
    LOADER_TRY(esp_loader_read_register(efuse_base + 12, &wordB));

    const uint32_t pins = wordA & 0xFFFFF;
    if (pins == 0 || pins == 0xFFFFF) {
        return ESP_LOADER_SUCCESS;
    }
    const uint32_t clk = pinNumber(pins & 0x1F);
    const uint32_t q = pinNumber((pins >> 5) & 0x1F);
    const uint32_t d = pinNumber((pins >> 10) & 0x1F);
    const uint32_t cs = pinNumber((pins >> 15) & 0x1F);
    const uint32_t hd = pinNumber((wordB >> 4) & 0x1F);

    // Pins that collide leave the default configuration in place.
    if (cs == clk || d == clk || q == clk || cs == q || d == q) {
        return ESP_LOADER_SUCCESS;
    }
    *spi_config = clk | (q << 6) | (d << 12) | (cs << 18) | (hd << 24);
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t spi_config_unsupported(uint32_t, uint32_t* spi_config) {
    *spi_config = 0;
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_read_mac(target_chip_t target, uint8_t* mac) {
    const esp_target_t& row = rowOf(target);
    const uint32_t address = row.efuse_base + row.mac_efuse_offset;
    uint32_t low = 0;
    uint32_t high = 0;
    LOADER_TRY(esp_loader_read_register(address, &low));
    LOADER_TRY(esp_loader_read_register(address + 4, &high));
    mac[0] = static_cast<uint8_t>(high >> 8);
    mac[1] = static_cast<uint8_t>(high);
    mac[2] = static_cast<uint8_t>(low >> 24);
    mac[3] = static_cast<uint8_t>(low >> 16);
    mac[4] = static_cast<uint8_t>(low >> 8);
    mac[5] = static_cast<uint8_t>(low);
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t esp_loader_read_mac(uint8_t* mac) {
    if (s_target == ESP8266_CHIP) {
        return ESP_LOADER_ERROR_UNSUPPORTED_CHIP;
    }
    return loader_read_mac(s_target, mac);
}

target_chip_t esp_loader_get_target() {
    return s_target;
}

ESP_LOADER_NAMESPACE_END
