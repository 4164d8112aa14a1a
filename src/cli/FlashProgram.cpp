#include "FlashProgram.h"

#include "BoardGang.h"
#include "BoardLog.h"
#include "BoardReport.h"
#include "BoardSession.h"
#include "CommandLine.h"
#include "DeviceText.h"
#include "Esp32Flash.h"
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
    if (!settings.reportPath.empty() && !settings.loadsStm32() && !settings.loadsEsp32()) {
        return badInput("--report records loads: stm32, esp32 and board (see merid-flash --help)");
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
std::optional<std::string> FlashProgram::openLogFile(const std::vector<std::string>& images) {
    if (settings.logPath.empty()) {
        return std::nullopt;
    }
    if (auto problem = InputCheck::outputFile(settings.logPath, "log file", images)) {
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
// line, a result for each target last; a target that fails ends the board.
int FlashProgram::runWorker() {
    // Asked to stop, the board ends its load and closes its port.
    Platform::catchStopRequests();
    std::mutex outputMutex;
    const Emit emit = [&outputMutex](const std::string& text) {
        std::lock_guard<std::mutex> lock(outputMutex);
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
    };
    BoardLog log([&emit](const std::string& line) { emit(WorkerReport::log(line)); });
    BoardSession session(settings.ports.front(), settings.baud, log);
    BoardSession::Outcome outcome = session.open();
    if (outcome.ok && !settings.reportPath.empty()) {
        outcome = identifyDevice(session, emit);
    }
    if (outcome.ok && settings.loadsStm32()) {
        outcome = session.loadStm32(settings.file, progressReport(emit));
        if (outcome.ok) {
            emit(WorkerReport::done(true, {}, "confirmed"));
            outcome = settings.loadsEsp32() ? session.leavePayloadProtocol() : outcome;
        }
    }
    if (outcome.ok && settings.loadsEsp32()) {
        outcome = flashEsp32(session, emit);
    }
    if (!outcome.ok) {
        emit(WorkerReport::done(false, outcome.code, outcome.reason));
    }
    return outcome.ok ? kSuccess : kFailure;
}

// What the report keeps of the device, before a load changes it.
BoardSession::Outcome FlashProgram::identifyDevice(BoardSession& session, const Emit& emit) {
    if (const auto device = session.identifyDevice()) {
        emit(WorkerReport::device(device->name, device->version, device->serialNumber));
    }
    // The ESP32's flash comes next: only the ROM loader may read the link.
    return settings.loadsStm32() ? BoardSession::Outcome{true, {}, {}} : session.leavePayloadProtocol();
}

BoardSession::Progress FlashProgram::progressReport(const Emit& emit) {
    return [emit](unsigned percent, std::uint64_t bytes) { emit(WorkerReport::progress(percent, bytes)); };
}

// The parts done are told whatever the end; a success is told here, in the
// words of what was done.
BoardSession::Outcome FlashProgram::flashEsp32(BoardSession& session, const Emit& emit) {
    Esp32Flash::Options options = Esp32Flash::defaults();
    options.compress = settings.compress;
    options.verify = settings.verify;
    options.skipUnchanged = !settings.force;
    std::vector<PartOutcome> outcomes;
    ChipIdentity chip;
    const BoardSession::Outcome outcome =
        session.flashEsp32(settings.parts, options, progressReport(emit), outcomes, chip);
    if (!chip.type.empty()) {
        emit(WorkerReport::chip(chip.type, chip.mac));
    }
    bool written = false;
    for (const PartOutcome& part : outcomes) {
        emit(WorkerReport::part(part.address, part.size, part.written));
        written = written || part.written;
    }
    if (outcome.ok) {
        emit(WorkerReport::done(true, {}, !written ? "unchanged" : settings.verify ? "verified" : "written"));
    }
    return outcome;
}

// The images and the ports, before anything is sent; each image then read
// once into `copies`.
std::optional<std::string> FlashProgram::checkLoadInput(ImageCopy& copies,
                                                        std::vector<BoardGang::Target>& targets) {
    std::vector<std::uint64_t> sizes;
    if (settings.loadsStm32()) {
        sizes.emplace_back();
        if (auto problem = InputCheck::image(settings.file, false, sizes.back())) {
            return problem;
        }
    }
    if (auto problem = checkParts(sizes)) {
        return problem;
    }
    if (auto problem = InputCheck::distinctPorts(settings.ports)) {
        return problem;
    }
    if (auto problem = checkPorts()) {
        return problem;
    }
    return copyImages(sizes, copies, targets);
}

// A port that does not open leaves its board out; the run goes on while
// one opens.
std::optional<std::string> FlashProgram::checkPorts() {
    std::string lines;
    for (const auto& port : settings.ports) {
        if (auto problem = InputCheck::port(port)) {
            unopened[port] = *problem;
            lines += (lines.empty() ? "" : "\nmerid-flash: ") + *problem;
        }
    }
    if (unopened.size() == settings.ports.size()) {
        return lines;
    }
    return std::nullopt;
}

// Each part a plain binary image for the ESP32, and the parts a layout the
// flash can hold; their sizes go after those in `sizes`.
std::optional<std::string> FlashProgram::checkParts(std::vector<std::uint64_t>& sizes) {
    std::vector<std::uint64_t> partSizes;
    for (const FlashPart& part : settings.parts) {
        partSizes.emplace_back();
        if (auto problem = InputCheck::image(part.path, true, partSizes.back())) {
            return problem;
        }
    }
    if (auto problem = InputCheck::layout(settings.parts, partSizes)) {
        return problem;
    }
    sizes.insert(sizes.end(), partSizes.begin(), partSizes.end());
    return std::nullopt;
}

std::optional<std::string> FlashProgram::copyImages(const std::vector<std::uint64_t>& sizes,
                                                    ImageCopy& copies,
                                                    std::vector<BoardGang::Target>& targets) {
    std::vector<std::pair<std::string, std::uint32_t>> sources;
    if (settings.loadsStm32()) {
        targets.push_back({"stm32", {}});
        sources.emplace_back(settings.file, 0);
    }
    if (settings.loadsEsp32()) {
        targets.push_back({"esp32", {}});
        for (const FlashPart& part : settings.parts) {
            sources.emplace_back(part.path, part.address);
        }
    }
    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (auto problem = copies.add(sources[i].first, sizes[i])) {
            return problem;
        }
        const ImageCopy::Copy& copy = copies.copies().back();
        // The STM32's image comes first when there is one.
        BoardGang::Target& target = settings.loadsStm32() && i == 0 ? targets.front() : targets.back();
        target.images.push_back({sources[i].second, copy.path, copy.sha256, copy.bytes});
    }
    return std::nullopt;
}

std::vector<std::string> FlashProgram::inputFiles() const {
    std::vector<std::string> files;
    if (settings.loadsStm32()) {
        files.push_back(settings.file);
    }
    for (const FlashPart& part : settings.parts) {
        files.push_back(part.path);
    }
    return files;
}

int FlashProgram::runLoads() {
    // A stop asked for from here on still ends with every board's result.
    Platform::catchStopRequests();
    ImageCopy copies;
    std::vector<BoardGang::Target> targets;
    if (auto problem = checkLoadInput(copies, targets)) {
        return badInput(*problem);
    }
    if (auto problem = openLogFile(inputFiles())) {
        return badInput(*problem);
    }
    if (auto problem = checkReport(inputFiles())) {
        return badInput(*problem);
    }
    std::uint64_t totalBytes = 0;
    for (const BoardGang::Target& target : targets) {
        totalBytes += target.bytes();
    }
    const bool showProgress = !settings.quiet;
    std::FILE* out = humanOutput();
    ProgressView view(out, Platform::isTerminal(out == stdout ? 1 : 2), settings.ports, totalBytes);
    BoardGang gang(settings, std::move(targets), logFile.is_open() ? &logFile : nullptr);
    for (const auto& [port, line] : unopened) {
        gang.leaveOut(port, line);
    }
    const std::vector<BoardResult> results = gang.run(showProgress ? &view : nullptr);
    printResults(results);
    const bool recorded = writeReport(gang.records(), results);
    if (const int stopped = Platform::stopRequest()) {
        return stopped;
    }
    const bool allOk = std::all_of(results.begin(), results.end(), [](const BoardResult& r) { return r.ok; });
    return allOk && recorded ? kSuccess : kFailure;
}

// Like the log file, before anything is sent; the report is made when missing.
std::optional<std::string> FlashProgram::checkReport(const std::vector<std::string>& images) const {
    if (settings.reportPath.empty()) {
        return std::nullopt;
    }
    if (auto problem = InputCheck::outputFile(settings.reportPath, "report", images)) {
        return problem;
    }
    return BoardReport(settings.reportPath).check();
}

// Every board's record, its targets' results completed with what the
// parent knows: the station and the port's adapter. False when a record
// could not be written.
bool FlashProgram::writeReport(std::vector<BoardRecord> records,
                               const std::vector<BoardResult>& results) const {
    if (settings.reportPath.empty() || records.empty()) {
        return true;
    }
    const BoardReport report(settings.reportPath);
    const std::string host = Platform::hostName();
    const std::size_t perBoard = results.size() / records.size();
    bool recorded = true;
    for (std::size_t i = 0; i < records.size(); ++i) {
        BoardRecord& record = records[i];
        const auto first = results.begin() + static_cast<std::ptrdiff_t>(i * perBoard);
        record.targets.assign(first, first + static_cast<std::ptrdiff_t>(perBoard));
        record.host = host;
        record.port = settings.ports[i];
        record.adapter = PortIdentity::of(record.port);
        if (auto problem = report.append(record)) {
            std::cerr << "merid-flash: " << *problem << std::endl;
            recorded = false;
        }
    }
    return recorded;
}

void FlashProgram::printResults(const std::vector<BoardResult>& results) {
    if (settings.quiet) {
        for (const auto& result : results) {
            if (!result.ok) {
                // A board's two targets are told apart by name.
                const std::string target =
                    settings.command == CliSettings::Command::Board ? result.target + ": " : "";
                std::cerr << "merid-flash: " << DeviceText::forTerminal(result.port) << ": " << target
                          << result.code << ": " << DeviceText::forTerminal(result.result) << std::endl;
            }
        }
    } else {
        std::fprintf(humanOutput(), "\n%s", Summary::table(results).c_str());
        std::fflush(humanOutput());
    }
    if (settings.json) {
        // One object per board: a board's targets come together.
        const std::size_t perBoard = results.size() / std::max<std::size_t>(settings.ports.size(), 1);
        for (std::size_t i = 0; i + perBoard <= results.size() && perBoard > 0; i += perBoard) {
            const std::vector<BoardResult> board(results.begin() + static_cast<std::ptrdiff_t>(i),
                                                 results.begin() + static_cast<std::ptrdiff_t>(i + perBoard));
            std::cout << (perBoard == 1 ? Summary::json(board.front()) : Summary::boardJson(board)) << '\n';
        }
        std::cout.flush();
    }
}
