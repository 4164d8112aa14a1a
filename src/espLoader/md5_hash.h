#pragma once

#include "esp_loader_error.h"

#include <cstdint>

ESP_LOADER_NAMESPACE_BEGIN

// MD5 message digest (RFC 1321); the digest of the stub's flash reads.
struct MD5Context {
    uint32_t buf[4];
    uint32_t bits[2];
    uint8_t in[64];
};

void MD5Init(MD5Context* context);
void MD5Update(MD5Context* context, const uint8_t* data, uint32_t length);
void MD5Final(uint8_t digest[16], MD5Context* context);
void MD5Transform(uint32_t buf[4], const uint32_t in[16]);

ESP_LOADER_NAMESPACE_END
