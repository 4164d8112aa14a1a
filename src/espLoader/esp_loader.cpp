#include "esp_loader.h"

#include "loader_port.h"
#include "md5_hash.h"
#include "protocol.h"
#include "slip.h"

#include <algorithm>
#include <cstring>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

uint32_t s_target_flash_size = 0;
uint32_t s_flash_write_size = 0;

constexpr uint32_t kDefaultTimeoutMs = 1000;
constexpr uint32_t kMinEraseTimeoutMs = 3000;
constexpr double kEraseTimePerMbMs = 10000.0;
constexpr uint32_t kSyncRetryDelayMs = 100;
constexpr uint32_t kSpiBusyBit = 1u << 18;
constexpr uint32_t kSpiPolls = 10;
constexpr uint32_t kRomReadBlock = 64;
constexpr uint32_t kStubReadBlock = 256;
constexpr uint32_t kEraseAlignment = 0x1000;
constexpr uint32_t kC2CrystalRegister = 0x60000014;
constexpr uint32_t kStubRateSettleMs = 25;

struct size_id_t {
    uint8_t id;
    uint32_t size;
};

// Flash size by the third byte of the SPI flash's identification.
const size_id_t size_mapping[] = {
    {0x12, 256u * 1024}, {0x13, 512u * 1024}, {0x14, 1u << 20},   {0x15, 2u << 20},   {0x16, 4u << 20},
    {0x17, 8u << 20},    {0x18, 16u << 20},   {0x19, 32u << 20},  {0x1A, 64u << 20},  {0x1B, 128u << 20},
    {0x1C, 256u << 20},  {0x20, 64u << 20},   {0x21, 128u << 20}, {0x22, 256u << 20}, {0x32, 256u * 1024},
    {0x33, 512u * 1024}, {0x34, 1u << 20},    {0x35, 2u << 20},   {0x36, 4u << 20},   {0x37, 8u << 20},
    {0x38, 16u << 20},   {0x39, 32u << 20},   {0x3A, 64u << 20},
};

// Work that erases gets 10 s per megabyte, never less than 3 s.
uint32_t eraseTimeout(uint32_t size) {
    const uint32_t scaled = static_cast<uint32_t>(size / 1000000.0 * kEraseTimePerMbMs);
    return std::max(kMinEraseTimeoutMs, scaled);
}

bool stubRunning() {
    return esp_stub_get_running();
}

esp_loader_error_t writeRegister(uint32_t address, uint32_t value) {
    return esp_loader_write_register(address, value);
}

// Runs the SPI read-identification command and returns the 24-bit answer.
esp_loader_error_t readFlashId(const target_registers_t& reg, uint32_t* id) {
    uint32_t oldUsr = 0;
    uint32_t oldUsr2 = 0;
    LOADER_TRY(esp_loader_read_register(reg.usr, &oldUsr));
    LOADER_TRY(esp_loader_read_register(reg.usr2, &oldUsr2));

    if (s_target == ESP8266_CHIP) {
        LOADER_TRY(writeRegister(reg.usr1, 0x1700));
    } else {
        LOADER_TRY(writeRegister(reg.miso_dlen, 23));
    }
    LOADER_TRY(writeRegister(reg.usr, 0x90000000));
    LOADER_TRY(writeRegister(reg.usr2, 0x7000009F));
    LOADER_TRY(writeRegister(reg.w0, 0));
    LOADER_TRY(writeRegister(reg.cmd, kSpiBusyBit));

    // A clear busy bit on the very last reading counts as a time-out, while a
    // bit still set after all ten readings is taken as done.
    for (uint32_t reading = 1; reading <= kSpiPolls; ++reading) {
        uint32_t cmd = 0;
        LOADER_TRY(esp_loader_read_register(reg.cmd, &cmd));
        if ((cmd & kSpiBusyBit) == 0) {
            if (reading == kSpiPolls) {
                return ESP_LOADER_ERROR_TIMEOUT;
            }
            break;
        }
    }

    LOADER_TRY(esp_loader_read_register(reg.w0, id));
    LOADER_TRY(writeRegister(reg.usr, oldUsr));
    return writeRegister(reg.usr2, oldUsr2);
}

// The common head of every operation that touches the flash.
esp_loader_error_t prepareFlash() {
    if (s_target_flash_size == 0) {
        if (esp_loader_flash_detect_size(&s_target_flash_size) != ESP_LOADER_SUCCESS) {
            loader_port_debug_print("Flash size detection failed, falling back to default");
            s_target_flash_size = kDefaultFlashSize;
        }
    }
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_spi_parameters(s_target_flash_size);
}

