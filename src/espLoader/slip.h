#pragma once

#include "esp_loader_error.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// SLIP framing of the ROM loader's packets: C0 ends a frame, C0 and DB inside
// it go out as DB DC and DB DD.

// Escapes and writes `size` bytes in as few port writes as the C0 and DB
// bytes allow; writes no delimiter.
esp_loader_error_t SLIP_send(const uint8_t* data, uint32_t size);

// Writes one C0.
esp_loader_error_t SLIP_send_delimiter();

// Reads one frame into `buffer`, skipping whatever comes before its first C0.
// A frame longer than `capacity` is cut to it. Runs under the port's timer.
esp_loader_error_t SLIP_receive_packet(uint8_t* buffer, uint32_t capacity, uint32_t* received);

ESP_LOADER_NAMESPACE_END
