// merid-devsim: a simulated board on a pseudo-terminal, for demos and manual
// tests. Prints the path of the port it serves and runs until interrupted.

#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "RawLinkRecorder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

volatile std::sig_atomic_t gStop = 0;

void onSignal(int) {
    gStop = 1;
}

void usage(std::ostream& out) {
    out << "usage: merid-devsim [options]\n"
           "  --port-link PATH       make PATH a symbolic link to the served port\n"
           "  --devices LIST         devices as ADDR[:NAME],... (default 2:MeridKestal STM32)\n"
           "  --second-device        add a second device at address 3\n"
           "  --baud N               pace the link at N baud (10 bits a byte); 0 = unpaced\n"
           "  --turnaround-us N      delay before each answer on a paced link (default 1000)\n"
           "  --erase-ms N           time an erase keeps a device busy\n"
           "  --silent               answer nothing\n"
           "  --wrong-crc            break the check code of every answer\n"
           "  --error-status CODE    refuse requests with this status...\n"
           "  --error-count N        ...this many of them (default: all)\n"
           "  --error-command CODE   ...only those with this wire code\n"
           "  --garbage N            N stray bytes before every answer\n"
           "  --split N              write answers in pieces of N bytes...\n"
           "  --split-gap-us N       ...this far apart (default 300)\n"
           "  --delay-ms N           delay every answer\n"
           "  --unplug-after N       close the port under the program after N frames\n"
           "  --image-dir DIR        on exit, write each received file to DIR\n"
           "  --journal FILE         on exit, write every frame received to FILE\n"
           "ESP32 ROM loader behind the enter frame:\n"
           "  --no-esp               no ESP32: the enter frame is an ordinary field set\n"
           "  --esp-flash-size N     bytes of flash, a power of two from 262144 (default 4 MiB)\n"
           "  --esp-security-info    a ROM that answers the security info command\n"
           "  --esp-no-banner        no boot text when the port is opened again\n"
           "  --esp-silent-syncs N   leave the first N syncs unanswered\n"
           "  --esp-fail-block N     refuse the Nth flash data block...\n"
           "  --esp-fail-count N     ...and this many after it in all (default 1)...\n"
           "  --esp-fail-error CODE  ...with this error code (default 0xC1)\n"
           "  --esp-garbage N        N stray bytes before every answer frame\n"
           "  --esp-spi-busy N       the SPI controller reads busy N more times\n"
           "  --esp-corrupt-flash    change one byte of the flash after each write run\n"
           "  --esp-lose-request N   the Nth flash data request never reaches the chip\n"
           "  --esp-lose-answer N    the chip takes the Nth flash data request, its answer is lost\n"
           "  --esp-late-answer N    the chip answers the Nth flash data request late...\n"
           "  --esp-late-ms N        ...by this many milliseconds (default 1300)\n"
           "  --esp-flash-out FILE   on exit, write the ESP32's whole flash to FILE\n"
           "  --help                 this text\n";
}

bool parseNumber(const std::string& text, long long low, long long high, long long& value) {
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool parseDevices(const std::string& list, std::vector<SimDevice>& devices) {
    std::stringstream stream(list);
    std::string item;
    while (std::getline(stream, item, ',')) {
        const auto colon = item.find(':');
        long long address = 0;
        if (!parseNumber(item.substr(0, colon), 0, 254, address)) {
            return false;
        }
        std::string name = colon == std::string::npos ? "MeridKestal device" : item.substr(colon + 1);
        devices.push_back(SimDevice::standard(static_cast<std::uint8_t>(address), name));
    }
    return !devices.empty();
}

void writeImages(DeviceSimulator& simulator, const std::vector<SimDevice>& devices, const std::string& dir) {
    for (const auto& device : devices) {
        for (int index = 0; index < 256; ++index) {
            auto image = simulator.finishedImage(device.getAddress(), static_cast<std::uint8_t>(index));
            if (!image) {
                continue;
            }
            const std::string path = dir + "/device" + std::to_string(device.getAddress()) + "_file" +
                                     std::to_string(index) + ".bin";
            std::ofstream out(path, std::ios::binary);
            out.write(reinterpret_cast<const char*>(image->data()),
                      static_cast<std::streamsize>(image->size()));
            std::cerr << "merid-devsim: wrote " << image->size() << " bytes to " << path << "\n";
        }
    }
}

void printEspSummary(EspRomSimulator& chip) {
    const auto counters = chip.counters();
    std::cerr << "merid-devsim: esp32: " << counters.syncs << " syncs, " << counters.flashBegins
              << " flash begins, " << counters.dataBlocks << " data blocks, " << counters.refusals
              << " refusals, " << counters.stubStarts << " stub starts\n";
}

bool writeEspFlash(EspRomSimulator& chip, const std::string& path) {
    const auto bytes = chip.flash(0, chip.config().flashSize);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        std::cerr << "merid-devsim: cannot write " << path << "\n";
        return false;
    }
    std::cerr << "merid-devsim: wrote the ESP32 flash, " << bytes.size() << " bytes, to " << path << "\n";
    return true;
}