bool beyond(uint32_t offset, uint32_t size, uint32_t limit) {
    return static_cast<uint64_t>(offset) + size > limit;
}

// Brings up the flash of an ESP8266, or attaches the SPI flash of any other
// chip with the pins its efuses name.
esp_loader_error_t attachFlash(uint32_t config) {
    loader_port_start_timer(kDefaultTimeoutMs);
    if (s_target == ESP8266_CHIP) {
        return loader_flash_begin_cmd(0, 0, 0, 0, false);
    }
    return loader_spi_attach_cmd(config);
}

// The ROM's erase size rule for the ESP8266, which erases more than asked in
// the first 64 KiB block.
uint32_t esp8266EraseSize(uint32_t offset, uint32_t image_size) {
    const uint32_t sectors = (image_size + 4095) >> 12;
    const uint32_t head = 16 - ((offset >> 12) & 15);
    if (sectors > head) {
        return (sectors - head) << 12;
    }
    return ((sectors + 1) >> 1) << 12;
}

esp_loader_error_t readRom(uint8_t* dest, uint32_t address, uint32_t length) {
    uint32_t skip = address & (kRomReadBlock - 1);
    uint32_t blockAddress = address - skip;
    const uint64_t blocks = (static_cast<uint64_t>(skip) + length + kRomReadBlock - 1) / kRomReadBlock;
    uint32_t copied = 0;
    for (uint64_t i = 0; i < blocks; ++i) {
        uint8_t block[kRomReadBlock];
        loader_port_start_timer(kDefaultTimeoutMs);
        LOADER_TRY(loader_flash_read_rom_cmd(blockAddress, block));
        const uint32_t take = std::min(kRomReadBlock - skip, length - copied);
        std::memcpy(dest + copied, block + skip, take);
        copied += take;
        skip = 0;
        blockAddress += kRomReadBlock;
    }
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t acknowledgeRead(uint32_t receivedSoFar) {
    const uint8_t ack[4] = {static_cast<uint8_t>(receivedSoFar), static_cast<uint8_t>(receivedSoFar >> 8),
                            static_cast<uint8_t>(receivedSoFar >> 16),
                            static_cast<uint8_t>(receivedSoFar >> 24)};
    loader_port_start_timer(kDefaultTimeoutMs);
    LOADER_TRY(SLIP_send_delimiter());
    LOADER_TRY(SLIP_send(ack, sizeof(ack)));
    return SLIP_send_delimiter();
}

// The stub streams the flash in frames of up to 256 bytes, each acknowledged
// with the running count, and closes with the MD5 digest of the stream.
esp_loader_error_t readStub(uint8_t* dest, uint32_t address, uint32_t length) {
    const uint32_t head = address & 3;
    const uint32_t total = (length + head + 3) & ~3u;
    MD5Context md5;
    MD5Init(&md5);

    loader_port_start_timer(kDefaultTimeoutMs);
    (void)loader_flash_read_stub_cmd(address & ~3u, total, kStubReadBlock);

    uint32_t streamed = 0;
    uint32_t copied = 0;
    while (streamed < total) {
        const uint32_t expected = std::min(total - streamed, kStubReadBlock);
        uint8_t frame[kStubReadBlock + 1];
        uint32_t received = 0;
        loader_port_start_timer(kDefaultTimeoutMs);
        LOADER_TRY(SLIP_receive_packet(frame, expected + 1, &received));
        if (received != expected) {
            return ESP_LOADER_ERROR_INVALID_RESPONSE;
        }
        MD5Update(&md5, frame, expected);

        // Drop the bytes before `address` and the padding behind the end.
        const uint32_t from = streamed < head ? head - streamed : 0;
        if (from < expected && copied < length) {
            const uint32_t take = std::min(expected - from, length - copied);
            std::memcpy(dest + copied, frame + from, take);
            copied += take;
        }
        streamed += expected;
        LOADER_TRY(acknowledgeRead(streamed));
    }

    uint8_t digest[16];
    MD5Final(digest, &md5);
    uint8_t reported[17];
    uint32_t received = 0;
    loader_port_start_timer(kDefaultTimeoutMs);
    LOADER_TRY(SLIP_receive_packet(reported, sizeof(reported), &received));
    if (received != sizeof(digest) || std::memcmp(digest, reported, sizeof(digest)) != 0) {
        return ESP_LOADER_ERROR_INVALID_MD5;
    }
    return ESP_LOADER_SUCCESS;
}

} // namespace

