#include "FakeLoaderPort.h"
#include "ScriptedRom.h"
#include "protocol.h"

#include <gtest/gtest.h>

using fakeport::Bytes;
using fakeport::Request;

namespace {

class Command : public fakeport::PortTest {
protected:
    void SetUp() override {
        PortTest::SetUp();
        port().startTimer(1000);
    }
    static const Request& lastRequest() { return port().requests.back(); }
};

Bytes header(uint8_t opcode, uint16_t size, uint32_t checksum) {
    Bytes bytes{0x00, opcode, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8)};
    fakeport::putWord(bytes, checksum);
    return bytes;
}

Bytes words(Bytes bytes, std::initializer_list<uint32_t> values) {
    for (uint32_t v : values) {
        fakeport::putWord(bytes, v);
    }
    return bytes;
}

} // namespace

TEST_F(Command, SyncRequestIsFixedAndConsumesEightAnswers) {
    for (int i = 0; i < 8; ++i) {
        port().pushResponse(SYNC);
    }
    port().pushResponse(READ_REG, 0x12345678);
    ASSERT_EQ(loader_sync_cmd(), ESP_LOADER_SUCCESS);

    Bytes expected = header(SYNC, 36, 0);
    expected.insert(expected.end(), {0x07, 0x07, 0x12, 0x20});
    expected.insert(expected.end(), 32, 0x55);
    ASSERT_EQ(port().requests.size(), 1u);
    EXPECT_EQ(lastRequest().bytes, expected);
    // On the wire: delimiter, the unescaped packet in one run, delimiter.
    EXPECT_EQ(port().writes.front(), Bytes{0xC0});
    EXPECT_EQ(port().writes.back(), Bytes{0xC0});

    // The next command meets its own answer, not a late sync answer.
    uint32_t value = 0;
    ASSERT_EQ(loader_read_reg_cmd(0x40001000, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 0x12345678u);

    // Seven answers are not enough.
    port().startTimer(1000);
    for (int i = 0; i < 7; ++i) {
        port().pushResponse(SYNC);
    }
    EXPECT_EQ(loader_sync_cmd(), ESP_LOADER_ERROR_TIMEOUT);
}

TEST_F(Command, FailedFirstSyncAnswerLeavesTheOtherSeven) {
    port().pushResponse(SYNC, 0, {}, 1, 5);
    for (int i = 0; i < 7; ++i) {
        port().pushResponse(SYNC);
    }
    EXPECT_EQ(loader_sync_cmd(), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_TRUE(port().printed("Error: INVALID_COMMAND"));
    EXPECT_EQ(port().pendingInput(),
              7 * fakeport::slipFrame(fakeport::responsePacket(SYNC, 0, {}, 0, 0)).size());
}

TEST_F(Command, FramesOfAnotherOpcodeDirectionOrLengthAreDropped) {
    port().pushResponse(WRITE_REG, 0x1111);
    Bytes request = fakeport::responsePacket(READ_REG, 0x2222, {}, 0, 0);
    request[0] = 0x00; // an echo of a request
    port().pushFrame(request);
    uint32_t value = 0;
    EXPECT_EQ(loader_read_reg_cmd(0x1000, &value), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(value, 0u);

    port().startTimer(1000);
    port().pushResponse(WRITE_REG, 0x1111);
    port().pushFrame({0x01, READ_REG, 0, 0, 1, 2, 3, 4, 0}); // nine bytes
    port().pushResponse(READ_REG, 0x3333);
    ASSERT_EQ(loader_read_reg_cmd(0x1000, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 0x3333u);
}

TEST_F(Command, StatusIsTakenFromTheLastTwoBytesOfWhatWasKept) {
    // A longer answer is cut to the room the command has: here the status
    // pair after the value field says success, the bytes behind it are lost.
    port().pushFrame(fakeport::responsePacket(READ_REG, 7, {0x00, 0x00}, 1, 5));
    uint32_t value = 0;
    EXPECT_EQ(loader_read_reg_cmd(0x1000, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 7u);

    // With a variable length nothing is cut, and the last two bytes decide.
    port().pushFrame(fakeport::responsePacket(GET_SECURITY_INFO, 0, {0x00, 0x00}, 1, 5));
    uint8_t response[20] = {};
    uint32_t received = 0;
    EXPECT_EQ(loader_get_security_info_cmd(response, &received), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_TRUE(port().printed("Error: INVALID_COMMAND"));
}

TEST_F(Command, ErrorCodesArePrintedByName) {
    const std::pair<uint8_t, const char*> table[] = {
        {11, "Error: DEFLATE_ERROR"},   {0xC3, "Error: INVALID_COMMAND"},
        {0xC9, "Error: TOO_MUCH_DATA"}, {0xFF, "Error: CMD_NOT_IMPLEMENTED"},
        {0, "Error: UNKNOWN ERROR"},    {12, "Error: UNKNOWN ERROR"},
        {0xCA, "Error: UNKNOWN ERROR"},
    };
    for (const auto& [code, text] : table) {
        port().prints.clear();
        port().startTimer(1000);
        port().pushResponse(FLASH_END, 0, {}, 1, code);
        EXPECT_EQ(loader_flash_end_cmd(true), ESP_LOADER_ERROR_INVALID_RESPONSE);
        ASSERT_EQ(port().prints.size(), 1u);
        EXPECT_EQ(port().prints[0], text) << "code " << int(code);
    }
}

TEST_F(Command, DataBlockChecksumsAndSequenceNumbers) {
    port().pushResponse(FLASH_BEGIN);
    ASSERT_EQ(loader_flash_begin_cmd(0, 0, 0, 0, false), ESP_LOADER_SUCCESS);
    port().pushResponse(FLASH_DATA);
    uint8_t none = 0;
    ASSERT_EQ(loader_flash_data_cmd(&none, 0), ESP_LOADER_SUCCESS);
    EXPECT_EQ(lastRequest().bytes, words(header(FLASH_DATA, 16, 0xEF), {0, 0, 0, 0}));

    // A refused block is resent under the next number.
    const uint8_t block[] = {0x01, 0xC0, 0x10, 0xDB};
    port().pushResponse(FLASH_DATA, 0, {}, 1, 0xC1);
    EXPECT_EQ(loader_flash_data_cmd(block, 4), ESP_LOADER_ERROR_INVALID_RESPONSE);
    port().pushResponse(FLASH_DATA);
    ASSERT_EQ(loader_flash_data_cmd(block, 4), ESP_LOADER_SUCCESS);
    const uint8_t checksum = 0xEF ^ 0x01 ^ 0xC0 ^ 0x10 ^ 0xDB;
    Bytes expected = words(header(FLASH_DATA, 20, checksum), {4, 2, 0, 0});
    expected.insert(expected.end(), block, block + 4);
    EXPECT_EQ(lastRequest().bytes, expected);
    EXPECT_EQ(port().requests[2].word(12), 1u);
    // Header and block go out from their own buffers: 24 header bytes first.
    EXPECT_EQ(port().writes[port().writes.size() - 6].size(), 24u);

    port().pushResponse(MEM_BEGIN);
    ASSERT_EQ(loader_mem_begin_cmd(0x40000000, 4, 4, 4), ESP_LOADER_SUCCESS);
    EXPECT_EQ(loader_sequence_number(), 0u);
    port().pushResponse(FLASH_DATA);
    ASSERT_EQ(loader_flash_data_cmd(block, 4), ESP_LOADER_SUCCESS);
    port().pushResponse(FLASH_DEFL_BEGIN);
    ASSERT_EQ(loader_flash_deflate_begin_cmd(0, 4, 4, 1, false), ESP_LOADER_SUCCESS);
    EXPECT_EQ(loader_sequence_number(), 0u);
}

TEST_F(Command, FixedBodies) {
    struct Case {
        uint8_t opcode;
        std::function<esp_loader_error_t()> send;
        Bytes body;
    };
    const Case cases[] = {
        {FLASH_BEGIN, [] { return loader_flash_begin_cmd(0x10000, 0x2000, 1024, 8, false); },
         words(header(FLASH_BEGIN, 16, 0), {0x2000, 8, 1024, 0x10000})},
        {FLASH_BEGIN, [] { return loader_flash_begin_cmd(0x10000, 0x2000, 1024, 8, true); },
         words(header(FLASH_BEGIN, 20, 0), {0x2000, 8, 1024, 0x10000, 0})},
        {SPI_ATTACH, [] { return loader_spi_attach_cmd(0xABCDEF); },
         words(header(SPI_ATTACH, 8, 0), {0xABCDEF, 0})},
        {SPI_SET_PARAMS, [] { return loader_spi_parameters(0x400000); },
         words(header(SPI_SET_PARAMS, 24, 0), {0, 0x400000, 0x10000, 0x1000, 0x100, 0xFFFF})},
        {MEM_END, [] { return loader_mem_end_cmd(0); }, words(header(MEM_END, 8, 0), {1, 0})},
        {MEM_END, [] { return loader_mem_end_cmd(0x40080000); },
         words(header(MEM_END, 8, 0), {0, 0x40080000})},
        {READ_FLASH_STUB, [] { return loader_flash_read_stub_cmd(0x1000, 512, 256); },
         words(header(READ_FLASH_STUB, 16, 0), {0x1000, 512, 256, 1})},
        {ERASE_FLASH, [] { return loader_flash_erase_cmd(); }, header(ERASE_FLASH, 0, 0)},
        {FLASH_END, [] { return loader_flash_end_cmd(false); }, words(header(FLASH_END, 4, 0), {0})},
        {GET_SECURITY_INFO,
         [] {
             uint8_t response[20];
             uint32_t received = 0;
             return loader_get_security_info_cmd(response, &received);
         },
         header(GET_SECURITY_INFO, 0, 0)},
    };
    for (const Case& c : cases) {
        port().pushResponse(c.opcode);
        ASSERT_EQ(c.send(), ESP_LOADER_SUCCESS) << int(c.opcode);
        EXPECT_EQ(lastRequest().bytes, c.body) << int(c.opcode);
    }
    // The stub's attach leaves out the second word.
    esp_stub_set_running(true);
    port().pushResponse(SPI_ATTACH);
    ASSERT_EQ(loader_spi_attach_cmd(0xABCDEF), ESP_LOADER_SUCCESS);
    EXPECT_EQ(lastRequest().bytes, words(header(SPI_ATTACH, 8, 0), {0xABCDEF}));
}

TEST_F(Command, VariableAndFixedLengthAnswers) {
    Bytes data(64);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 3);
    }
    port().pushResponse(READ_FLASH_ROM, 0, Bytes(data.begin(), data.begin() + 63)); // one short
    port().pushResponse(READ_FLASH_ROM, 0, data);
    uint8_t out[64] = {};
    ASSERT_EQ(loader_flash_read_rom_cmd(0x40, out), ESP_LOADER_SUCCESS);
    EXPECT_EQ(Bytes(out, out + 64), data);
    EXPECT_EQ(lastRequest().bytes, words(header(READ_FLASH_ROM, 8, 0), {0x40, 64}));

    // The digest is hex text under the ROM and binary with the stub.
    const Bytes hex(32, '7');
    port().pushResponse(SPI_FLASH_MD5, 0, hex);
    uint8_t digest[32] = {};
    ASSERT_EQ(loader_md5_cmd(0, 0x1000, digest), ESP_LOADER_SUCCESS);
    EXPECT_EQ(Bytes(digest, digest + 32), hex);
    EXPECT_EQ(lastRequest().bytes, words(header(SPI_FLASH_MD5, 16, 0), {0, 0x1000, 0, 0}));
    esp_stub_set_running(true);
    const Bytes binary(16, 0xA5);
    port().pushResponse(SPI_FLASH_MD5, 0, binary);
    ASSERT_EQ(loader_md5_cmd(0, 0x1000, digest), ESP_LOADER_SUCCESS);
    EXPECT_EQ(Bytes(digest, digest + 16), binary);

    // Security info takes what comes, even nothing.
    uint8_t response[20] = {};
    uint32_t received = 0;
    for (size_t size : {12u, 0u}) {
        port().pushResponse(GET_SECURITY_INFO, 0, Bytes(size, 0x42));
        ASSERT_EQ(loader_get_security_info_cmd(response, &received), ESP_LOADER_SUCCESS);
        EXPECT_EQ(received, size);
    }
}

TEST_F(Command, RegisterHelpersSetTheirOwnLimit) {
    ScriptedRom rom;
    rom.registers[0x3FF5A014] = 0x99;
    uint32_t value = 0;
    port().startTimer(5);
    ASSERT_EQ(esp_loader_read_register(0x3FF5A014, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 0x99u);
    ASSERT_EQ(esp_loader_write_register(0x3FF5A014, 0x77), ESP_LOADER_SUCCESS);
    EXPECT_EQ(lastRequest().bytes, words(header(WRITE_REG, 16, 0), {0x3FF5A014, 0x77, 0xFFFFFFFF, 0}));
    EXPECT_EQ(port().requests[0].timerMs, 1000u);
    EXPECT_EQ(port().requests[1].timerMs, 1000u);
}

TEST_F(Command, PortFailuresGoUpUnchanged) {
    port().writeResult = ESP_LOADER_ERROR_FAIL;
    EXPECT_EQ(loader_sync_cmd(), ESP_LOADER_ERROR_FAIL);
    port().writeResult = ESP_LOADER_SUCCESS;
    port().pushRaw({0xC0, 0x01, 0xDB, 0x01, 0xC0});
    EXPECT_EQ(loader_flash_end_cmd(true), ESP_LOADER_ERROR_INVALID_RESPONSE);
}
