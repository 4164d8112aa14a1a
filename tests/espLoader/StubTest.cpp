#include "FakeLoaderPort.h"
#include "ScriptedRom.h"
#include "esp_loader.h"
#include "esp_stubs.h"
#include "protocol.h"

#include <gtest/gtest.h>

using fakeport::Bytes;
using fakeport::Request;

namespace {

class Stub : public fakeport::PortTest {
protected:
    static Bytes segmentBytes(target_chip_t chip, int index, uint32_t from, uint32_t size) {
        const esp_stub_segment_t& segment = esp_stub[chip].segments[index];
        return Bytes(segment.data + from, segment.data + from + size);
    }
};

} // namespace

TEST_F(Stub, C3StubGoesOutInBlocksOf6144AndRunsOnTheGreeting) {
    ScriptedRom rom(ESP32C3_CHIP);
    rom.magic = 0x6921506F;
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect_with_stub(&args), ESP_LOADER_SUCCESS);
    EXPECT_TRUE(esp_stub_get_running());

    std::vector<const Request*> ram;
    for (const Request& r : port().requests) {
        if (r.opcode() == MEM_BEGIN || r.opcode() == MEM_DATA || r.opcode() == MEM_END) {
            ram.push_back(&r);
        }
    }
    ASSERT_EQ(ram.size(), 6u);
    // First segment: size, size rounded up to whole blocks, block size, address.
    EXPECT_EQ(ram[0]->opcode(), MEM_BEGIN);
    EXPECT_EQ(ram[0]->body(),
              (Bytes{0xA8, 0x2B, 0, 0, 0x00, 0x30, 0, 0, 0x00, 0x18, 0, 0, 0x00, 0x00, 0x38, 0x40}));
    EXPECT_EQ(ram[1]->word(8), 6144u);
    EXPECT_EQ(ram[1]->word(12), 0u);
    EXPECT_EQ(Bytes(ram[1]->bytes.begin() + 24, ram[1]->bytes.end()), segmentBytes(ESP32C3_CHIP, 0, 0, 6144));
    EXPECT_EQ(ram[2]->word(8), 5032u);
    EXPECT_EQ(ram[2]->word(12), 1u);
    EXPECT_EQ(Bytes(ram[2]->bytes.begin() + 24, ram[2]->bytes.end()),
              segmentBytes(ESP32C3_CHIP, 0, 6144, 5032));
    // Second segment in one block of 244, numbered from 0 again.
    EXPECT_EQ(ram[3]->opcode(), MEM_BEGIN);
    EXPECT_EQ(ram[3]->word(8), 244u);
    EXPECT_EQ(ram[3]->word(12), 6144u);
    EXPECT_EQ(ram[3]->word(20), 0x3FC90020u);
    EXPECT_EQ(ram[4]->word(8), 244u);
    EXPECT_EQ(ram[4]->word(12), 0u);
    // Jump: stay-in-loader 0 and the entry point.
    EXPECT_EQ(ram[5]->opcode(), MEM_END);
    EXPECT_EQ(ram[5]->word(8), 0u);
    EXPECT_EQ(ram[5]->word(12), 0x40380000u);
    EXPECT_EQ(ram[5]->timerMs, 1000u);

    // The RAM limit: 2 ms a byte, at least 3 s.
    EXPECT_EQ(ram[0]->timerMs, 22352u);
    EXPECT_EQ(ram[1]->timerMs, 12288u);
    EXPECT_EQ(ram[2]->timerMs, 10064u);
    EXPECT_EQ(ram[4]->timerMs, 3000u);

    // No SPI attach on this path.
    for (const Request& r : port().requests) {
        EXPECT_NE(r.opcode(), SPI_ATTACH);
    }
}