std::string hexText(const std::vector<std::uint8_t>& bytes) {
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text << (i == 0 ? "" : " ") << std::setw(2) << int(bytes[i]);
    }
    return text.str();
}

// One line per frame the board received, in the order of arrival: payload
// frames with their check-code verdict, the update-mode request, and what
// came while the link was handed to the ESP32 (its frames and the port's
// closes and opens). Two runs of the same scenario give the same file.
bool writeJournal(DeviceSimulator& simulator, RawLinkRecorder& raw, const std::string& path) {
    std::vector<std::pair<DeviceSimulator::Clock::time_point, std::string>> lines;
    for (const auto& entry : simulator.journal()) {
        const bool frame = entry.kind == DeviceSimulator::JournalEntry::Frame;
        const std::string head = frame ? (entry.crcOk ? "frame ok " : "frame bad-crc ") : "update-mode ";
        lines.emplace_back(entry.at, head + hexText(entry.raw));
    }
    for (const auto& entry : raw.entries()) {
        switch (entry.kind) {
        case RawLinkRecorder::Entry::Bytes:
            lines.emplace_back(entry.at, "raw " + hexText(entry.bytes));
            break;
        case RawLinkRecorder::Entry::PortClosed:
            lines.emplace_back(entry.at, "raw port closed");
            break;
        case RawLinkRecorder::Entry::PortOpened:
            lines.emplace_back(entry.at, "raw port opened");
            break;
        }
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::ofstream out(path);
    for (const auto& line : lines) {
        out << line.second << "\n";
    }
    out.flush();
    if (!out) {
        std::cerr << "merid-devsim: cannot write " << path << "\n";
        return false;
    }
    std::cerr << "merid-devsim: wrote the journal, " << lines.size() << " lines, to " << path << "\n";
    return true;
}

void printSummary(DeviceSimulator& simulator, const std::vector<SimDevice>& devices) {
    std::size_t frames = 0;
    std::size_t badFrames = 0;
    for (const auto& entry : simulator.journal()) {
        if (entry.kind == DeviceSimulator::JournalEntry::Frame) {
            ++frames;
            badFrames += entry.crcOk ? 0 : 1;
        }
    }
    std::cerr << "merid-devsim: " << frames << " frames (" << badFrames << " with a wrong check code), "
              << simulator.answersSent() << " answers, " << simulator.strayBytes() << " stray bytes\n";
    for (const auto& device : devices) {
        auto counters = simulator.counters(device.getAddress());
        if (!counters) {
            continue;
        }
        std::cerr << "merid-devsim: device " << int(device.getAddress()) << ": " << counters->eraseCommands
                  << " erase commands, " << counters->fileErases << " file erases, " << counters->fileWrites
                  << " chunks, " << counters->fileFinishes << " finished files\n";
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string portLink;
    std::string imageDir;
    std::string journalPath;
    std::string deviceList = "2:MeridKestal STM32";
    bool secondDevice = false;
    long long baud = 0;
    long long turnaroundUs = 1000;
    long long eraseMs = 0;
    bool errorCountGiven = false;
    DeviceSimulator::Faults faults;
    bool withEsp = true;
    std::string espFlashOut;
    EspRomSimulator::Config espConfig;
    EspRomSimulator::Faults espFaults;

    // The options that set one count of the board's or the chip's faults.
    struct CountOption {
        const char* name;
        long long low;
        long long high;
        unsigned* count;
    };
    const CountOption countOptions[] = {
        {"--garbage", 0, 4096, &faults.garbageBytes},
        {"--unplug-after", 1, 1'000'000'000, &faults.unplugAfterFrames},
        {"--esp-silent-syncs", 0, 1'000'000, &espFaults.silentSyncs},
        {"--esp-fail-block", 1, 1'000'000'000, &espFaults.failDataBlock},
        {"--esp-fail-count", 1, 1'000'000'000, &espFaults.failDataCount},
        {"--esp-garbage", 0, 4096, &espFaults.garbageBytes},
        {"--esp-spi-busy", 0, 1000, &espFaults.spiBusyPolls},
        {"--esp-lose-request", 1, 1'000'000'000, &espFaults.lostRequest},
        {"--esp-lose-answer", 1, 1'000'000'000, &espFaults.lostAnswer},
        {"--esp-late-answer", 1, 1'000'000'000, &espFaults.lateAnswer},
    };

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&](long long low, long long high, long long& out) {
            if (i + 1 >= args.size() || !parseNumber(args[i + 1], low, high, out)) {
                std::cerr << "merid-devsim: " << arg << " needs a number from " << low << " to " << high
                          << "\n";
                std::exit(2);
            }
            ++i;
        };
        auto text = [&]() -> std::string {
            if (i + 1 >= args.size()) {
                std::cerr << "merid-devsim: " << arg << " needs a value\n";
                std::exit(2);
            }
            return args[++i];
        };
        long long number = 0;
        const auto* counted = std::find_if(std::begin(countOptions), std::end(countOptions),
                                           [&](const CountOption& option) { return arg == option.name; });
        if (counted != std::end(countOptions)) {
            value(counted->low, counted->high, number);
            *counted->count = static_cast<unsigned>(number);
        } else if (arg == "--help" || arg == "-h") {
            usage(std::cout);
            return 0;
        } else if (arg == "--port-link") {
            portLink = text();
        } else if (arg == "--devices") {
            deviceList = text();
        } else if (arg == "--second-device") {
            secondDevice = true;
        } else if (arg == "--baud") {
            value(0, 100'000'000, baud);
        } else if (arg == "--turnaround-us") {
            value(0, 10'000'000, turnaroundUs);
        } else if (arg == "--erase-ms") {
            value(0, 600'000, eraseMs);
        } else if (arg == "--silent") {
            faults.silent = true;
        } else if (arg == "--wrong-crc") {
            faults.wrongCrc = true;
        } else if (arg == "--error-status") {
            value(1, 255, number);
            faults.errorStatus = static_cast<std::uint8_t>(number);
        } else if (arg == "--error-count") {
            value(0, 1'000'000'000, number);
            faults.errorNext = static_cast<unsigned>(number);
            errorCountGiven = true;
        } else if (arg == "--error-command") {
            value(0, 255, number);
            faults.errorCommand = static_cast<int>(number);
        } else if (arg == "--split") {
            value(1, 255, number);
            faults.splitWrites = true;
            faults.splitPiece = static_cast<std::size_t>(number);
        } else if (arg == "--split-gap-us") {
            value(0, 10'000'000, number);
            faults.splitGap = std::chrono::microseconds(number);
        } else if (arg == "--delay-ms") {
            value(0, 600'000, number);
            faults.answerDelay = std::chrono::milliseconds(number);
        } else if (arg == "--image-dir") {
            imageDir = text();
        } else if (arg == "--journal") {
            journalPath = text();
        } else if (arg == "--no-esp") {
            withEsp = false;
        } else if (arg == "--esp-flash-size") {
            value(1 << 18, 1 << 30, number);
            if ((number & (number - 1)) != 0) {
                std::cerr << "merid-devsim: --esp-flash-size needs a power of two\n";
                return 2;
            }
            espConfig.flashSize = static_cast<std::uint32_t>(number);
        } else if (arg == "--esp-security-info") {
            espConfig.answerSecurityInfo = true;
        } else if (arg == "--esp-no-banner") {
            espConfig.bootBanner = false;
        } else if (arg == "--esp-fail-error") {
            value(1, 255, number);
            espFaults.failError = static_cast<std::uint8_t>(number);
        } else if (arg == "--esp-corrupt-flash") {
            espFaults.corruptFlash = true;
        } else if (arg == "--esp-late-ms") {
            value(0, 60'000, number);
            espFaults.lateBy = std::chrono::milliseconds(number);
        } else if (arg == "--esp-flash-out") {
            espFlashOut = text();
        } else {
            std::cerr << "merid-devsim: unknown option " << arg << "\n";
            usage(std::cerr);
            return 2;
        }
    }
    if (faults.errorStatus != 0 && !errorCountGiven) {
        faults.errorNext = ~0u;
    }

    std::vector<SimDevice> devices;
    if (!parseDevices(deviceList, devices)) {
        std::cerr << "merid-devsim: --devices wants ADDR[:NAME],... with addresses 0 to 254\n";
        return 2;
    }
    if (secondDevice) {
        devices.push_back(SimDevice::standard(3, "MeridKestal Aux"));
    }

    // Declared before the simulator, whose raw-mode handlers it records.
    RawLinkRecorder rawRecorder;
    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip;
    if (withEsp) {
        chip = std::make_shared<EspRomSimulator>(espConfig);
        chip->setFaults(espFaults);
        RawLinkRecorder::Factory bridge = [chip]() -> std::unique_ptr<RawLinkHandler> {
            return std::make_unique<EspRomBridge>(chip);
        };
        simulator.setRawModeFactory(journalPath.empty() ? bridge : rawRecorder.wrap(bridge));
    }
    for (auto device : devices) {
        device.setEraseTime(std::chrono::milliseconds(eraseMs));
        simulator.addDevice(device);
    }
    simulator.setFaults(faults);
    simulator.setPacing(static_cast<std::uint32_t>(baud), std::chrono::microseconds(turnaroundUs));
    if (!simulator.start()) {
        std::cerr << "merid-devsim: " << simulator.lastError() << "\n";
        return 1;
    }
    if (!portLink.empty() && !simulator.createLink(portLink)) {
        std::cerr << "merid-devsim: " << simulator.lastError() << "\n";
        return 1;
    }
    std::cout << simulator.slavePath() << std::endl;

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    while (gStop == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    simulator.stop();
    printSummary(simulator, devices);
    if (chip) {
        printEspSummary(*chip);
        if (!espFlashOut.empty() && !writeEspFlash(*chip, espFlashOut)) {
            return 1;
        }
    }
    if (!imageDir.empty()) {
        writeImages(simulator, devices, imageDir);
    }
    if (!journalPath.empty() && !writeJournal(simulator, rawRecorder, journalPath)) {
        return 1;
    }
    return 0;
}
