#include "FlashProgram.h"

#include "BoardGang.h"
#include "BoardLog.h"
#include "BoardSession.h"
#include "CommandLine.h"
#include "DeviceText.h"
#include "ImageCopy.h"
#include "InputCheck.h"
#include "Platform.h"
#include "PortListing.h"
#include "ProgressView.h"
#include "Summary.h"
#include "UsbCommunication.h"
#include "Utf8Path.h"
#include "WorkerReport.h"

#include <algorithm>
#include <iostream>
#include <mutex>

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kBadInput = 2;

} // namespace

int FlashProgram::run(int argc, char** argv) {
    auto parsed = CommandLine::parse(argc, argv);
    if (const int* exitCode = std::get_if<int>(&parsed)) {
        return *exitCode;
    }
    settings = std::get<CliSettings>(parsed);
    // A closed output ends no load: the writes fail, the boards go on.
    Platform::ignoreBrokenPipe();
    if (settings.worker) {
        return runWorker();
    }
    switch (settings.command) {
    case CliSettings::Command::Ports:
        return listPorts();
    case CliSettings::Command::Search:
        return searchPort();
    default:
        return runLoads();
    }
}

int FlashProgram::badInput(const std::string& line) {
    std::cerr << "merid-flash: " << line << std::endl;
    return kBadInput;
}

// After the input checks, so that a refused run leaves every file as it was.
std::optional<std::string> FlashProgram::openLogFile(const std::string& image) {
    if (settings.logPath.empty()) {
        return std::nullopt;
    }
    if (auto problem = InputCheck::logFile(settings.logPath, image)) {
        return problem;
    }
    logFile.open(pathFromUtf8(settings.logPath), std::ios::out | std::ios::trunc);
    if (!logFile.is_open()) {
        return settings.logPath + ": the log file cannot be written";
    }
    return std::nullopt;
}

std::FILE* FlashProgram::humanOutput() const {
    return settings.json ? stderr : stdout;
}

int FlashProgram::listPorts() {
    if (auto problem = openLogFile({})) {
        return badInput(*problem);
    }
    BoardLog log([this](const std::string& line) {
        if (logFile.is_open()) {
            logFile << line << '\n';
        }
    });
    UsbCommunication usb;
    usb.toDetermineDevices(UsbCommunication::MethodCom);
    const auto entries = PortListing::of(usb.availablePorts);
    if (settings.json) {
        std::cout << PortListing::json(entries) << std::endl;
    } else {
        std::cout << PortListing::table(entries) << std::flush;
    }
    return kSuccess;
}

int FlashProgram::searchPort() {
    const std::string& port = settings.ports.front();
    if (auto problem = InputCheck::port(port)) {
        return badInput(*problem);
    }
    if (auto problem = openLogFile({})) {
        return badInput(*problem);
    }
    BoardLog log([this, &port](const std::string& line) {
        if (logFile.is_open()) {
            logFile << port << " " << line << '\n';
        }
    });
    BoardSession session(port, settings.baud, log);
    const BoardSession::Outcome opened = session.open();
    if (!opened.ok) {
        std::cerr << "merid-flash: " << DeviceText::forTerminal(opened.reason) << std::endl;
        return kFailure;
    }
    const auto devices = session.search();
    std::string json;
    for (const auto& device : devices) {
        std::string fields;
        if (!settings.quiet && !settings.json) {
            std::printf("%s  device %u  %s  version %s  %zu fields\n", DeviceText::forTerminal(port).c_str(),
                        device.address, DeviceText::forTerminal(device.name).c_str(),
                        DeviceText::forTerminal(device.version).c_str(), device.fields.size());
        }
        for (const auto& field : device.fields) {
            if (!settings.quiet && !settings.json) {
                std::printf("    field %u  %s  type %u\n", field.index,
                            DeviceText::forTerminal(field.name).c_str(), field.type);
            }
            fields += std::string(fields.empty() ? "" : ",") + "{\"index\":" + std::to_string(field.index) +
                      ",\"name\":" + Summary::jsonString(field.name) +
                      ",\"type\":" + std::to_string(field.type) + "}";
        }
        json += std::string(json.empty() ? "" : ",") + "{\"address\":" + std::to_string(device.address) +
                ",\"name\":" + Summary::jsonString(device.name) +
                ",\"version\":" + Summary::jsonString(device.version) + ",\"fields\":[" + fields + "]}";
    }
    if (settings.json) {
        std::cout << "{\"port\":" << Summary::jsonString(port) << ",\"devices\":[" << json << "]}"
                  << std::endl;
    }
    if (devices.empty()) {
        std::cerr << "merid-flash: " << DeviceText::forTerminal(port) << ": no device answered" << std::endl;
        return kFailure;
    }
    return kSuccess;
}