uint32_t esp_loader_target_flash_size() {
    return s_target_flash_size;
}

esp_loader_error_t loader_initialize_conn(esp_loader_connect_args_t* args) {
    // Only time-outs are tried again; zero trials still make one attempt.
    uint32_t left = args->trials;
    for (;;) {
        loader_port_start_timer(args->sync_timeout);
        const esp_loader_error_t result = loader_sync_cmd();
        if (result != ESP_LOADER_ERROR_TIMEOUT || left <= 1) {
            return result;
        }
        --left;
        loader_port_delay_ms(kSyncRetryDelayMs);
    }
}

esp_loader_error_t esp_loader_connect(esp_loader_connect_args_t* args) {
    loader_port_enter_bootloader();
    LOADER_TRY(loader_initialize_conn(args));
    LOADER_TRY(loader_detect_chip(&s_target, &s_reg));
    s_target_flash_size = 0;

    uint32_t config = 0;
    if (s_target != ESP8266_CHIP) {
        LOADER_TRY(loader_read_spi_config(s_target, &config));
    }
    return attachFlash(config);
}

esp_loader_error_t esp_loader_connect_secure_download_mode(esp_loader_connect_args_t* args,
                                                           uint32_t flash_size, target_chip_t target) {
    s_target_flash_size = flash_size;
    s_target = target;
    s_reg = &get_esp_target_data(target)->regs;
    loader_port_enter_bootloader();
    LOADER_TRY(loader_initialize_conn(args));
    if (s_target == ESP_UNKNOWN_CHIP) {
        LOADER_TRY(loader_detect_chip(&s_target, &s_reg));
    }
    return attachFlash(0);
}

esp_loader_error_t esp_loader_flash_detect_size(uint32_t* flash_size) {
    if (s_reg == nullptr) {
        return ESP_LOADER_ERROR_INVALID_TARGET;
    }
    uint32_t id = 0;
    LOADER_TRY(readFlashId(*s_reg, &id));
    const uint8_t sizeCode = static_cast<uint8_t>(id >> 16);
    for (const size_id_t& entry : size_mapping) {
        if (entry.id == sizeCode) {
            *flash_size = entry.size;
            return ESP_LOADER_SUCCESS;
        }
    }
    return ESP_LOADER_ERROR_UNSUPPORTED_CHIP;
}

