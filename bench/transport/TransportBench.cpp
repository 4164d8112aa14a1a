// Round trip over a pseudo-terminal: a 75-byte request written through the
// transport and a 6-byte answer read back, as one payload exchange moves
// them. The figure is the floor that the protocol's own exchanges add to.

#include "UsbCommunication.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kRequestSize = 75;
constexpr std::size_t kAnswerSize = 6;

// The board: answers every 75 bytes it receives with 6 bytes.
class AnsweringTerminal {
public:
    AnsweringTerminal() {
        char name[256] = {};
        if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
            master = slave = -1;
            return;
        }
        path = name;
        termios tio{};
        ::tcgetattr(slave, &tio);
        ::cfmakeraw(&tio);
        ::tcsetattr(slave, TCSANOW, &tio);
        worker = std::thread([this] { answer(); });
    }

    ~AnsweringTerminal() {
        stop = true;
        if (worker.joinable()) {
            worker.join();
        }
        for (int fd : {master, slave}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }

    bool isValid() const { return master >= 0; }
    const std::string& slavePath() const { return path; }
    // The test's own slave descriptor, for the baseline without the transport.
    int slaveFd() const { return slave; }

private:
    void answer() {
        const unsigned char reply[kAnswerSize] = {0x7E, 0x02, 0x00, 0x02, 0x55, 0xAA};
        std::size_t got = 0;
        unsigned char buffer[512];
        while (!stop) {
            pollfd fd{master, POLLIN, 0};
            if (::poll(&fd, 1, 50) <= 0) {
                continue;
            }
            const ssize_t n = ::read(master, buffer, sizeof(buffer));
            if (n <= 0) {
                continue;
            }
            got += static_cast<std::size_t>(n);
            while (got >= kRequestSize) {
                got -= kRequestSize;
                [[maybe_unused]] const ssize_t w = ::write(master, reply, sizeof(reply));
            }
        }
    }

    int master = -1;
    int slave = -1;
    std::string path;
    std::atomic<bool> stop{false};
    std::thread worker;
};

using Clock = std::chrono::steady_clock;

void reportLatencies(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    const auto at = [&](double q) {
        return micros[static_cast<std::size_t>(q * static_cast<double>(micros.size() - 1))];
    };
    state.counters["median_us"] = at(0.5);
    state.counters["p90_us"] = at(0.9);
    state.counters["p99_us"] = at(0.99);
}

void BM_UsbCommunicationRoundTrip(benchmark::State& state) {
    AnsweringTerminal board;
    if (!board.isValid()) {
        state.SkipWithError("no pseudo-terminal");
        return;
    }
    UsbCommunication usb;
    usb.portName = board.slavePath();
    usb.baudrate = UsbTypes::Baud921600;
    if (usb.connect(UsbCommunication::MethodCom) != UsbTypes::Ok) {
        state.SkipWithError("connect failed");
        return;
    }
    unsigned char request[kRequestSize];
    for (std::size_t i = 0; i < kRequestSize; ++i) {
        request[i] = static_cast<unsigned char>(i);
    }
    unsigned char answer[256];
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (usb.write(request, sizeof(request)) != UsbTypes::Ok) {
            state.SkipWithError("write failed");
            break;
        }
        std::size_t got = 0;
        while (got < kAnswerSize) {
            const auto result = usb.read(answer + got, kAnswerSize - got, 1000);
            if (result.status != UsbTypes::Ok) {
                break;
            }
            got += result.bytes;
        }
        if (got != kAnswerSize) {
            state.SkipWithError("answer missing");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    reportLatencies(state, micros);
    usb.disconnect();
}

// The same exchange on the bare descriptor: what the terminal itself costs.
void BM_BareTerminalRoundTrip(benchmark::State& state) {
    AnsweringTerminal board;
    if (!board.isValid()) {
        state.SkipWithError("no pseudo-terminal");
        return;
    }
    const int fd = board.slaveFd();
    unsigned char request[kRequestSize] = {};
    unsigned char answer[kAnswerSize];
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (::write(fd, request, sizeof(request)) != static_cast<ssize_t>(sizeof(request))) {
            state.SkipWithError("write failed");
            break;
        }
        std::size_t got = 0;
        while (got < kAnswerSize) {
            pollfd wait{fd, POLLIN, 0};
            if (::poll(&wait, 1, 1000) <= 0) {
                break;
            }
            const ssize_t n = ::read(fd, answer + got, kAnswerSize - got);
            if (n <= 0) {
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        if (got != kAnswerSize) {
            state.SkipWithError("answer missing");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    reportLatencies(state, micros);
}

} // namespace

BENCHMARK(BM_UsbCommunicationRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_BareTerminalRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
