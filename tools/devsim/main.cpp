// merid-devsim: a simulated board on a pseudo-terminal, for demos and manual
// tests. Prints the path of the port it serves and runs until interrupted.

#include "DeviceSimulator.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
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
    std::string deviceList = "2:MeridKestal STM32";
    bool secondDevice = false;
    long long baud = 0;
    long long turnaroundUs = 1000;
    long long eraseMs = 0;
    bool errorCountGiven = false;
    DeviceSimulator::Faults faults;

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
        if (arg == "--help" || arg == "-h") {
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
        } else if (arg == "--garbage") {
            value(0, 4096, number);
            faults.garbageBytes = static_cast<unsigned>(number);
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
        } else if (arg == "--unplug-after") {
            value(1, 1'000'000'000, number);
            faults.unplugAfterFrames = static_cast<unsigned>(number);
        } else if (arg == "--image-dir") {
            imageDir = text();
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

    DeviceSimulator simulator;
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
    if (!imageDir.empty()) {
        writeImages(simulator, devices, imageDir);
    }
    return 0;
}
