#include "FakeLoaderPort.h"
#include "loader_port.h"
#include "md5_hash.h"
#include "protocol.h"
#include "slip.h"

#include <functional>

TEST_F(LineTest, SlipSendWritesRunsAndEachEscapeApart) {
    const std::pair<Bytes, std::vector<Bytes>> cases[] = {
        {{}, {}},
        {{0x00, 0xC0, 0xDB, 0x01}, {{0x00}, {0xDB, 0xDC}, {0xDB, 0xDD}, {0x01}}},
        {{0xC0, 0xC0}, {{0xDB, 0xDC}, {0xDB, 0xDC}}},
        {Bytes(70000, 0x11), {Bytes(65535, 0x11), Bytes(70000 - 65535, 0x11)}}, // port writes take 16 bits
    };
    for (const auto& [data, writes] : cases) {
        line().writes.clear();
        ASSERT_EQ(SLIP_send(data.data(), static_cast<uint32_t>(data.size())), ESP_LOADER_SUCCESS);
        EXPECT_EQ(line().writes, writes) << data.size();
    }
    line().writeResult = ESP_LOADER_ERROR_FAIL;
    EXPECT_EQ(SLIP_send(Bytes{0x00, 0xC0}.data(), 2), ESP_LOADER_ERROR_FAIL);
}

TEST_F(LineTest, SlipReceiveOnGoodAndBadInput) {
    struct Case {
        Bytes raw;
        uint32_t capacity;
        esp_loader_error_t result;
        Bytes frame;
    };
    const Case cases[] = {
        // Garbage and a run of delimiters before the frame.
        {{0x12, 0xDB, 0xC0, 0xC0, 0xC0, 0x01, 0xDB, 0xDC, 0xDB, 0xDD, 0x02, 0xC0},
         16,
         ESP_LOADER_SUCCESS,
         {0x01, 0xC0, 0xDB, 0x02}},
        {{0xC0, 0xDB, 0xDD, 0xC0}, 8, ESP_LOADER_SUCCESS, {0xDB, 0xDD}}, // the first byte is kept as it is
        {{0xC0, 1, 2, 3, 4, 5, 0xDB, 0x00, 6, 0xC0},
         4,
         ESP_LOADER_SUCCESS,
         {1, 2, 3, 4}}, // cut, rest dropped
        {{0xC0, 0x01, 0xDB, 0x00, 0x02, 0xC0}, 16, ESP_LOADER_ERROR_INVALID_RESPONSE, {}},
        {{0xC0, 0x01, 0x02}, 16, ESP_LOADER_ERROR_TIMEOUT, {}},
        {{}, 16, ESP_LOADER_ERROR_TIMEOUT, {}},
    };
    for (const Case& c : cases) {
        line().input.clear();
        line().push(c.raw);
        loader_port_start_timer(1000);
        Bytes buffer(c.capacity);
        uint32_t received = 0;
        ASSERT_EQ(SLIP_receive_packet(buffer.data(), c.capacity, &received), c.result) << c.raw.size();
        if (c.result == ESP_LOADER_SUCCESS) {
            EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + received), c.frame);
            EXPECT_TRUE(line().input.empty());
        }
    }
}

