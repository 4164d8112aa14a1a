#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// The ESP32 of the simulated board as its ROM serial loader sees the line:
// SLIP frames in, responses out. It keeps a flash of its own across the
// program's close and reopen of the port, checks what the ROM checks (sizes,
// data checksums, the order of blocks), answers the register reads of chip
// detection and of the SPI flash identification, loads a RAM stub and then
// also speaks the stub's commands.
//
// Bytes come in by feed(); answers go out through the function given there,
// each with the time it is held back beyond the usual turnaround.
// Configuration and inspection may come from another thread.
class EspRomSimulator {
public:
    using Output =
        std::function<void(const std::uint8_t* data, std::size_t size, std::chrono::milliseconds delay)>;

    struct Config {
        std::uint32_t flashSize = 4u << 20; // a power of two from 256 KiB
        std::uint32_t chipMagic = 0x00F01D83;
        // Efuse words of the ESP32 at 0x3FF5A000: the MAC and the SPI pins.
        std::uint32_t macLow = 0x7A5B3C4D;
        std::uint32_t macHigh = 0x0000A1B2;
        std::uint32_t spiPinsWordA = 0; // offset 20: default pins
        std::uint32_t spiPinsWordB = 0; // offset 12
        // The ESP32 ROM doesn't know GET_SECURITY_INFO; a newer one answers it.
        bool answerSecurityInfo = false;
        // Text the ROM prints when the port opens, before any frame.
        bool bootBanner = true;
    };

    // Fault switches; counters count down as they fire.
    struct Faults {
        unsigned silentSyncs = 0;      // sync requests left unanswered
        unsigned failDataBlock = 0;    // 1-based number of the FLASH_DATA request to refuse; 0 = none
        unsigned failDataCount = 1;    // how many in a row, from there
        std::uint8_t failError = 0xC1; // error code sent with the refusal
        unsigned garbageBytes = 0;     // stray bytes (never C0) in front of each answer frame
        unsigned spiBusyPolls = 0;     // readings of the SPI cmd register that still show busy
        bool silent = false;           // no answers at all
        bool corruptFlash = false;     // one byte of each finished write run changed in the flash
        // The link losing or holding up one data request (FLASH_DATA or
        // FLASH_DEFL_DATA), by its 1-based number among them; 0 = none.
        unsigned lostRequest = 0; // never reaches the chip
        unsigned lostAnswer = 0;  // taken by the chip, its answer never comes
        unsigned lateAnswer = 0;  // taken, answered this much later than usual:
        std::chrono::milliseconds lateBy{1300};
    };

    struct Counters {
        unsigned frames = 0;
        unsigned badFrames = 0; // bad escapes, unknown direction
        unsigned syncs = 0;
        unsigned flashBegins = 0;
        unsigned dataBlocks = 0; // FLASH_DATA and FLASH_DEFL_DATA accepted
        unsigned refusals = 0;   // answers with a non-zero status
        unsigned flashEnds = 0;
        unsigned memBlocks = 0;
        unsigned stubStarts = 0;
        unsigned portCloses = 0;
        unsigned portOpens = 0;
        bool stubRunning = false;
        bool rebooted = false;                // a FLASH_END or MEM_END that left the loader
        std::uint32_t spiConfig = 0xFFFFFFFF; // the last SPI attach
        std::uint32_t spiParamsSize = 0;
        std::uint32_t baudRate = 0;
    };

    explicit EspRomSimulator(const Config& config);
    EspRomSimulator();
    ~EspRomSimulator();
    EspRomSimulator(const EspRomSimulator&) = delete;
    EspRomSimulator& operator=(const EspRomSimulator&) = delete;

    void feed(const std::uint8_t* data, std::size_t size, const Output& out);
    void portClosed();
    void portOpened(const Output& out);

    void setFaults(const Faults& faults);
    Faults getFaults();
    Counters counters();
    // Opcodes of every request taken, in order.
    std::vector<std::uint8_t> opcodes();
    std::vector<std::uint8_t> flash(std::uint32_t offset, std::uint32_t size);
    void fillFlash(std::uint32_t offset, const std::vector<std::uint8_t>& bytes);
    const Config& config() const { return settings; }