esp_loader_error_t esp_loader_flash_start(uint32_t offset, uint32_t image_size, uint32_t block_size) {
    s_flash_write_size = block_size;
    if (offset % 4 != 0 || image_size % 4 != 0 || block_size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    LOADER_TRY(prepareFlash());
    if (beyond(offset, image_size, s_target_flash_size)) {
        return ESP_LOADER_ERROR_IMAGE_SIZE;
    }

    const bool encryption = encryption_in_begin_flash_cmd(s_target) && !stubRunning();
    uint32_t erase_size = image_size;
    if (s_target == ESP8266_CHIP && !stubRunning()) {
        erase_size = esp8266EraseSize(offset, image_size);
    }
    const uint32_t blocks =
        static_cast<uint32_t>((static_cast<uint64_t>(image_size) + block_size - 1) / block_size);

    loader_port_start_timer(eraseTimeout(erase_size));
    return loader_flash_begin_cmd(offset, erase_size, block_size, blocks, encryption);
}

esp_loader_error_t esp_loader_flash_write(void* payload, uint32_t size) {
    if (size > s_flash_write_size) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    uint8_t* block = static_cast<uint8_t*>(payload);
    std::memset(block + size, 0xFF, s_flash_write_size - size);
    return loader_send_data_block(FLASH_DATA, block, s_flash_write_size, kDefaultTimeoutMs);
}

esp_loader_error_t esp_loader_flash_finish(bool reboot) {
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_flash_end_cmd(!reboot);
}

esp_loader_error_t esp_loader_flash_deflate_start(uint32_t offset, uint32_t image_size,
                                                  uint32_t compressed_size, uint32_t block_size) {
    s_flash_write_size = block_size;
    if (offset % 4 != 0 || block_size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (s_target == ESP8266_CHIP && !stubRunning()) {
        return ESP_LOADER_ERROR_UNSUPPORTED_FUNC;
    }
    LOADER_TRY(prepareFlash());
    if (beyond(offset, image_size, s_target_flash_size)) {
        return ESP_LOADER_ERROR_IMAGE_SIZE;
    }

    const bool encryption = encryption_in_begin_flash_cmd(s_target) && !stubRunning();
    const uint32_t blocks =
        static_cast<uint32_t>((static_cast<uint64_t>(compressed_size) + block_size - 1) / block_size);
    loader_port_start_timer(eraseTimeout(image_size));
    return loader_flash_deflate_begin_cmd(offset, image_size, block_size, blocks, encryption);
}

esp_loader_error_t esp_loader_flash_deflate_write(const void* payload, uint32_t size) {
    if (size > s_flash_write_size) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    return loader_send_data_block(FLASH_DEFL_DATA, static_cast<const uint8_t*>(payload), size,
                                  kDefaultTimeoutMs);
}

esp_loader_error_t esp_loader_flash_deflate_finish(bool reboot) {
    // The ROM would leave the loader on this command; staying needs nothing.
    if (!reboot && !stubRunning()) {
        return ESP_LOADER_SUCCESS;
    }
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_flash_deflate_end_cmd(!reboot);
}

esp_loader_error_t esp_loader_flash_erase() {
    if (stubRunning()) {
        LOADER_TRY(prepareFlash());
        loader_port_start_timer(eraseTimeout(s_target_flash_size));
        return loader_flash_erase_cmd();
    }
    // The ROM has no erase command: a flash begin over the whole chip erases.
    uint32_t flashSize = 0;
    LOADER_TRY(esp_loader_flash_detect_size(&flashSize));
    return esp_loader_flash_start(0, flashSize, 1024);
}

esp_loader_error_t esp_loader_flash_erase_region(uint32_t offset, uint32_t size) {
    if (offset % kEraseAlignment != 0 || size % kEraseAlignment != 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (stubRunning()) {
        LOADER_TRY(prepareFlash());
        loader_port_start_timer(eraseTimeout(size));
        return loader_flash_erase_region_cmd(offset, size);
    }
    uint32_t flashSize = 0;
    LOADER_TRY(esp_loader_flash_detect_size(&flashSize));
    if (beyond(offset, size, flashSize)) {
        return ESP_LOADER_ERROR_FAIL;
    }
    return esp_loader_flash_start(offset, size, 1024);
}

esp_loader_error_t esp_loader_flash_read(void* dest, uint32_t address, uint32_t length) {
    LOADER_TRY(prepareFlash());
    if (beyond(address, length, s_target_flash_size)) {
        return ESP_LOADER_ERROR_IMAGE_SIZE;
    }
    uint8_t* out = static_cast<uint8_t*>(dest);
    return stubRunning() ? readStub(out, address, length) : readRom(out, address, length);
}

esp_loader_error_t esp_loader_change_transmission_rate(uint32_t rate) {
    if (s_target == ESP8266_CHIP || stubRunning()) {
        return ESP_LOADER_ERROR_UNSUPPORTED_FUNC;
    }
    if (s_target == ESP32C2_CHIP) {
        // A C2 on a 26 MHz crystal runs its UART from a clock the ROM takes
        // for 40 MHz.
        uint32_t crystal = 0;
        LOADER_TRY(esp_loader_read_register(kC2CrystalRegister, &crystal));
        const uint32_t measure = (crystal & 0xFFFFF) * 115200u;
        if (measure < 34000000u) {
            rate = static_cast<uint32_t>(static_cast<uint64_t>(rate) * 40 / 26);
        }
    }
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_change_baudrate_cmd(rate, 0);
}

esp_loader_error_t esp_loader_change_transmission_rate_stub(uint32_t old_rate, uint32_t new_rate) {
    if (s_target == ESP8266_CHIP || !stubRunning()) {
        return ESP_LOADER_ERROR_UNSUPPORTED_FUNC;
    }
    loader_port_start_timer(kDefaultTimeoutMs);
    LOADER_TRY(loader_change_baudrate_cmd(new_rate, old_rate));
    loader_port_delay_ms(kStubRateSettleMs);
    return ESP_LOADER_SUCCESS;
}

void esp_loader_reset_target() {
    esp_stub_set_running(false);
    loader_port_reset_target();
}

void loader_set_target_flash_size(uint32_t size) {
    s_target_flash_size = size;
}

ESP_LOADER_NAMESPACE_END
