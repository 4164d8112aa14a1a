#pragma once

#include "esp_targets.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// The RAM stubs this program can load in place of a chip's ROM loader.
//
// No stub program for these chips ships with this source tree: the segments
// below hold deterministic placeholder bytes of each stub's size, so the whole
// load path (memory commands, block split, entry jump, greeting) runs as it
// would with real stub images. Never load a placeholder into a real chip.

struct esp_stub_segment_t {
    uint32_t addr;
    uint32_t size;
    const uint8_t* data;
};

struct esp_stub_t {
    uint32_t reserved; // 0 in every row
    uint32_t entry;
    esp_stub_segment_t segments[2]; // code, then data
};

// Indexed by target_chip_t; the rows of chips without a stub are empty.
extern const esp_stub_t esp_stub[ESP_MAX_CHIP];

// Whether a target has a stub image at all.
bool esp_stub_available(target_chip_t target);

ESP_LOADER_NAMESPACE_END
