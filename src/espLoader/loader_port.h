#pragma once

#include "esp_loader_error.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// What the loader needs from the line. The program's implementation runs on
// its one UsbCommunication object (EspSerialFlasherPort.cpp); tests link
// their own in-memory peer behind the same functions.

// Writes `size` bytes; `timeout` is advisory, the port keeps its own limit.
esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t timeout);

// Gathers exactly `size` bytes within `timeout` milliseconds.
esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout);

void loader_port_delay_ms(uint32_t ms);

// Every command runs under the limit set here by the operation that sends it.
void loader_port_start_timer(uint32_t ms);
uint32_t loader_port_remaining_time();

// Puts the chip into its ROM loader and leaves the line open towards it.
void loader_port_enter_bootloader();
void loader_port_reset_target();
void loader_port_debug_print(const char* text);
esp_loader_error_t loader_port_change_transmission_rate(uint32_t rate);

ESP_LOADER_NAMESPACE_END
