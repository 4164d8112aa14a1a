// A whole ESP32 flash against a chip that answers every request well, except
// one: the answer to that request is the fuzzer's bytes. So the answers to
// the sync, the security info, the register reads, the SPI attach and
// parameters, the flash begin, each data block (with the retries, the late
// answer's grace and the drain behind them), the MD5 and the end each meet
// arbitrary input in the state a real flash reaches them in.
//
// Byte 0: the number of the request whose answer is replaced. Byte 1: bit 0
// a compressed flash, bit 1 the good answer follows the fuzzer's bytes,
// bit 2 the stub runs, bit 3 the chip and its flash size are detected. The
// rest: the bytes on the line in place of the answer.
#include "DefaultMaxLen.h"
#include "esp_loader.h"
#include "loader_port.h"
#include "protocol.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMagicRegister = 0x40001000;
constexpr uint32_t kEsp32Magic = 0x00F01D83;
constexpr uint32_t kSpiW0 = 0x3FF42080;
constexpr uint32_t kFlashId4MiB = 0x1640EF;
constexpr uint32_t kBlock = 16;
constexpr size_t kRequestHead = 16; // as much of a request as the answer depends on

struct Line {
    std::array<uint8_t, kRequestHead> request{}; // the head of the request being received, unescaped
    size_t requestSize = 0;
    bool escaped = false;
    Bytes input; // what the loader reads, from `taken` on
    size_t taken = 0;
    unsigned requests = 0;
    unsigned replaced = 0;
    bool goodAfter = false;
    const uint8_t* fuzz = nullptr;
    size_t fuzzSize = 0;
    uint64_t now = 0;
    uint64_t deadline = 0;
};

Line line;

// The chip's side and the line are this harness's own: no coverage is
// gathered from them, so that the time goes to the loader. The chip writes through plain pointers into a
// buffer that keeps its capacity from one input to the next.
#define CHIP_SIDE __attribute__((no_sanitize("coverage")))

CHIP_SIDE void frame(const uint8_t* payload, size_t size) {
    const size_t start = line.input.size();
    line.input.resize(start + 2 * size + 2);
    uint8_t* out = line.input.data() + start;
    *out++ = 0xC0;
    for (size_t i = 0; i < size; ++i) {
        const uint8_t b = payload[i];
        if (b == 0xC0 || b == 0xDB) {
            *out++ = 0xDB;
            *out++ = b == 0xC0 ? 0xDC : 0xDD;
        } else {
            *out++ = b;
        }
    }
    *out++ = 0xC0;
    line.input.resize(static_cast<size_t>(out - line.input.data()));
}

