#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// One payload device of the simulated board: address, name, version, typed
// fields, and a store for the files written into it.
class SimDevice {
public:
    struct FieldDefinition {
        std::string name;
        std::uint8_t type = 8;
        std::uint64_t value = 0;
    };

    // What the device sends back for one request, and how long it takes
    // before it starts to answer.
    struct Response {
        std::vector<std::uint8_t> payload;
        std::chrono::microseconds delay{0};
    };

    // Counters of what the device was asked to do.
    struct Counters {
        unsigned eraseCommands = 0;  // sets of the "erase" field
        unsigned rebootCommands = 0; // sets of the "reboot" field
        unsigned bootloaderCommands = 0;
        unsigned fileErases = 0;
        unsigned fileWrites = 0;
        unsigned fileFinishes = 0;
        unsigned writesWithoutErase = 0;
        unsigned finishMismatches = 0;
    };

    static constexpr std::uint8_t kStatusBadIndex = 1;
    static constexpr std::uint8_t kStatusBadRequest = 2;
    static constexpr std::uint8_t kStatusUnknownCommand = 0x7F;
    // The flash a file may fill; a chunk beyond it is refused.
    static constexpr std::size_t kMaxFileSize = 16u << 20;

    SimDevice(std::uint8_t address, std::string name, std::uint8_t versionMajor = 1,
              std::uint8_t versionMinor = 0);

    // A board with the fields the program looks for: "erase", "reboot",
    // "enterBootloader", and a few ordinary ones.
    static SimDevice standard(std::uint8_t address, const std::string& name);

    void addField(const std::string& name, std::uint8_t type, std::uint64_t value = 0);
    // Overrides the field count the device declares (the fields stay).
    void declareFieldCount(std::optional<std::uint8_t> count) { declaredCount = count; }
    // How long an erase (of the "erase" field or of a file) keeps the device busy.
    void setEraseTime(std::chrono::microseconds time) { eraseTime = time; }

    std::uint8_t getAddress() const { return address; }
    const std::string& getName() const { return name; }
    const std::vector<FieldDefinition>& getFields() const { return fields; }
    std::optional<std::uint64_t> fieldValue(const std::string& fieldName) const;
    const Counters& getCounters() const { return counters; }

    // The last file completed by a finish step, and the one being written.
    std::optional<std::vector<std::uint8_t>> finishedImage(std::uint8_t fileIndex) const;
    std::vector<std::uint8_t> openImage(std::uint8_t fileIndex) const;

    // Acts on a request payload addressed to this device (or broadcast).
    // `status` not 0 makes the device refuse without acting. No value means
    // the device does not answer.
    std::optional<Response> handle(const std::vector<std::uint8_t>& request, std::uint8_t status = 0);

    static std::size_t typeSize(std::uint8_t type);

private:
    struct FileSlot {
        bool open = false;
        std::vector<std::uint8_t> data;
        std::optional<std::vector<std::uint8_t>> finished;
    };

    std::vector<std::uint8_t> header(std::uint8_t pack, std::uint8_t status) const;
    Response deviceInfo(std::uint8_t pack) const;
    Response fieldInfo(std::uint8_t pack, const std::vector<std::uint8_t>& request) const;
    Response getField(std::uint8_t pack, const std::vector<std::uint8_t>& request) const;
    Response setField(std::uint8_t pack, const std::vector<std::uint8_t>& request);
    Response fileWrite(std::uint8_t pack, const std::vector<std::uint8_t>& request);
    Response fileInfo(std::uint8_t pack, const std::vector<std::uint8_t>& request) const;

    std::uint8_t address;
    std::string name;
    std::uint8_t versionMajor;
    std::uint8_t versionMinor;
    std::vector<FieldDefinition> fields;
    std::optional<std::uint8_t> declaredCount;
    std::chrono::microseconds eraseTime{0};
    std::map<std::uint8_t, FileSlot> files;
    Counters counters;
};
