#include "Esp32Flash.h"

#include "EspSerialFlasherPort.h"

namespace {

constexpr std::uint32_t kBlockSize = 1024;

// A failure must never read as success, even one without words.
bool withReason(bool flashed, std::string& error) {
    if (!flashed && error.empty()) {
        error = "the loader gave no reason";
    }
    return flashed;
}

} // namespace

Esp32Flash::Options Esp32Flash::defaults() {
    Options options;
    options.address = 0;
    options.blockSize = kBlockSize;
    options.reboot = false;
    options.compress = true;
    options.verify = true;
    return options;
}

bool Esp32Flash::run(UsbCommunication& usb, const std::string& path, const Options& options,
                     const Progress& progress, std::string& error) {
    return withReason(MeridEspSerialFlasher::flashBinary(usb, path, options, progress, &error), error);
}

bool Esp32Flash::runParts(UsbCommunication& usb, const std::vector<FlashPart>& parts, const Options& options,
                          const Progress& progress, std::vector<PartOutcome>& outcomes, std::string& error,
                          ChipIdentity* chip) {
    outcomes.clear();
    return withReason(
        MeridEspSerialFlasher::flashParts(usb, parts, options, progress, &outcomes, &error, chip), error);
}

Esp32Flash::Esp32Flash(UsbCommunication& usb, std::function<void()> changed)
    : usb(usb), changed(std::move(changed)) {}

Esp32Flash::~Esp32Flash() {
    join();
}

bool Esp32Flash::start(const std::string& path, const Options& options) {
    if (busy.exchange(true)) {
        return false;
    }
    // The finished worker of an earlier flash.
    join();
    ended = false;
    progress = 0;
    {
        std::lock_guard<std::mutex> lock(errorMutex);
        error.clear();
    }
    worker = std::thread([this, path, options] { work(path, options); });
    return true;
}

void Esp32Flash::work(const std::string& path, const Options& options) {
    std::string failure;
    const Progress report = [this](unsigned char percent) {
        progress = percent;
        changed();
    };
    if (!run(usb, path, options, report, failure)) {
        std::lock_guard<std::mutex> lock(errorMutex);
        error = failure;
    }
    // Ended before not busy, both before the wake-up, so that the last
    // refresh sees the result.
    ended = true;
    busy = false;
    changed();
}

std::optional<std::string> Esp32Flash::takeEnd() {
    if (!ended.exchange(false)) {
        return std::nullopt;
    }
    join();
    std::lock_guard<std::mutex> lock(errorMutex);
    return error;
}

void Esp32Flash::stop(const std::function<void()>& closeLink) {
    meridEspSerialFlasherPortSetCancelled(true);
    closeLink();
    join();
    meridEspSerialFlasherPortSetCancelled(false);
}

void Esp32Flash::join() {
    if (worker.joinable()) {
        worker.join();
    }
}