CHIP_SIDE uint32_t word(size_t at) {
    if (at + 4 > std::min(line.requestSize, kRequestHead)) {
        return 0;
    }
    const uint8_t* bytes = line.request.data();
    return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

// The answer a healthy ESP32 ROM gives to the request just received.
CHIP_SIDE void answerWell() {
    const uint8_t op = line.request[1];
    uint32_t value = 0;
    size_t dataSize = 0;
    if (op == READ_REG) {
        const uint32_t address = word(8);
        value = address == kMagicRegister ? kEsp32Magic : address == kSpiW0 ? kFlashId4MiB : 0;
    } else if (op == SPI_FLASH_MD5) {
        dataSize = esp_stub_get_running() ? 16 : 32;
    }
    // Header, value, an MD5 in hexadecimal text at most, status.
    std::array<uint8_t, 8 + 32 + 2> answer{0x01, op, static_cast<uint8_t>(dataSize + 2), 0};
    for (size_t i = 0; i < 4; ++i) {
        answer[4 + i] = static_cast<uint8_t>(value >> (8 * i));
    }
    std::fill_n(answer.begin() + 8, dataSize, '0');
    answer[8 + dataSize] = 0;
    answer[9 + dataSize] = 0;
    for (int i = op == SYNC ? 8 : 1; i > 0; --i) {
        frame(answer.data(), 10 + dataSize);
    }
}

CHIP_SIDE void onRequest() {
    if (line.requestSize < 8) {
        return;
    }
    if (line.requests++ != line.replaced) {
        answerWell();
        return;
    }
    const size_t start = line.input.size();
    line.input.resize(start + line.fuzzSize);
    std::memcpy(line.input.data() + start, line.fuzz, line.fuzzSize);
    if (line.goodAfter) {
        answerWell();
    }
}

CHIP_SIDE void take(uint8_t byte) {
    if (line.requestSize < kRequestHead) {
        line.request[line.requestSize] = byte;
    }
    ++line.requestSize;
}

CHIP_SIDE void receive(uint8_t byte) {
    if (line.escaped) {
        line.escaped = false;
        take(byte == 0xDC ? 0xC0 : byte == 0xDD ? 0xDB : byte);
    } else if (byte == 0xDB) {
        line.escaped = true;
    } else if (byte != 0xC0) {
        take(byte);
    } else if (line.requestSize > 0) {
        onRequest();
        line.requestSize = 0;
    }
}

// The full connect detects the chip and its flash through register reads;
// the short one is told both and goes from the sync to the SPI attach.
esp_loader_error_t connect(bool full) {
    esp_loader_connect_args_t args{100, 2};
    if (full) {
        return esp_loader_connect(&args);
    }
    return esp_loader_connect_secure_download_mode(&args, 4u << 20, ESP32_CHIP);
}

void flash(bool compressed, bool fullConnect) {
    if (connect(fullConnect) != ESP_LOADER_SUCCESS) {
        return;
    }
    uint8_t image[4 * kBlock];
    for (size_t i = 0; i < sizeof(image); ++i) {
        image[i] = static_cast<uint8_t>(i * 29);
    }
    const bool started = compressed ? esp_loader_flash_deflate_start(0, sizeof(image), sizeof(image), kBlock)
                                    : esp_loader_flash_start(0, sizeof(image), kBlock);
    if (started != ESP_LOADER_SUCCESS) {
        return;
    }
    for (uint32_t at = 0; at < sizeof(image); at += kBlock) {
        const esp_loader_error_t written = compressed ? esp_loader_flash_deflate_write(image + at, kBlock)
                                                      : esp_loader_flash_write(image + at, kBlock);
        if (written != ESP_LOADER_SUCCESS) {
            return;
        }
    }
    uint8_t digest[32];
    loader_port_start_timer(3000);
    if (loader_md5_cmd(0, sizeof(image), digest) == ESP_LOADER_SUCCESS) {
        (void)(compressed ? esp_loader_flash_deflate_finish(false) : esp_loader_flash_finish(false));
    }
}

} // namespace

ESP_LOADER_NAMESPACE_BEGIN

CHIP_SIDE esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    for (uint16_t i = 0; i < size; ++i) {
        receive(data[i]);
    }
    return ESP_LOADER_SUCCESS;
}

CHIP_SIDE esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    if (timeout == 0 || line.input.size() - line.taken < size) {
        line.now += timeout;
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    std::memcpy(data, line.input.data() + line.taken, size);
    line.taken += size;
    return ESP_LOADER_SUCCESS;
}

CHIP_SIDE void loader_port_delay_ms(uint32_t ms) {
    line.now += ms;
}

CHIP_SIDE void loader_port_start_timer(uint32_t ms) {
    line.deadline = line.now + ms;
}

CHIP_SIDE uint32_t loader_port_remaining_time() {
    return line.deadline > line.now ? static_cast<uint32_t>(line.deadline - line.now) : 0;
}

void loader_port_enter_bootloader() {}

void loader_port_reset_target() {}

void loader_port_debug_print(const char*) {}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END

// The longest answer, the ROM's MD5 in text, is 42 bytes, 86 on the line with
// every byte escaped; 512 bytes hold several of them with noise between, and
// longer inputs only make the loader read more of the same.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    setDefaultMaxLen(argc, argv, 512);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    line.requestSize = 0;
    line.escaped = false;
    line.input.clear();
    line.taken = 0;
    line.requests = 0;
    line.replaced = data[0];
    line.goodAfter = (data[1] & 2) != 0;
    line.fuzz = data + 2;
    line.fuzzSize = size - 2;
    line.now = 0;
    esp_stub_set_running((data[1] & 4) != 0);
    flash((data[1] & 1) != 0, (data[1] & 8) != 0);
    return 0;
}
