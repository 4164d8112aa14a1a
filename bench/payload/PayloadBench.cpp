// The STM32 transfer over a pseudo-terminal with the simulated board, with the
// program's own threads and transport: bytes/s and ms per chunk for the
// 37312-byte image and for 1 MiB, unpaced and over a paced link (where the
// efficiency is the share of the stop-and-wait limit that was reached); the
// bare transport round trip for comparison; and the receive path's throughput.
// Logging is off (no sinks), so that the figures are the protocol's.

#include "BoardLink.h"
#include "DeviceSimulator.h"
#include "FastCrc8.h"
#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "UsbCommunication.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kAddress = 2;
constexpr std::size_t kStm32Image = 37312;
constexpr std::size_t kMiB = 1 << 20;
constexpr auto kTurnaround = std::chrono::milliseconds(1);

std::vector<std::string> gFigures;
// The bare transport's round trip, measured first, to tell the protocol's share.
double gTransportMs = 0;

void figure(const char* format, double a, double b = 0, double c = 0, double d = 0) {
    char line[256];
    std::snprintf(line, sizeof(line), format, a, b, c, d);
    gFigures.emplace_back(line);
}

std::string writeImage(std::size_t size) {
    const char* dir = std::getenv("TMPDIR");
    const std::string path =
        std::string(dir != nullptr ? dir : "/tmp") + "/merid-bench-" + std::to_string(getpid()) + ".bin";
    std::ofstream out(path, std::ios::binary);
    std::uint32_t x = 12345;
    for (std::size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        out.put(static_cast<char>(x >> 16));
    }
    return path;
}

struct TransferResult {
    bool ok = false;
    double seconds = 0;
    std::size_t steps = 0;
};

// Steps of a transfer: the erase, the chunks, the finish.
std::size_t stepsFor(std::size_t size) {
    const std::size_t chunk = size < PayloadHandler::kLargeFileSize ? 32 : 64;
    return 2 + (size + chunk - 1) / chunk;
}

// The time the wire needs for one transfer when each step waits for its
// answer: every request and answer byte at 10 bits, plus a turnaround each.
double stopAndWaitSeconds(std::size_t size, std::uint32_t baud) {
    const std::size_t chunk = size < PayloadHandler::kLargeFileSize ? 32 : 64;
    const double answerBytes = 6;
    double bytes = 2 * (11 + answerBytes); // erase and finish steps
    for (std::size_t at = 0; at < size; at += chunk) {
        bytes += 11 + static_cast<double>(std::min(chunk, size - at)) + answerBytes;
    }
    const double turnarounds =
        static_cast<double>(stepsFor(size)) * std::chrono::duration<double>(kTurnaround).count();
    return bytes * 10.0 / baud + turnarounds;
}

