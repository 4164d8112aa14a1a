#pragma once

#include "FakeLoaderPort.h"
#include "esp_targets.h"

#include <map>
#include <optional>
#include <set>
#include <utility>

// A small ROM loader behind the fake port: it answers each request by its
// opcode, with knobs for what a test wants to see go wrong.
class ScriptedRom {
public:
    explicit ScriptedRom(target_chip_t chip = ESP32_CHIP);
    ~ScriptedRom();
    ScriptedRom(const ScriptedRom&) = delete;
    ScriptedRom& operator=(const ScriptedRom&) = delete;

    // Answer to GET_SECURITY_INFO; none means the ROM refuses the command.
    std::optional<fakeport::Bytes> securityInfo;
    uint32_t magic = 0x00F01D83;
    // Values of registers as read; unknown registers read 0.
    std::map<uint32_t, uint32_t> registers;
    // The SPI flash identification the controller's w0 shows after a read-id.
    uint32_t flashId = 0x001640EF;
    // Readings of the controller's cmd register that still show it busy.
    int busyReadings = 0;
    // Sync requests that go unanswered before the ROM wakes up.
    int silentSyncs = 0;
    std::set<uint8_t> silentOpcodes;
    // Opcodes answered with a non-zero status: (status, error code).
    std::map<uint8_t, std::pair<uint8_t, uint8_t>> failing;
    // Data commands (FLASH_DATA) refused before the ROM takes them again.
    int failDataBlocks = 0;
    // The greeting the stub sends after MEM_END with an entry point.
    fakeport::Bytes greeting{'O', 'H', 'A', 'I'};
    // Flash contents for the read commands, from address 0.
    fakeport::Bytes flash;
    // Spoils the digest at the end of a stub read stream.
    bool wrongDigest = false;

    std::vector<std::pair<uint32_t, uint32_t>> registerWrites;
    std::vector<uint32_t> registerReads;

private:
    void answer(const fakeport::Request& request);
    uint32_t readRegister(uint32_t address);
    void writeRegister(uint32_t address, uint32_t value);

    void streamNext();

    const target_registers_t* regs;
    int busyLeft = 0;
    // A stub read in progress: next address, bytes left, frame size.
    bool streaming = false;
    uint32_t streamAddress = 0;
    uint32_t streamLeft = 0;
    uint32_t streamBlock = 0;
    fakeport::Bytes streamed;
};
