// ESP32 flash over a pseudo-terminal: flashBinary with the program's
// UsbCommunication against the simulated board's ESP32 ROM loader. Unpaced,
// then on a link paced at 115200 and 921600 baud, where the efficiency is the
// achieved block rate over the stop-and-wait limit of that link: each block's
// request and answer bytes at 10 bits a byte plus the board's turnaround.
//
// MERID_BENCH_ESP_BYTES sets the image size (default 1 MiB). Each flash ends
// with the MD5 check; the last case shows what that check costs.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "MeridEspSerialFlasher.h"
#include "UsbCommunication.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kBlock = 1024;
constexpr auto kTurnaround = std::chrono::milliseconds(1);

uint32_t imageSize() {
    const char* text = std::getenv("MERID_BENCH_ESP_BYTES");
    const long long value = text != nullptr ? std::atoll(text) : 0;
    return value >= 4 && value % 4 == 0 ? static_cast<uint32_t>(value) : 1u << 20;
}

std::vector<uint8_t> makeImage(uint32_t size) {
    std::vector<uint8_t> bytes(size);
    uint32_t seed = 20240611;
    for (auto& b : bytes) {
        seed = seed * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
}

std::string writeImage(const std::vector<uint8_t>& bytes) {
    char path[] = "/tmp/merid-esp-bench-XXXXXX";
    const int fd = mkstemp(path);
    if (fd >= 0) {
        close(fd);
    }
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

size_t escapes(const uint8_t* data, size_t size) {
    size_t count = 0;
    for (size_t i = 0; i < size; ++i) {
        count += data[i] == 0xC0 || data[i] == 0xDB ? 1 : 0;
    }
    return count;
}

// Wire bytes of all data requests, framed and escaped as the loader sends
// them, and of their answers.
double wireBytesPerBlock(const std::vector<uint8_t>& image) {
    const size_t blocks = (image.size() + kBlock - 1) / kBlock;
    double total = 0;
    std::vector<uint8_t> block(kBlock);
    for (size_t i = 0; i < blocks; ++i) {
        const size_t n = std::min<size_t>(kBlock, image.size() - i * kBlock);
        std::fill(block.begin(), block.end(), 0xFF);
        std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(i * kBlock), n, block.begin());
        uint8_t checksum = 0xEF;
        for (uint8_t b : block) {
            checksum ^= b;
        }
        const uint8_t header[] = {0x00,
                                  0x03,
                                  0x10,
                                  0x04,
                                  checksum,
                                  0,
                                  0,
                                  0,
                                  0x00,
                                  0x04,
                                  0,
                                  0,
                                  static_cast<uint8_t>(i),
                                  static_cast<uint8_t>(i >> 8),
                                  0,
                                  0};
        const size_t request =
            2 + 24 + kBlock + escapes(header, sizeof(header)) + escapes(block.data(), kBlock);
        const size_t answer = 2 + 10;
        total += static_cast<double>(request + answer);
    }
    return total / static_cast<double>(blocks);
}

void flashBench(benchmark::State& state, uint32_t baud) {
    const std::vector<uint8_t> image = makeImage(imageSize());
    const std::string path = writeImage(image);
    const uint32_t blocks = (static_cast<uint32_t>(image.size()) + kBlock - 1) / kBlock;

    for (auto _ : state) {
        DeviceSimulator simulator;
        auto chip = std::make_shared<EspRomSimulator>();
        EspRomBridge::install(simulator, chip);
        simulator.setPacing(baud, kTurnaround);
        if (!simulator.start()) {
            state.SkipWithError(simulator.lastError().c_str());
            break;
        }
        UsbCommunication usb;
        usb.portName = simulator.slavePath();
        usb.baudrate = UsbTypes::Baudrate(baud == 0 ? 921600 : baud);
        if (usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
            state.SkipWithError("cannot open the simulator's port");
            break;
        }

        uint32_t reports = 0;
        Clock::time_point firstBlock;
        Clock::time_point lastBlock;
        const auto progress = [&](unsigned char) {
            lastBlock = Clock::now();
            if (reports++ == 0) {
                firstBlock = lastBlock;
            }
        };
        std::string error;
        const auto start = Clock::now();
        const bool ok = MeridEspSerialFlasher::flashBinary(usb, path, {0, kBlock, false}, progress, &error);
        const auto end = Clock::now();
        usb.disconnect();
        simulator.stop();
        if (!ok || chip->flash(0, static_cast<uint32_t>(image.size())) != image) {
            state.SkipWithError(ok ? "flash differs from the image" : error.c_str());
            break;
        }

        const double whole = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(whole);
        const double perBlock =
            blocks > 1 ? std::chrono::duration<double>(lastBlock - firstBlock).count() / (blocks - 1) : whole;
        state.counters["image_bytes"] = static_cast<double>(image.size());
        state.counters["whole_bytes_per_s"] = static_cast<double>(image.size()) / whole;
        state.counters["block_ms"] = perBlock * 1000.0;
        state.counters["steady_bytes_per_s"] = kBlock / perBlock;
        if (baud != 0) {
            const double limitPerBlock =
                wireBytesPerBlock(image) * 10.0 / baud + std::chrono::duration<double>(kTurnaround).count();
            state.counters["limit_bytes_per_s"] = kBlock / limitPerBlock;
            state.counters["efficiency_pct"] = 100.0 * limitPerBlock / perBlock;
        }
    }
    std::remove(path.c_str());
}

// What the MD5 check after the last block adds to a flash of the 1803184-byte
// preinstalled image's size at 921600 baud: the same flash with and without
// it, each from its last acknowledged block to the end of flashBinary. The
// simulated ROM digests at once, so the figure is the link's and this side's
// share; a real ROM adds the time it takes to read its flash back.
void BM_Esp32VerifyCost921600(benchmark::State& state) {
    const std::vector<uint8_t> image = makeImage(1803184);
    const std::string path = writeImage(image);
    for (auto _ : state) {
        double tail[2] = {0, 0};
        double whole[2] = {0, 0};
        for (const bool verify : {false, true}) {
            DeviceSimulator simulator;
            auto chip = std::make_shared<EspRomSimulator>();
            EspRomBridge::install(simulator, chip);
            simulator.setPacing(921600, kTurnaround);
            UsbCommunication usb;
            usb.portName = simulator.start() ? simulator.slavePath() : std::string();
            usb.baudrate = UsbTypes::Baud921600;
            if (usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
                state.SkipWithError("cannot open the simulator's port");
                return;
            }
            Clock::time_point lastBlock;
            std::string error;
            const auto start = Clock::now();
            const bool ok = MeridEspSerialFlasher::flashBinary(
                usb, path, {0, kBlock, false, verify}, [&](unsigned char) { lastBlock = Clock::now(); },
                &error);
            const auto end = Clock::now();
            usb.disconnect();
            simulator.stop();
            if (!ok) {
                state.SkipWithError(error.c_str());
                return;
            }
            tail[verify] = std::chrono::duration<double>(end - lastBlock).count();
            whole[verify] = std::chrono::duration<double>(end - start).count();
        }
        state.SetIterationTime(tail[1] - tail[0]);
        state.counters["verify_ms"] = (tail[1] - tail[0]) * 1000.0;
        state.counters["flash_ms"] = whole[0] * 1000.0;
        state.counters["flash_verified_ms"] = whole[1] * 1000.0;
        state.counters["verify_share_pct"] = 100.0 * (tail[1] - tail[0]) / whole[0];
    }
    std::remove(path.c_str());
}

void BM_Esp32FlashUnpaced(benchmark::State& state) {
    flashBench(state, 0);
}

void BM_Esp32Flash921600(benchmark::State& state) {
    flashBench(state, 921600);
}

void BM_Esp32Flash115200(benchmark::State& state) {
    flashBench(state, 115200);
}

} // namespace

BENCHMARK(BM_Esp32FlashUnpaced)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32Flash921600)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32Flash115200)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Esp32VerifyCost921600)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
