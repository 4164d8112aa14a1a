// SLIP encode and decode throughput of the loader, in memory: the port
// functions here take the loader's writes and serve a prepared line.
#include "esp_loader.h"
#include "loader_port.h"
#include "protocol.h"
#include "slip.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

uint64_t gWritten = 0;
const uint8_t* gLine = nullptr;
size_t gLineLeft = 0;

std::vector<uint8_t> randomBytes(size_t size) {
    std::mt19937 random(12345);
    std::vector<uint8_t> bytes(size);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(random());
    }
    return bytes;
}

std::vector<uint8_t> encode(const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> out{0xC0};
    for (uint8_t b : payload) {
        if (b == 0xC0) {
            out.insert(out.end(), {0xDB, 0xDC});
        } else if (b == 0xDB) {
            out.insert(out.end(), {0xDB, 0xDD});
        } else {
            out.push_back(b);
        }
    }
    out.push_back(0xC0);
    return out;
}

void encodeBench(benchmark::State& state, const std::vector<uint8_t>& data) {
    gWritten = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(SLIP_send(data.data(), static_cast<uint32_t>(data.size())));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(data.size()));
    state.counters["wire_bytes_per_byte"] =
        static_cast<double>(gWritten) / static_cast<double>(state.iterations() * data.size());
}

void BM_SlipEncodeRandom(benchmark::State& state) {
    encodeBench(state, randomBytes(static_cast<size_t>(state.range(0))));
}

void BM_SlipEncodeAllEscapes(benchmark::State& state) {
    encodeBench(state, std::vector<uint8_t>(static_cast<size_t>(state.range(0)), 0xC0));
}

void BM_SlipDecode(benchmark::State& state) {
    const std::vector<uint8_t> payload = randomBytes(static_cast<size_t>(state.range(0)));
    const std::vector<uint8_t> line = encode(payload);
    std::vector<uint8_t> buffer(payload.size() + 16);
    for (auto _ : state) {
        gLine = line.data();
        gLineLeft = line.size();
        loader_port_start_timer(1000);
        uint32_t received = 0;
        if (SLIP_receive_packet(buffer.data(), static_cast<uint32_t>(buffer.size()), &received) !=
                ESP_LOADER_SUCCESS ||
            received != payload.size()) {
            state.SkipWithError("frame not decoded");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(payload.size()));
}

// One READ_REG exchange: request out, response matched and taken apart.
void BM_CommandRoundTrip(benchmark::State& state) {
    const std::vector<uint8_t> response =
        encode({0x01, 0x0A, 0x02, 0x00, 0x83, 0x1D, 0xF0, 0x00, 0x00, 0x00});
    for (auto _ : state) {
        gLine = response.data();
        gLineLeft = response.size();
        loader_port_start_timer(1000);
        uint32_t value = 0;
        benchmark::DoNotOptimize(loader_read_reg_cmd(0x40001000, &value));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

} // namespace

BENCHMARK(BM_SlipEncodeRandom)->Arg(1024)->Arg(65536);
BENCHMARK(BM_SlipEncodeAllEscapes)->Arg(1024);
BENCHMARK(BM_SlipDecode)->Arg(1034)->Arg(65536);
BENCHMARK(BM_CommandRoundTrip);

ESP_LOADER_NAMESPACE_BEGIN

// The line: writes are counted and dropped, reads come from the prepared
// bytes, and time never runs out while they last.
esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    if (data == nullptr || size == 0) {
        return ESP_LOADER_ERROR_INVALID_PARAM;
    }
    gWritten += size;
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t) {
    if (gLineLeft < size) {
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    std::memcpy(data, gLine, size);
    gLine += size;
    gLineLeft -= size;
    return ESP_LOADER_SUCCESS;
}

void loader_port_delay_ms(uint32_t) {}

void loader_port_start_timer(uint32_t) {}

uint32_t loader_port_remaining_time() {
    return 1000;
}

void loader_port_enter_bootloader() {}

void loader_port_reset_target() {}

void loader_port_debug_print(const char*) {}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END

BENCHMARK_MAIN();
