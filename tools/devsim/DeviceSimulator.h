#pragma once

#include "RawLinkHandler.h"
#include "SimDevice.h"
#include "SimFrameCodec.h"
#include "SimLink.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

// A simulated board on a pseudo-terminal. The program opens the slave side
// (the path from slavePath(), listed through MERID_EXTRA_PORTS); the simulator
// serves the master side on a thread of its own, answering payload requests
// from its devices, keeping what they receive, and injecting faults on demand.
class DeviceSimulator : private SimLink {
public:
    using Clock = std::chrono::steady_clock;

    // Fault switches. The "next" counters count answers and are used up as
    // they fire; the plain switches hold until changed.
    struct Faults {
        bool silent = false;                     // no answers at all
        unsigned silenceNext = 0;                // drop the next N answers...
        unsigned silenceSkip = 0;                // ...after letting this many pass
        bool wrongCrc = false;                   // every answer with a broken check code
        unsigned wrongCrcNext = 0;               // the next N answers with a broken check code
        std::uint8_t errorStatus = 0;            // status of refused requests
        unsigned errorNext = 0;                  // refuse the next N matching requests...
        unsigned errorSkip = 0;                  // ...after letting this many matching ones pass
        int errorCommand = -1;                   // wire code they must carry; -1 = any
        unsigned garbageBytes = 0;               // stray bytes (never 0x7E) before each answer
        bool splitWrites = false;                // each answer written in pieces...
        std::size_t splitPiece = 1;              // ...of this many bytes...
        std::chrono::microseconds splitGap{300}; // ...this far apart
        std::chrono::microseconds answerDelay{0};
        unsigned unplugAfterFrames = 0; // close the pty after this many frames; 0 = never
    };

    struct JournalEntry {
        enum Kind { Frame, DfuRequest };
        Kind kind = Frame;
        std::vector<std::uint8_t> raw;
        bool crcOk = false;
        Clock::time_point at;
    };

    // The frame that hands the link to the ESP32 ROM loader.
    static const std::array<std::uint8_t, 12> kEnterEspFlashingFrame;
    // The update-mode request, a fixed block outside the framing.
    static const std::array<std::uint8_t, 30> kDfuRequest;

    DeviceSimulator();
    ~DeviceSimulator() override;
    DeviceSimulator(const DeviceSimulator&) = delete;
    DeviceSimulator& operator=(const DeviceSimulator&) = delete;

    // Opens the pseudo-terminal pair and starts serving it. False (with
    // lastError()) when the system refuses a pty.
    bool start();
    void stop();
    bool isRunning() const { return worker.joinable(); }
    const std::string& slavePath() const { return slave; }
    const std::string& lastError() const { return error; }
    // A symbolic link at `path` to the slave, removed again by stop().
    bool createLink(const std::string& path);

    void addDevice(SimDevice device);
    void removeDevice(std::uint8_t address);
    std::optional<SimDevice> device(std::uint8_t address);
    std::optional<std::vector<std::uint8_t>> finishedImage(std::uint8_t address, std::uint8_t fileIndex);
    std::optional<SimDevice::Counters> counters(std::uint8_t address);

    void setFaults(const Faults& faults);
    Faults getFaults();
    // Drops `count` answers after letting `skip` of them through.
    void silenceNext(unsigned count, unsigned skip = 0);
    void corruptNext(unsigned count);
    // Refuses `count` requests with wire code `command` (-1: any) with
    // `status`, after letting `skip` of them through.
    void failNext(int command, std::uint8_t status, unsigned count = 1, unsigned skip = 0);

    // Delivers bytes no faster than `baud` at 10 bits a byte, and starts each
    // answer `turnaround` after the request's last byte. Baud 0: unpaced.
    void setPacing(std::uint32_t baud, std::chrono::microseconds turnaround = std::chrono::milliseconds(1));

    // Closes the master side under the program, as a pulled cable would.
    void unplug();
    bool isUnplugged() const { return unplugged.load(); }

    std::vector<JournalEntry> journal();
    std::size_t journalSize();
    void clearJournal();
    // Waits until the journal holds at least `count` entries.
    bool waitForJournal(std::size_t count, std::chrono::milliseconds timeout);

    std::uint64_t strayBytes() const { return stray.load(); }
    std::uint64_t bytesReceived() const { return received.load(); }
    std::uint64_t bytesSent() const { return sent.load(); }
    std::uint64_t answersSent() const { return answers.load(); }

    // The seam for the ESP32 ROM loader: on kEnterEspFlashingFrame the
    // simulator asks the factory for a handler and gives it the link (raw
    // mode); the payload devices do not answer that frame. Without a factory
    // the frame is an ordinary field set for device 2.
    void setRawModeFactory(std::function<std::unique_ptr<RawLinkHandler>()> factory);
    bool inRawMode() const { return rawMode.load(); }
    void leaveRawMode() override;

private:
    struct Segment {
        Clock::time_point release;
        std::vector<std::uint8_t> bytes;
    };

    void send(const std::uint8_t* data, std::size_t size, std::chrono::milliseconds delay) override;
    void loop();
    void readMaster(Clock::time_point now);
    void onBytes(const std::uint8_t* data, std::size_t size, Clock::time_point now);
    bool onFrame(const SimFrameCodec::Frame& frame, Clock::time_point completed);
    void watchForDfu(const std::uint8_t* data, std::size_t size, Clock::time_point now);
    void answer(const std::vector<std::uint8_t>& request, Clock::time_point completed);
    std::uint8_t takeErrorStatus(std::uint8_t command);
    bool takeSilence();
    void schedule(std::vector<std::uint8_t> bytes, Clock::time_point due, bool applyFaults);
    void flushDue(Clock::time_point now);
    void setPortOpen(bool open);
    void closeMaster();
    std::chrono::nanoseconds byteTime() const;

    std::mutex mutex; // devices, faults, journal, outgoing
    std::condition_variable journalChanged;
    std::vector<SimDevice> devices;
    Faults faults;
    std::vector<JournalEntry> entries;
    std::deque<Segment> outgoing;
    std::uint32_t baud = 0;
    std::chrono::microseconds turnaround{0};
    Clock::time_point inWireFree{};
    Clock::time_point outWireFree{};
    std::minstd_rand random{20240611};
    unsigned framesSeen = 0;

    SimFrameCodec codec;
    std::vector<std::uint8_t> dfuWindow;
    std::function<std::unique_ptr<RawLinkHandler>()> rawFactory;
    std::unique_ptr<RawLinkHandler> rawHandler;
    std::atomic<bool> rawMode{false};
    bool portOpen = false;

    int master = -1;
    std::string slave;
    std::string linkPath;
    std::string error;
    std::thread worker;
    std::atomic<bool> stopping{false};
    std::atomic<bool> unplugRequested{false};
    std::atomic<bool> unplugged{false};
    std::atomic<std::uint64_t> stray{0};
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> answers{0};
};
