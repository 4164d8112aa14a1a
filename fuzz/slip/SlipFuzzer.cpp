// Feeds arbitrary bytes to the loader as the chip's side of the line: frame
// parsing (SLIP_receive_packet) and response matching (send_cmd) of every
// kind of command, the security info forms and the stub's read stream.
//
// The first input byte picks the operation, the rest is what the chip sends.
#include "esp_loader.h"
#include "loader_port.h"
#include "protocol.h"
#include "slip.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

const uint8_t* gInput = nullptr;
size_t gLeft = 0;
uint64_t gNow = 0;
uint64_t gDeadline = 0;

} // namespace

ESP_LOADER_NAMESPACE_BEGIN

esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    return data == nullptr || size == 0 ? ESP_LOADER_ERROR_INVALID_PARAM : ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    if (data == nullptr || size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    if (timeout == 0 || gLeft < size) {
        gNow += timeout;
        gLeft = 0;
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    std::memcpy(data, gInput, size);
    gInput += size;
    gLeft -= size;
    return ESP_LOADER_SUCCESS;
}

void loader_port_delay_ms(uint32_t ms) {
    gNow += ms;
}

void loader_port_start_timer(uint32_t ms) {
    gDeadline = gNow + ms;
}

uint32_t loader_port_remaining_time() {
    return gDeadline > gNow ? static_cast<uint32_t>(gDeadline - gNow) : 0;
}

void loader_port_enter_bootloader() {}

void loader_port_reset_target() {}

void loader_port_debug_print(const char*) {}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const uint8_t choice = data[0];
    gInput = data + 1;
    gLeft = size - 1;
    gNow = 0;
    loader_port_start_timer(1000);
    esp_stub_set_running((choice & 0x80) != 0);

    uint8_t buffer[300];
    uint32_t received = 0;
    uint32_t value = 0;
    switch (choice % 10) {
    case 0:
        (void)SLIP_receive_packet(buffer, 1 + (choice >> 4), &received);
        break;
    case 1:
        (void)SLIP_receive_packet(buffer, sizeof(buffer), &received);
        break;
    case 2:
        (void)loader_sync_cmd();
        break;
    case 3:
        (void)loader_read_reg_cmd(0x40001000, &value);
        break;
    case 4: {
        esp_loader_security_info_t info;
        (void)esp_loader_get_security_info(&info);
        break;
    }
    case 5:
        (void)loader_md5_cmd(0, 0x1000, buffer);
        break;
    case 6:
        (void)loader_flash_read_rom_cmd(0, buffer);
        break;
    case 7: {
        target_chip_t target = ESP_UNKNOWN_CHIP;
        const target_registers_t* reg = nullptr;
        (void)loader_detect_chip(&target, &reg);
        break;
    }
    case 8: {
        esp_loader_connect_args_t args{100, 3};
        if (esp_loader_connect(&args) == ESP_LOADER_SUCCESS) {
            uint8_t block[256];
            (void)esp_loader_flash_read(block, choice & 0x3F, sizeof(block) - (choice & 0x3F));
        }
        break;
    }
    default:
        (void)loader_run_stub(static_cast<target_chip_t>(choice % ESP_MAX_CHIP));
        break;
    }
    return 0;
}
