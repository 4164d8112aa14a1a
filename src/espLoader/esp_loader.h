#pragma once

#include "esp_loader_error.h"
#include "esp_targets.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// The loader's public operations: connecting to a chip's ROM loader (or this
// program's RAM stub), measuring its flash, and writing, erasing and reading
// it. Each operation sets the time limit of the commands it sends.

struct esp_loader_connect_args_t {
    uint32_t sync_timeout; // milliseconds for one sync attempt
    uint32_t trials;       // sync attempts
};

// Flash size assumed when the chip's flash can't be identified.
constexpr uint32_t kDefaultFlashSize = 0x200000;

esp_loader_error_t loader_initialize_conn(esp_loader_connect_args_t* args);
esp_loader_error_t esp_loader_connect(esp_loader_connect_args_t* args);
esp_loader_error_t esp_loader_connect_secure_download_mode(esp_loader_connect_args_t* args,
                                                           uint32_t flash_size, target_chip_t target);
esp_loader_error_t esp_loader_flash_detect_size(uint32_t* flash_size);

esp_loader_error_t esp_loader_flash_start(uint32_t offset, uint32_t image_size, uint32_t block_size);
// `payload` must have room for the block size given to esp_loader_flash_start:
// a short last block is padded with 0xFF in place.
esp_loader_error_t esp_loader_flash_write(void* payload, uint32_t size);
esp_loader_error_t esp_loader_flash_finish(bool reboot);

esp_loader_error_t esp_loader_flash_deflate_start(uint32_t offset, uint32_t image_size,
                                                  uint32_t compressed_size, uint32_t block_size);
esp_loader_error_t esp_loader_flash_deflate_write(const void* payload, uint32_t size);
esp_loader_error_t esp_loader_flash_deflate_finish(bool reboot);

esp_loader_error_t esp_loader_flash_erase();
esp_loader_error_t esp_loader_flash_erase_region(uint32_t offset, uint32_t size);
esp_loader_error_t esp_loader_flash_read(void* dest, uint32_t address, uint32_t length);

esp_loader_error_t esp_loader_change_transmission_rate(uint32_t rate);
esp_loader_error_t esp_loader_change_transmission_rate_stub(uint32_t old_rate, uint32_t new_rate);
void esp_loader_reset_target();

// The RAM stub: connecting with it, and the memory operations that load it.
esp_loader_error_t esp_loader_connect_with_stub(esp_loader_connect_args_t* args);
esp_loader_error_t loader_run_stub(target_chip_t target);
esp_loader_error_t esp_loader_mem_start(uint32_t offset, uint32_t size, uint32_t block_size);
esp_loader_error_t esp_loader_mem_write(const void* payload, uint32_t size);
esp_loader_error_t esp_loader_mem_finish(uint32_t entry);

// The flash size found or assumed since the last connect; 0 when not known.
uint32_t esp_loader_target_flash_size();
void loader_set_target_flash_size(uint32_t size);

ESP_LOADER_NAMESPACE_END