TEST_F(LineTest, CommandPacketsByteForByte) {
    const Bytes block{0x01, 0xC0, 0x10, 0xDB};
    const uint32_t sum = 0xEF ^ 0x01 ^ 0xC0 ^ 0x10 ^ 0xDB;
    uint32_t value = 0;
    uint8_t out[64] = {};
    // In order: each begin restarts the block numbers that the data commands carry.
    const std::pair<std::function<void()>, Bytes> cases[] = {
        {[] { loader_flash_begin_cmd(0x10000, 0x2000, 1024, 8, false); },
         packet(0x02, 16, 0, {0x2000, 8, 1024, 0x10000})},
        {[] { loader_flash_begin_cmd(0x10000, 0x2000, 1024, 8, true); },
         packet(0x02, 20, 0, {0x2000, 8, 1024, 0x10000, 0})},
        {[&] { loader_flash_data_cmd(out, 0); }, packet(0x03, 16, 0xEF, {0, 0, 0, 0})},
        {[&] { loader_flash_data_cmd(block.data(), 4); }, packet(0x03, 20, sum, {4, 1, 0, 0}, block)},
        {[] { loader_flash_end_cmd(true); }, packet(0x04, 4, 0, {1})},
        {[] { loader_mem_begin_cmd(0x40080000, 12884, 18432, 6144); },
         packet(0x05, 16, 0, {12884, 18432, 6144, 0x40080000})},
        {[&] { loader_mem_data_cmd(block.data(), 4); }, packet(0x07, 20, sum, {4, 0, 0, 0}, block)},
        {[] { loader_mem_end_cmd(0); }, packet(0x06, 8, 0, {1, 0})},
        {[] { loader_mem_end_cmd(0x400822B4); }, packet(0x06, 8, 0, {0, 0x400822B4})},
        {loader_sync_cmd, packet(0x08, 36, 0, {0x20120707}, Bytes(32, 0x55))},
        {[] { loader_write_reg_cmd(0x3FF42000, 0x40000, 0xFFFFFFFF, 5); },
         packet(0x09, 16, 0, {0x3FF42000, 0x40000, 0xFFFFFFFF, 5})},
        {[&] { loader_read_reg_cmd(0x40001000, &value); }, packet(0x0A, 4, 0, {0x40001000})},
        {[] { loader_spi_parameters(0x400000); },
         packet(0x0B, 24, 0, {0, 0x400000, 0x10000, 0x1000, 0x100, 0xFFFF})},
        {[] { loader_spi_attach_cmd(0xABCDEF); }, packet(0x0D, 8, 0, {0xABCDEF, 0})},
        {[&] { loader_flash_read_rom_cmd(0x40, out); }, packet(0x0E, 8, 0, {0x40, 64})},
        {[] { loader_change_baudrate_cmd(921600, 115200); }, packet(0x0F, 8, 0, {921600, 115200})},
        {[] { loader_flash_deflate_begin_cmd(0, 0x1000, 1024, 2, false); },
         packet(0x10, 16, 0, {0x1000, 2, 1024, 0})},
        {[&] { loader_flash_deflate_data_cmd(block.data(), 4); }, packet(0x11, 20, sum, {4, 0, 0, 0}, block)},
        {[] { loader_flash_deflate_end_cmd(false); }, packet(0x12, 4, 0, {0})},
        {[&] { loader_md5_cmd(0x1000, 0x2000, out); }, packet(0x13, 16, 0, {0x1000, 0x2000, 0, 0})},
        {[&] { loader_get_security_info_cmd(out, &value); }, packet(0x14, 0, 0, {})},
        {[] { loader_flash_erase_cmd(); }, packet(0xD0, 0, 0, {})},
        {[] { loader_flash_erase_region_cmd(0x1000, 0x2000); }, packet(0xD1, 8, 0, {0x1000, 0x2000})},
        {[] { loader_flash_read_stub_cmd(0x1000, 512, 256); }, packet(0xD2, 16, 0, {0x1000, 512, 256, 1})},
        // The stub's attach keeps the size field but sends the first word only.
        {[] {
             esp_stub_set_running(true);
             loader_spi_attach_cmd(0xABCDEF);
         },
         packet(0x0D, 8, 0, {0xABCDEF})},
    };
    line().securityInfo = Bytes(20, 0);
    for (const auto& [send, expected] : cases) {
        send();
        EXPECT_EQ(line().requests.back().bytes, expected) << int(expected[1]);
    }
}