TransferResult transfer(std::size_t size, std::uint32_t baud) {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    DeviceSimulator simulator;
    simulator.addDevice(SimDevice::standard(kAddress, "Bench"));
    simulator.setPacing(baud, kTurnaround);
    TransferResult result;
    if (!simulator.start()) {
        return result;
    }
    BoardLink link;
    link.usb().portName = simulator.slavePath();
    link.usb().baudrate = UsbTypes::Baud921600;
    if (link.usb().connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
        return result;
    }
    link.devices().addDevice(DeviceInfo{kAddress, 1, 0, {}, 0, {}, 0, {}});
    link.startThreads();
    const std::string path = writeImage(size);

    const auto start = Clock::now();
    MessageArgs args;
    args.device = kAddress;
    args.field = 0;
    args.path = path;
    link.protocol().onMessage(FILE_START_MSG, &args);
    link.protocol().generateResponse(FILE_WRITE_MSG);
    const auto limit = start + std::chrono::minutes(10);
    while (!simulator.finishedImage(kAddress, 0) && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    result.ok = simulator.finishedImage(kAddress, 0).has_value() &&
                simulator.finishedImage(kAddress, 0)->size() == size;
    result.steps = stepsFor(size);
    link.close();
    std::remove(path.c_str());
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    return result;
}

void BM_Stm32Transfer(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto baud = static_cast<std::uint32_t>(state.range(1));
    TransferResult result;
    for (auto _ : state) {
        result = transfer(size, baud);
        state.SetIterationTime(result.seconds);
    }
    if (!result.ok) {
        state.SkipWithError("transfer did not complete");
        return;
    }
    const double rate = static_cast<double>(size) / result.seconds;
    const double msPerChunk = result.seconds * 1000.0 / static_cast<double>(result.steps);
    state.counters["bytes_per_s"] = rate;
    state.counters["ms_per_chunk"] = msPerChunk;
    if (baud == 0) {
        figure("STM32 transfer, %.0f bytes, pty unpaced: %.0f bytes/s, %.3f ms per chunk",
               static_cast<double>(size), rate, msPerChunk);
        if (gTransportMs > 0) {
            figure("STM32 transfer, %.0f bytes, pty unpaced: the protocol adds %.3f ms per chunk to the "
                   "transport's "
                   "%.3f ms round trip",
                   static_cast<double>(size), msPerChunk - gTransportMs, gTransportMs);
        }
    } else {
        const double efficiency = stopAndWaitSeconds(size, baud) / result.seconds;
        state.counters["efficiency"] = efficiency;
        figure("STM32 transfer, %.0f bytes, paced %.0f baud: %.0f bytes/s, %.3f ms per chunk",
               static_cast<double>(size), baud, rate, msPerChunk);
        figure("STM32 transfer, %.0f bytes, paced %.0f baud: efficiency %.3f of the stop-and-wait limit "
               "(%.0f bytes/s)",
               static_cast<double>(size), baud, efficiency,
               static_cast<double>(size) / stopAndWaitSeconds(size, baud));
    }
}

// One 75-byte request through the transport and its 6-byte answer, with no
// protocol threads: what a chunk costs the link alone.
void BM_TransportRoundTrip(benchmark::State& state) {
    DeviceSimulator simulator;
    simulator.addDevice(SimDevice::standard(kAddress, "Bench"));
    if (!simulator.start()) {
        state.SkipWithError("no pty");
        return;
    }
    UsbCommunication usb;
    usb.portName = simulator.slavePath();
    usb.baudrate = UsbTypes::Baud921600;
    usb.connect(UsbCommunication::MethodCom);
    // A full chunk at offset 0 of file 0: the board takes it as a write.
    std::vector<unsigned char> payload(72, 0x55);
    payload[0] = 1;
    payload[1] = kAddress;
    payload[2] = FILE_WRITE_REQ;
    std::fill(payload.begin() + 3, payload.begin() + 8, 0);
    std::vector<unsigned char> frame{0x7E, 71};
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.push_back(FastCrc8::update(0, payload.data(), payload.size()));
    unsigned char answer[64];
    std::size_t trips = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        usb.write(frame.data(), frame.size());
        std::size_t got = 0;
        while (got < 6) {
            auto read = usb.read(answer, sizeof(answer), 1000);
            if (read.status != UsbTypes::Ok) {
                break;
            }
            got += read.bytes;
        }
        ++trips;
    }
    const double ms =
        std::chrono::duration<double, std::milli>(Clock::now() - start).count() / static_cast<double>(trips);
    state.counters["ms_per_trip"] = ms;
    gTransportMs = ms;
    figure("transport round trip (75-byte request, 6-byte answer) over the pty: %.3f ms", ms);
    usb.disconnect();
}

std::vector<unsigned char> frameStream(std::size_t frames) {
    std::vector<unsigned char> stream;
    for (std::size_t i = 0; i < frames; ++i) {
        std::vector<unsigned char> payload(72, static_cast<unsigned char>(i));
        payload[0] = static_cast<unsigned char>(i);
        payload[1] = kAddress;
        payload[2] = 0;
        stream.push_back(0x7E);
        stream.push_back(71);
        stream.insert(stream.end(), payload.begin(), payload.end());
        stream.push_back(FastCrc8::update(0, payload.data(), payload.size()));
    }
    return stream;
}

void BM_ReceivePath(benchmark::State& state) {
    PayloadHandler handler;
    const auto stream = frameStream(4096);
    for (auto _ : state) {
        // Blocks of 256 bytes, as the listener reads them.
        for (std::size_t at = 0; at < stream.size(); at += 256) {
            benchmark::DoNotOptimize(
                handler.update(stream.data() + at, std::min<std::size_t>(256, stream.size() - at)));
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream.size()));
}

void BM_Crc8(benchmark::State& state) {
    std::vector<unsigned char> data(1 << 16);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>(i * 31);
    }
    unsigned char crc = 0;
    for (auto _ : state) {
        crc = FastCrc8::update(crc, data.data(), data.size());
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}

} // namespace

BENCHMARK(BM_TransportRoundTrip)->Iterations(2000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Stm32Transfer)
    ->Args({kStm32Image, 0})
    ->Args({kMiB, 0})
    ->Args({kStm32Image, 115200})
    ->Args({kStm32Image, 921600})
    ->Args({kMiB, 921600})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReceivePath);
BENCHMARK(BM_Crc8);

// Reports the receive-path figures from the library's own measurement.
class FigureReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            const auto found = run.counters.find("bytes_per_second");
            if (found == run.counters.end()) {
                continue;
            }
            const std::string name = run.benchmark_name();
            const double mbps = found->second.value / 1e6;
            if (name.rfind("BM_ReceivePath", 0) == 0) {
                figure("receive path (frame parser, CRC-8 and process of 75-byte frames): %.1f MB/s", mbps);
            } else if (name.rfind("BM_Crc8", 0) == 0) {
                figure("CRC-8 table: %.1f MB/s", mbps);
            }
        }
    }
};

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    FigureReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::printf("\n");
    for (const auto& line : gFigures) {
        std::printf("%s\n", line.c_str());
    }
    return 0;
}
