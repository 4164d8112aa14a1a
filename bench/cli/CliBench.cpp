// merid-flash timed as a user meets it: from starting the program to its
// exit with every board verified, against simulated boards on links paced
// at a baud rate with the 1 ms turnaround of a USB serial bridge.
//
// - the ESP32, compressed and plain, at 115200 and 921600 baud;
// - four boards at once against one, for each target, at 921600 baud.
//
// The image is machine code: a slice of merid-flash itself, 1 MiB by
// default (MERID_BENCH_CLI_BYTES; the STM32 gang uses a quarter of it, as
// its chunked transfer is the slow one). One line per figure.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "SimDevice.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kTurnaround = std::chrono::milliseconds(1);

struct Board {
    explicit Board(std::uint32_t baud) {
        EspRomBridge::install(simulator, std::make_shared<EspRomSimulator>());
        simulator.addDevice(SimDevice::standard(2, "MeridKestal STM32"));
        simulator.setPacing(baud, kTurnaround);
        started = simulator.start();
    }
    ~Board() { simulator.stop(); }
    DeviceSimulator simulator;
    bool started = false;
};

std::size_t imageSize() {
    const char* text = std::getenv("MERID_BENCH_CLI_BYTES");
    const long long value = text != nullptr ? std::atoll(text) : 0;
    return value >= 4 && value % 4 == 0 ? static_cast<std::size_t>(value) : std::size_t{1} << 20;
}

// `size` bytes of the program's code, from behind its headers; the program
// repeated when it is shorter.
std::string writeImage(std::size_t size) {
    std::ifstream in(MERID_FLASH_PATH, std::ios::binary);
    const std::vector<char> program((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<char> image;
    const std::size_t skip = program.size() > 0x2000 ? 0x1000 : 0;
    while (image.size() < size && program.size() > skip) {
        image.insert(image.end(), program.begin() + static_cast<std::ptrdiff_t>(skip), program.end());
    }
    image.resize(size);
    const std::string path = "/tmp/merid-cli-bench-" + std::to_string(size) + ".bin";
    std::ofstream(path, std::ios::binary).write(image.data(), static_cast<std::streamsize>(image.size()));
    return path;
}

// Seconds from the start of merid-flash to its exit; negative on a failure.
double timeRun(const std::string& target, const std::string& options, std::uint32_t baud, int boards,
               const std::string& image) {
    std::vector<std::unique_ptr<Board>> sims;
    std::string command =
        std::string(MERID_FLASH_PATH) + " " + target + " -q -b " + std::to_string(baud) + " " + options;
    for (int i = 0; i < boards; ++i) {
        sims.push_back(std::make_unique<Board>(baud));
        if (!sims.back()->started) {
            return -1;
        }
        command += " -p " + sims.back()->simulator.slavePath();
    }
    command += " " + image;
    const auto start = Clock::now();
    const int status = std::system(command.c_str());
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

void compareCompression(const std::string& image, std::size_t size, std::uint32_t baud) {
    const double plain = timeRun("esp32", "--no-compress", baud, 1, image);
    const double packed = timeRun("esp32", "", baud, 1, image);
    std::printf(
        "esp32 %zu bytes at %u baud, press to verified: plain %.2f s, compressed %.2f s, %.2fx as fast\n",
        size, baud, plain, packed, packed > 0 ? plain / packed : 0.0);
    std::fflush(stdout);
}

void compareGang(const std::string& target, const std::string& image, std::size_t size, std::uint32_t baud) {
    const double one = timeRun(target, "", baud, 1, image);
    const double four = timeRun(target, "", baud, 4, image);
    std::printf("%s %zu bytes at %u baud, press to all verified: one board %.2f s, four boards %.2f s, %.2fx "
                "the time of one\n",
                target.c_str(), size, baud, one, four, one > 0 ? four / one : 0.0);
    std::fflush(stdout);
}

} // namespace

int main() {
    const std::size_t size = imageSize();
    const std::string image = writeImage(size);
    const std::string quarter = writeImage(size / 4);
    for (const std::uint32_t baud : {921600u, 115200u}) {
        compareCompression(image, size, baud);
    }
    compareGang("esp32", image, size, 921600);
    compareGang("stm32", quarter, size / 4, 921600);
    std::remove(image.c_str());
    std::remove(quarter.c_str());
    return 0;
}