// One board for a parent: every report goes to the standard output as one
// line, the result last.
int FlashProgram::runWorker() {
    std::mutex outputMutex;
    const auto emit = [&outputMutex](const std::string& text) {
        std::lock_guard<std::mutex> lock(outputMutex);
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    };
    BoardLog log([&emit](const std::string& line) { emit(WorkerReport::log(line)); });
    BoardSession session(settings.ports.front(), settings.baud, log);
    BoardSession::Outcome outcome = session.open();
    if (outcome.ok) {
        const auto progress = [&emit](unsigned percent, std::uint64_t bytes) {
            emit(WorkerReport::progress(percent, bytes));
        };
        outcome = settings.command == CliSettings::Command::Esp32
                      ? session.flashEsp32(settings.file, settings.compress, settings.verify, progress)
                      : session.loadStm32(settings.file, progress);
    }
    std::string words = outcome.reason;
    if (outcome.ok) {
        const bool checked = settings.command == CliSettings::Command::Stm32 || settings.verify;
        words = settings.command == CliSettings::Command::Stm32 ? "confirmed"
                                                                : (checked ? "verified" : "written");
    }
    emit(WorkerReport::done(outcome.ok, words));
    return outcome.ok ? kSuccess : kFailure;
}

std::optional<std::string> FlashProgram::checkLoadInput(std::uint64_t& imageBytes) {
    if (auto problem =
            InputCheck::image(settings.file, settings.command == CliSettings::Command::Esp32, imageBytes)) {
        return problem;
    }
    if (auto problem = InputCheck::distinctPorts(settings.ports)) {
        return problem;
    }
    for (const auto& port : settings.ports) {
        if (auto problem = InputCheck::port(port)) {
            return problem;
        }
    }
    return std::nullopt;
}

int FlashProgram::runLoads() {
    std::uint64_t imageBytes = 0;
    ImageCopy image;
    if (auto problem = checkLoadInput(imageBytes)) {
        return badInput(*problem);
    }
    if (auto problem = image.make(settings.file, imageBytes)) {
        return badInput(*problem);
    }
    if (auto problem = openLogFile(settings.file)) {
        return badInput(*problem);
    }
    const bool showProgress = !settings.quiet;
    std::FILE* out = humanOutput();
    ProgressView view(out, Platform::isTerminal(out == stdout ? 1 : 2), settings.ports, imageBytes);
    BoardGang gang(settings, {image.path(), image.sha256(), imageBytes},
                   logFile.is_open() ? &logFile : nullptr);
    const std::vector<BoardResult> results = gang.run(showProgress ? &view : nullptr);
    printResults(results);
    const bool allOk = std::all_of(results.begin(), results.end(), [](const BoardResult& r) { return r.ok; });
    return allOk ? kSuccess : kFailure;
}

void FlashProgram::printResults(const std::vector<BoardResult>& results) {
    if (settings.quiet) {
        for (const auto& result : results) {
            if (!result.ok) {
                std::cerr << "merid-flash: " << DeviceText::forTerminal(result.port) << ": "
                          << DeviceText::forTerminal(result.result) << std::endl;
            }
        }
    } else {
        std::fprintf(humanOutput(), "\n%s", Summary::table(results).c_str());
        std::fflush(humanOutput());
    }
    if (settings.json) {
        for (const auto& result : results) {
            std::cout << Summary::json(result) << '\n';
        }
        std::cout.flush();
    }
}