TEST_F(LineTest, SyncTakesEightAnswersAndAFailedFirstLeavesSeven) {
    line().rom = false;
    for (int i = 0; i < 8; ++i) {
        line().respond(0x08);
    }
    line().respond(0x0A, 0x12345678);
    loader_port_start_timer(1000);
    ASSERT_EQ(loader_sync_cmd(), ESP_LOADER_SUCCESS);
    uint32_t value = 0;
    ASSERT_EQ(loader_read_reg_cmd(0x40001000, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 0x12345678u);

    line().respond(0x08, 0, {}, 1, 5);
    for (int i = 0; i < 7; ++i) {
        line().respond(0x08);
    }
    const size_t seven = line().input.size() * 7 / 8;
    EXPECT_EQ(loader_sync_cmd(), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_TRUE(line().printed("Error: INVALID_COMMAND"));
    EXPECT_EQ(line().input.size(), seven);
}

TEST_F(LineTest, AnswersOfAnotherOpcodeDirectionOrLengthAreDropped) {
    line().rom = false;
    line().respond(0x09, 0x1111);                                 // another opcode
    line().push(slipFrame({0x00, 0x0A, 2, 0, 1, 0, 0, 0, 0, 0})); // a request's direction
    line().push(slipFrame({0x01, 0x0A, 0, 0, 1, 2, 3, 4, 0}));    // nine bytes
    loader_port_start_timer(1000);
    uint32_t value = 0;
    EXPECT_EQ(loader_read_reg_cmd(0x1000, &value), ESP_LOADER_ERROR_TIMEOUT);
    EXPECT_EQ(value, 0u);
    EXPECT_TRUE(line().input.empty());
}

TEST_F(LineTest, StatusFailuresArePrintedByName) {
    line().rom = false;
    const std::pair<uint8_t, const char*> table[] = {
        {5, "Error: INVALID_COMMAND"},  {0xC3, "Error: INVALID_COMMAND"},
        {0xC9, "Error: TOO_MUCH_DATA"}, {0xFF, "Error: CMD_NOT_IMPLEMENTED"},
        {12, "Error: UNKNOWN ERROR"},
    };
    for (const auto& [code, text] : table) {
        line().prints.clear();
        line().respond(0x04, 0, {}, 1, code);
        loader_port_start_timer(1000);
        EXPECT_EQ(loader_flash_end_cmd(true), ESP_LOADER_ERROR_INVALID_RESPONSE);
        EXPECT_EQ(line().prints, std::vector<std::string>{text}) << int(code);
    }
    // A variable-length answer: the status is in its last two bytes.
    line().respond(0x14, 0, {0x00, 0x00}, 1, 5);
    uint8_t info[20];
    uint32_t received = 0;
    EXPECT_EQ(loader_get_security_info_cmd(info, &received), ESP_LOADER_ERROR_INVALID_RESPONSE);
}

TEST_F(LineTest, Md5DigestIsHexUnderTheRomAndBinaryWithTheStub) {
    line().rom = false;
    uint8_t digest[32] = {};
    for (const Bytes& answer : {Bytes(32, '7'), Bytes(16, 0xA5)}) {
        line().respond(0x13, 0, answer);
        loader_port_start_timer(1000);
        ASSERT_EQ(loader_md5_cmd(0, 0x1000, digest), ESP_LOADER_SUCCESS);
        EXPECT_EQ(Bytes(digest, digest + answer.size()), answer);
        esp_stub_set_running(true);
    }
}

TEST(Md5, KnownDigestsWholeAndInPieces) {
    const std::string text =
        "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
    const Bytes expected{0x57, 0xed, 0xf4, 0xa2, 0x2b, 0xe3, 0xc9, 0x55,
                         0xac, 0x49, 0xda, 0x2e, 0x21, 0x07, 0xb6, 0x7a};
    for (size_t piece : {1, 16, 40, 80}) {
        MD5Context md5;
        MD5Init(&md5);
        for (size_t at = 0; at < text.size(); at += piece) {
            MD5Update(&md5, reinterpret_cast<const uint8_t*>(text.data()) + at, static_cast<uint32_t>(piece));
        }
        Bytes digest(16);
        MD5Final(digest.data(), &md5);
        EXPECT_EQ(digest, expected) << piece;
    }
}