    // Where the ESP32 keeps its chip registers.
    static constexpr std::uint32_t kMagicRegister = 0x40001000;
    static constexpr std::uint32_t kEfuseBase = 0x3FF5A000;
    static constexpr std::uint32_t kSpiCmd = 0x3FF42000;
    static constexpr std::uint32_t kSpiUsr = 0x3FF4201C;
    static constexpr std::uint32_t kSpiUsr2 = 0x3FF42024;
    static constexpr std::uint32_t kSpiW0 = 0x3FF42080;

private:
    using Bytes = std::vector<std::uint8_t>;
    struct Request;
    struct Inflater;

    void onByte(std::uint8_t byte, const Output& out);
    void onFrame(const Output& out);
    void handle(const Request& request, std::vector<Bytes>& replies);
    bool handleStub(const Request& request, std::vector<Bytes>& replies);
    void sendFrame(const Bytes& payload, const Output& out, std::chrono::milliseconds delay);
    bool isDataRequest(std::uint8_t opcode) const;

    std::uint32_t readRegister(std::uint32_t address);
    void writeRegister(std::uint32_t address, std::uint32_t value, std::uint32_t mask);
    Bytes flashBegin(const Request& request, bool deflate);
    Bytes flashData(const Request& request);
    Bytes deflateData(const Request& request);
    Bytes memBegin(const Request& request);
    Bytes memData(const Request& request);
    void memEnd(const Request& request, std::vector<Bytes>& replies);
    Bytes eraseRegion(const Request& request);
    Bytes readRom(const Request& request);
    Bytes md5Answer(const Request& request);
    void startStream(const Request& request, std::vector<Bytes>& replies);
    void streamNext(std::vector<Bytes>& replies);
    bool dataIsWhole(const Request& request, Bytes& refusal);
    bool takeDataFault();
    void corruptWritten(std::uint32_t size);
    void md5(std::uint32_t offset, std::uint32_t size, std::uint8_t digest[16]);
    void eraseRange(std::uint32_t offset, std::uint32_t size);
    Bytes answer(std::uint8_t opcode, std::uint32_t value = 0, const Bytes& data = {});
    Bytes refuse(std::uint8_t opcode, std::uint8_t error);

    Config settings;
    std::mutex mutex;
    Faults faults;
    Counters count;
    std::vector<std::uint8_t> opcodeLog;
    std::vector<std::uint8_t> flashMemory;
    std::map<std::uint32_t, std::uint32_t> registers;
    unsigned spiBusyLeft = 0;
    bool spiAttached = false;

    // Framing state of the incoming line.
    std::vector<std::uint8_t> frame;
    bool inFrame = false;
    bool escaped = false;
    bool frameBroken = false;

    // A flash write in progress (FLASH_BEGIN or FLASH_DEFL_BEGIN).
    bool writing = false;
    bool deflating = false;
    std::uint32_t writeOffset = 0;
    std::uint32_t writeBlockSize = 0;
    std::uint32_t writeBlocks = 0;
    std::uint32_t writeAccepted = 0;
    std::uint32_t nextSequence = 0;
    std::uint32_t writeEnd = 0;
    std::unique_ptr<Inflater> inflater;
    std::uint32_t inflated = 0;
    unsigned dataRequests = 0;

    // A RAM load in progress, and what is loaded.
    bool loading = false;
    std::uint32_t memOffset = 0;
    std::uint32_t memSize = 0;
    std::uint32_t memBlockSize = 0;
    std::uint32_t memReceived = 0;
    std::vector<std::pair<std::uint32_t, std::vector<std::uint8_t>>> ramSegments;

    // A stub read stream in progress.
    bool streaming = false;
    std::uint32_t streamAddress = 0;
    std::uint32_t streamLeft = 0;
    std::uint32_t streamBlock = 0;
    std::uint32_t streamSent = 0;
    std::vector<std::uint8_t> streamed;
};
