#pragma once

#include "MeridEspSerialFlasher.h"
#include "UsbCommunication.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// The ESP32 flash: the switch frame, the ROM loader, the image compressed
// (the ROM inflates it) and the flash's MD5 checked against the image. A
// window runs it on a worker of its own, which has the link to itself until
// it ends and tells of each step through `changed`; merid-flash runs it on
// its own thread.
class Esp32Flash {
public:
    using Options = MeridEspSerialFlasher::FlashOptions;
    using Progress = std::function<void(unsigned char percent)>;

    // Offset 0, blocks of 1024 bytes, compressed and verified.
    static Options defaults();
    // The flash on the calling thread; the loader's words in `error` on a failure.
    static bool run(UsbCommunication& usb, const std::string& path, const Options& options,
                    const Progress& progress, std::string& error);
    // A multi-part flash on the calling thread (MeridEspSerialFlasher::flashParts).
    static bool runParts(UsbCommunication& usb, const std::vector<FlashPart>& parts, const Options& options,
                         const Progress& progress, std::vector<PartOutcome>& outcomes, std::string& error,
                         ChipIdentity* chip = nullptr);

    Esp32Flash(UsbCommunication& usb, std::function<void()> changed);
    ~Esp32Flash();
    Esp32Flash(const Esp32Flash&) = delete;
    Esp32Flash& operator=(const Esp32Flash&) = delete;

    // Starts the worker; false when one is running.
    bool start(const std::string& path, const Options& options);
    bool running() const { return busy.load(); }
    unsigned percent() const { return progress.load(); }
    // Once, after the worker ended: empty for success, else the reason.
    std::optional<std::string> takeEnd();
    // Ends a flash under way: the loader's port layer gives up at its next
    // step, `closeLink` ends a read or write in progress, the worker is joined.
    void stop(const std::function<void()>& closeLink);

private:
    void work(const std::string& path, const Options& options);
    void join();

    UsbCommunication& usb;
    std::function<void()> changed;
    std::thread worker;
    std::atomic<bool> busy{false};
    std::atomic<bool> ended{false};
    std::atomic<unsigned char> progress{0};
    std::mutex errorMutex;
    std::string error;
};
