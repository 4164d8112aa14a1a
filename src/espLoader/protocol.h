#pragma once

#include "esp_loader_error.h"

#include <cstddef>
#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// The ROM loader's commands, one function each, and the one request and
// response routine they all go through. Time limits come from the port's
// timer, which the caller sets before each command.

enum command_t : uint8_t {
    FLASH_BEGIN = 0x02,
    FLASH_DATA = 0x03,
    FLASH_END = 0x04,
    MEM_BEGIN = 0x05,
    MEM_END = 0x06,
    MEM_DATA = 0x07,
    SYNC = 0x08,
    WRITE_REG = 0x09,
    READ_REG = 0x0A,
    SPI_SET_PARAMS = 0x0B,
    SPI_ATTACH = 0x0D,
    READ_FLASH_ROM = 0x0E,
    CHANGE_BAUDRATE = 0x0F,
    FLASH_DEFL_BEGIN = 0x10,
    FLASH_DEFL_DATA = 0x11,
    FLASH_DEFL_END = 0x12,
    SPI_FLASH_MD5 = 0x13,
    GET_SECURITY_INFO = 0x14,
    ERASE_FLASH = 0xD0,
    ERASE_REGION = 0xD1,
    READ_FLASH_STUB = 0xD2,
};

// Request header, as it stands in front of the body of every request.
constexpr size_t kCommandHeaderSize = 8;
// Response header (direction, opcode, size, value) plus status and error code.
constexpr size_t kResponseOverhead = 10;
// The largest response data a command expects: the ROM's 64-byte flash read.
constexpr size_t kMaxResponseData = 64;
// The first byte of the XOR checksum over the data of a block.
constexpr uint8_t kChecksumSeed = 0xEF;

// Handed by each command function to send_cmd, built on its stack.
struct send_cmd_config {
    const void* cmd = nullptr;
    size_t cmd_size = 0;
    const void* data = nullptr;
    size_t data_size = 0;
    void* resp_data = nullptr;
    size_t resp_data_size = 0;
    uint32_t* resp_data_recv_size = nullptr;
    uint32_t* reg_value = nullptr;
};

esp_loader_error_t send_cmd(const send_cmd_config* config);
void log_loader_internal_error(uint8_t error);

// Whether the chip runs this program's RAM stub rather than its ROM.
bool esp_stub_get_running();
void esp_stub_set_running(bool running);

// The number the next data block carries.
uint32_t loader_sequence_number();

// Sends a block with FLASH_DATA, FLASH_DEFL_DATA or MEM_DATA until the chip
// has it, in up to three attempts of `limit_ms` each, all under the block's
// own number; the number moves on once the block is taken. An answer up to
// half the limit late still counts, the line is drained before the block
// goes again, and a block sent again that the chip refuses as one it already
// has counts as taken: only its answer was lost.
esp_loader_error_t loader_send_data_block(command_t opcode, const uint8_t* data, uint32_t size,
                                          uint32_t limit_ms);

uint8_t compute_checksum(const uint8_t* data, uint32_t size);

esp_loader_error_t loader_flash_begin_cmd(uint32_t offset, uint32_t erase_size, uint32_t block_size,
                                          uint32_t blocks_to_write, bool encryption);
// The data commands make one attempt under the current number and leave it
// as it is.
esp_loader_error_t loader_flash_data_cmd(const uint8_t* data, uint32_t size);
esp_loader_error_t loader_flash_end_cmd(bool stay_in_loader);
esp_loader_error_t loader_mem_begin_cmd(uint32_t offset, uint32_t size, uint32_t blocks_to_write,
                                        uint32_t block_size);
esp_loader_error_t loader_mem_data_cmd(const uint8_t* data, uint32_t size);
esp_loader_error_t loader_mem_end_cmd(uint32_t entrypoint);
esp_loader_error_t loader_sync_cmd();
esp_loader_error_t loader_write_reg_cmd(uint32_t address, uint32_t value, uint32_t mask, uint32_t delay_us);
esp_loader_error_t loader_read_reg_cmd(uint32_t address, uint32_t* reg);
esp_loader_error_t loader_spi_parameters(uint32_t total_size);
esp_loader_error_t loader_spi_attach_cmd(uint32_t config);
// `data` must hold 64 bytes.
esp_loader_error_t loader_flash_read_rom_cmd(uint32_t address, uint8_t* data);
esp_loader_error_t loader_change_baudrate_cmd(uint32_t new_baudrate, uint32_t old_baudrate);
esp_loader_error_t loader_flash_deflate_begin_cmd(uint32_t offset, uint32_t erase_size, uint32_t block_size,
                                                  uint32_t blocks_to_write, bool encryption);
esp_loader_error_t loader_flash_deflate_data_cmd(const uint8_t* data, uint32_t size);
esp_loader_error_t loader_flash_deflate_end_cmd(bool stay_in_loader);
// `md5_out` must hold 32 bytes; the stub fills only the first 16.
esp_loader_error_t loader_md5_cmd(uint32_t address, uint32_t size, uint8_t* md5_out);
// `response` must hold 20 bytes.
esp_loader_error_t loader_get_security_info_cmd(uint8_t* response, uint32_t* response_recv_size);
esp_loader_error_t loader_flash_erase_cmd();
esp_loader_error_t loader_flash_erase_region_cmd(uint32_t address, uint32_t size);
esp_loader_error_t loader_flash_read_stub_cmd(uint32_t address, uint32_t size, uint32_t block_size);

// Reads and writes one chip register, each under a limit of 1000 ms.
esp_loader_error_t esp_loader_read_register(uint32_t address, uint32_t* reg_value);
esp_loader_error_t esp_loader_write_register(uint32_t address, uint32_t reg_value);

ESP_LOADER_NAMESPACE_END