TEST_F(Stub, GreetingIsComparedAsFourBytes) {
    const std::pair<Bytes, esp_loader_error_t> cases[] = {
        {{'O', 'H', 'A'}, ESP_LOADER_ERROR_INVALID_RESPONSE},
        {{'O', 'H', 'A', 'I', '!', '!'}, ESP_LOADER_SUCCESS},
        {{'O', 'H', 'A', 'X'}, ESP_LOADER_ERROR_INVALID_RESPONSE},
        {{}, ESP_LOADER_ERROR_TIMEOUT},
    };
    for (const auto& [greeting, result] : cases) {
        port().reset();
        ScriptedRom rom;
        rom.greeting = greeting;
        EXPECT_EQ(loader_run_stub(ESP32_CHIP), result) << greeting.size();
        EXPECT_EQ(esp_stub_get_running(), result == ESP_LOADER_SUCCESS);
    }
}

TEST_F(Stub, ChipsWithoutAStubAreRefusedAfterDetection) {
    ScriptedRom rom(ESP32C5_CHIP);
    rom.magic = 0x1101406F;
    esp_loader_connect_args_t args{500, 20};
    EXPECT_EQ(esp_loader_connect_with_stub(&args), ESP_LOADER_ERROR_UNSUPPORTED_CHIP);
    EXPECT_EQ(port().opcodes(), (std::vector<uint8_t>{SYNC, GET_SECURITY_INFO, READ_REG}));
    EXPECT_EQ(port().enterBootloaderCalls, 1);
}

TEST_F(Stub, Esp8266GoesThroughEmptyMemoryStartsAndAJumpToZero) {
    ScriptedRom rom(ESP8266_CHIP);
    rom.magic = 0xFFF0C101;
    rom.greeting = {'O', 'H', 'A', 'I'};
    esp_loader_connect_args_t args{500, 20};
    // MEM_END with entry 0 brings no greeting from the scripted chip.
    EXPECT_EQ(esp_loader_connect_with_stub(&args), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(port().opcodes(),
              (std::vector<uint8_t>{SYNC, GET_SECURITY_INFO, READ_REG, MEM_BEGIN, MEM_BEGIN, MEM_END}));
    EXPECT_EQ(port().requests[3].word(8), 0u);
    EXPECT_EQ(port().requests[5].word(8), 1u);
    EXPECT_EQ(port().requests[5].word(12), 0u);
}

TEST_F(Stub, MemoryStartRefusesTheRunningStubsAddresses) {
    ScriptedRom rom;
    rom.magic = 0x00F01D83;
    esp_loader_connect_args_t args{500, 20};
    ASSERT_EQ(esp_loader_connect_with_stub(&args), ESP_LOADER_SUCCESS);
    port().requests.clear();

    const char* text =
        "Software loader is resident at the requested address, can't load binary at overlapping "
        "address range";
    // Overlapping the end of the code segment and the start of the data one.
    EXPECT_EQ(esp_loader_mem_start(0x40080000 + 12883, 1, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_EQ(esp_loader_mem_start(0x3FFAFFFF, 2, 1024), ESP_LOADER_ERROR_INVALID_PARAM);
    EXPECT_TRUE(port().printed(text));
    EXPECT_TRUE(port().requests.empty());
    // Touching without overlap is allowed.
    EXPECT_EQ(esp_loader_mem_start(0x40080000 + 12884, 16, 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(esp_loader_mem_start(0x3FFAFF00, 0x100, 1024), ESP_LOADER_SUCCESS);

    // Under the ROM there is no such test.
    esp_stub_set_running(false);
    EXPECT_EQ(esp_loader_mem_start(0x40080000, 16, 1024), ESP_LOADER_SUCCESS);
}

TEST_F(Stub, MemoryWriteIsTriedThreeTimesUnpadded) {
    ScriptedRom rom;
    rom.failing[MEM_DATA] = {1, 7};
    const uint8_t block[] = {1, 2, 3};
    EXPECT_EQ(esp_loader_mem_write(block, 3), ESP_LOADER_ERROR_INVALID_RESPONSE);
    ASSERT_EQ(port().requests.size(), 3u);
    EXPECT_EQ(port().requests[0].sizeField(), 19u);
    EXPECT_TRUE(port().printed("Error: INVALID_CRC"));
}
