// The loader on an in-memory line, built in a variant of its own: select it
// before any loader header.
#define MERID_ESP_LOADER_VARIANT scripted

#include "esp_loader.h"
#include "esp_targets.h"
#include "loader_port.h"
#include "protocol.h"
#include "slip.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <optional>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kMiB = 1024 * 1024;

void putWord(Bytes& bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// A request: direction 0, opcode, size field, checksum, 32-bit words, data.
Bytes packet(uint8_t op, uint16_t size, uint32_t checksum, std::initializer_list<uint32_t> words,
             const Bytes& data = {}) {
    Bytes out{0x00, op, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8)};
    putWord(out, checksum);
    for (uint32_t w : words) {
        putWord(out, w);
    }
    out.insert(out.end(), data.begin(), data.end());
    return out;
}

// A frame around an answer, C0 and DB escaped.
Bytes slipFrame(const Bytes& payload) {
    Bytes frame{0xC0};
    for (const uint8_t b : payload) {
        if (b == 0xC0 || b == 0xDB) {
            frame.insert(frame.end(), {0xDB, static_cast<uint8_t>(b == 0xC0 ? 0xDC : 0xDD)});
        } else {
            frame.push_back(b);
        }
    }
    frame.push_back(0xC0);
    return frame;
}

// One request as the chip saw it, unescaped, with the time left on the timer.
struct Request {
    Bytes bytes;
    uint32_t timerMs;
    uint8_t op() const { return bytes.at(1); }
    uint32_t word(size_t at) const {
        return bytes.at(at) | bytes.at(at + 1) << 8 | bytes.at(at + 2) << 16 |
               static_cast<uint32_t>(bytes.at(at + 3)) << 24;
    }
};

// The line and a small ROM loader at its far end, on a virtual clock: a read
// that finds too little waiting lets its whole limit pass at once.
struct FakeLine {
    bool rom = true;                   // the chip; when off the test answers by itself
    std::optional<Bytes> securityInfo; // none: the command is refused
    std::map<uint32_t, uint32_t> registers{{0x40001000, 0x00F01D83}}; // an ESP32's magic value
    uint32_t flashId = 0x1640EF;                                      // 4 MiB
    std::map<uint8_t, int> silent;  // requests of an opcode left unanswered, counted down
    std::map<uint8_t, int> refused; // answered with status 1 and `refusal`, counted down
    std::map<uint8_t, int> late;    // answered `lateMs` after the request, counted down
    uint8_t refusal = 0xC1;
    uint64_t lateMs = 0;
    std::deque<std::pair<uint64_t, Bytes>> pending; // late answers and when they arrive

    std::vector<Bytes> writes;
    std::vector<Request> requests;
    std::vector<std::string> prints;
    uint64_t nowMs = 0, deadlineMs = 0;
    std::deque<uint8_t> input;
    Bytes frame;
    bool escaped = false;
    int busyLeft = 0; // readings of the SPI cmd that still show the transaction running

    void push(const Bytes& raw) { input.insert(input.end(), raw.begin(), raw.end()); }
    void respond(uint8_t op, uint32_t value = 0, const Bytes& data = {}, uint8_t status = 0,
                 uint8_t error = 0) {
        Bytes answer{0x01, op, static_cast<uint8_t>(data.size() + 2), 0};
        putWord(answer, value);
        answer.insert(answer.end(), data.begin(), data.end());
        answer.insert(answer.end(), {status, error});
        push(slipFrame(answer));
    }

    // The chip's side of the framing: a frame ends at a C0 behind data.
    void decode(uint8_t byte) {
        if (escaped) {
            escaped = false;
            frame.push_back(byte == 0xDC ? 0xC0 : byte == 0xDD ? 0xDB : byte);
        } else if (byte == 0xDB) {
            escaped = true;
        } else if (byte != 0xC0) {
            frame.push_back(byte);
        } else if (!frame.empty()) {
            requests.push_back({frame, loader_port_remaining_time()});
            frame.clear();
            answer(requests.back());
        }
    }

    void answer(const Request& request) {
        const uint8_t op = request.op();
        if (!rom || silent[op]-- > 0) {
            return;
        }
        if (late[op]-- > 0) {
            const size_t before = input.size();
            answer(op, request);
            pending.emplace_back(nowMs + lateMs,
                                 Bytes(input.begin() + static_cast<long>(before), input.end()));
            input.resize(before);
            return;
        }
        answer(op, request);
    }

    void answer(uint8_t op, const Request& request) {
        if (refused[op]-- > 0 || (op == 0x14 && !securityInfo)) {
            return respond(op, 0, {}, 1, refusal);
        }
        uint32_t value = 0;
        const uint32_t address = request.bytes.size() >= 12 ? request.word(8) : 0;
        if (op == 0x0A) { // READ_REG; the ESP32's SPI cmd shows the identification running, w0 its result
            value = address == 0x3FF42000   ? uint32_t(busyLeft-- > 0) << 18
                    : address == 0x3FF42080 ? flashId
                                            : registers[address];
        }
        for (int i = op == 0x08 ? 8 : 1; i > 0; --i) { // a sync is answered eight times
            respond(op, value, op == 0x14 ? *securityInfo : Bytes{});
        }
    }
};

FakeLine line;

class Loader : public ::testing::Test {
protected:
    void SetUp() override {
        line = FakeLine();
        esp_stub_set_running(false);
    }
    static std::vector<Request> sent(uint8_t op) {
        std::vector<Request> out;
        std::copy_if(line.requests.begin(), line.requests.end(), std::back_inserter(out),
                     [op](const Request& r) { return r.op() == op; });
        return out;
    }
    esp_loader_connect_args_t args{500, 20};
};

} // namespace

ESP_LOADER_NAMESPACE_BEGIN

esp_loader_error_t loader_port_write(const uint8_t* data, uint16_t size, uint32_t) {
    line.writes.emplace_back(data, data + size);
    std::for_each(data, data + size, [](uint8_t b) { line.decode(b); });
    return ESP_LOADER_SUCCESS;
}

esp_loader_error_t loader_port_read(uint8_t* data, uint16_t size, uint32_t timeout) {
    const uint64_t end = line.nowMs + timeout;
    while (line.input.size() < size && !line.pending.empty() && line.pending.front().first <= end) {
        line.nowMs = std::max(line.nowMs, line.pending.front().first);
        line.push(line.pending.front().second);
        line.pending.pop_front();
    }
    if (timeout == 0 || line.input.size() < size) {
        line.nowMs = end;
        return ESP_LOADER_ERROR_TIMEOUT;
    }
    std::copy_n(line.input.begin(), size, data);
    line.input.erase(line.input.begin(), line.input.begin() + size);
    return ESP_LOADER_SUCCESS;
}

void loader_port_delay_ms(uint32_t ms) {
    line.nowMs += ms;
}

void loader_port_start_timer(uint32_t ms) {
    line.deadlineMs = line.nowMs + ms;
}

uint32_t loader_port_remaining_time() {
    return static_cast<uint32_t>(line.deadlineMs > line.nowMs ? line.deadlineMs - line.nowMs : 0);
}

void loader_port_enter_bootloader() {}

void loader_port_reset_target() {}

void loader_port_debug_print(const char* text) {
    line.prints.emplace_back(text);
}

esp_loader_error_t loader_port_change_transmission_rate(uint32_t) {
    return ESP_LOADER_SUCCESS;
}

ESP_LOADER_NAMESPACE_END

TEST_F(Loader, SlipBothWaysOnGoodAndBadInput) {
    const std::pair<Bytes, std::vector<Bytes>> cases[] = {
        {{0x00, 0xC0, 0xDB, 0x01}, {{0x00}, {0xDB, 0xDC}, {0xDB, 0xDD}, {0x01}}},
        {Bytes(70000, 0x11), {Bytes(65535, 0x11), Bytes(70000 - 65535, 0x11)}}, // port writes take 16 bits
    };
    for (const auto& [data, writes] : cases) {
        line.writes.clear();
        ASSERT_EQ(SLIP_send(data.data(), static_cast<uint32_t>(data.size())), ESP_LOADER_SUCCESS);
        EXPECT_EQ(line.writes, writes) << data.size();
    }

    // Garbage and a run of delimiters before a frame; its first byte is kept
    // as it is; an overlong frame is cut and its rest dropped.
    const std::tuple<Bytes, uint32_t, esp_loader_error_t, Bytes> frames[] = {
        {{0x12, 0xDB, 0xC0, 0xC0, 1, 0xDB, 0xDC, 0xDB, 0xDD, 0xC0}, 16, ESP_LOADER_SUCCESS, {1, 0xC0, 0xDB}},
        {{0xC0, 0xDB, 0xDD, 0xC0}, 8, ESP_LOADER_SUCCESS, {0xDB, 0xDD}},
        {{0xC0, 1, 2, 3, 4, 5, 0xDB, 0x00, 6, 0xC0}, 4, ESP_LOADER_SUCCESS, {1, 2, 3, 4}},
        {{0xC0, 0x01, 0xDB, 0x00, 0x02, 0xC0}, 16, ESP_LOADER_ERROR_INVALID_RESPONSE, {}},
        {{0xC0, 0x01, 0x02}, 16, ESP_LOADER_ERROR_TIMEOUT, {}},
    };
    for (const auto& [raw, capacity, result, frame] : frames) {
        line.input.clear();
        line.push(raw);
        loader_port_start_timer(1000);
        Bytes buffer(capacity);
        uint32_t received = 0;
        ASSERT_EQ(SLIP_receive_packet(buffer.data(), capacity, &received), result) << raw.size();
        if (result == ESP_LOADER_SUCCESS) {
            EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + received), frame);
            EXPECT_TRUE(line.input.empty());
        }
    }
}

TEST_F(Loader, CommandPacketsByteForByte) {
    const Bytes block{0x01, 0xC0, 0x10, 0xDB};
    uint32_t value = 0;
    uint8_t out[32] = {};
    // In order: the begin restarts the block numbers that the data commands carry.
    const std::pair<std::function<void()>, Bytes> cases[] = {
        {[] { loader_flash_begin_cmd(0x10000, 0x2000, 1024, 8, true); },
         packet(0x02, 20, 0, {0x2000, 8, 1024, 0x10000, 0})},
        {[&] { loader_flash_data_cmd(block.data(), 4); },
         packet(0x03, 20, 0xEF ^ 0x01 ^ 0xC0 ^ 0x10 ^ 0xDB, {4, 0, 0, 0}, block)},
        {[] { loader_flash_end_cmd(true); }, packet(0x04, 4, 0, {1})},
        {loader_sync_cmd, packet(0x08, 36, 0, {0x20120707}, Bytes(32, 0x55))},
        {[] { loader_write_reg_cmd(0x3FF42000, 0x40000, 0xFFFFFFFF, 5); },
         packet(0x09, 16, 0, {0x3FF42000, 0x40000, 0xFFFFFFFF, 5})},
        {[&] { loader_read_reg_cmd(0x40001000, &value); }, packet(0x0A, 4, 0, {0x40001000})},
        {[] { loader_spi_parameters(0x400000); },
         packet(0x0B, 24, 0, {0, 0x400000, 0x10000, 0x1000, 0x100, 0xFFFF})},
        {[] { loader_spi_attach_cmd(0xABCDEF); }, packet(0x0D, 8, 0, {0xABCDEF, 0})},
        {[&] { loader_md5_cmd(0x1000, 0x2000, out); }, packet(0x13, 16, 0, {0x1000, 0x2000, 0, 0})},
        {[&] { loader_get_security_info_cmd(out, &value); }, packet(0x14, 0, 0, {})},
        // The stub's attach keeps the size field but sends the first word only.
        {[] { esp_stub_set_running(true), loader_spi_attach_cmd(0xABCDEF); }, packet(0x0D, 8, 0, {0xABCDEF})},
    };
    for (const auto& [send, expected] : cases) {
        send();
        EXPECT_EQ(line.requests.back().bytes, expected) << int(expected[1]);
    }
}

TEST_F(Loader, AnswersOnGoodAndBadInput) {
    line.rom = false;
    loader_port_start_timer(1000);
    // A sync takes all eight answers; the next command skips what isn't its own.
    for (int i = 0; i < 8; ++i) {
        line.respond(0x08);
    }
    line.respond(0x09, 0x1111);                                 // another opcode
    line.push(slipFrame({0x00, 0x0A, 2, 0, 1, 0, 0, 0, 0, 0})); // a request's direction
    line.push(slipFrame({0x01, 0x0A, 0, 0, 1, 2, 3, 4, 0}));    // nine bytes
    line.respond(0x0A, 0x12345678);
    ASSERT_EQ(loader_sync_cmd(), ESP_LOADER_SUCCESS);
    uint32_t value = 0;
    ASSERT_EQ(loader_read_reg_cmd(0x40001000, &value), ESP_LOADER_SUCCESS);
    EXPECT_EQ(value, 0x12345678u);

    // A failed first sync answer ends the command and leaves the other seven.
    for (int i = 0; i < 8; ++i) {
        line.respond(0x08, 0, {}, i == 0, 5);
    }
    const size_t seven = line.input.size() * 7 / 8;
    EXPECT_EQ(loader_sync_cmd(), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_EQ(line.input.size(), seven);

    const std::pair<uint8_t, const char*> names[] = {{5, "Error: INVALID_COMMAND"},
                                                     {12, "Error: UNKNOWN ERROR"}};
    for (const auto& [code, text] : names) {
        line.input.clear();
        line.prints.clear();
        line.respond(0x04, 0, {}, 1, code);
        EXPECT_EQ(loader_flash_end_cmd(true), ESP_LOADER_ERROR_INVALID_RESPONSE);
        EXPECT_EQ(line.prints, std::vector<std::string>{text}) << int(code);
    }
    // A variable-length answer: the status is in its last two bytes.
    uint8_t out[32] = {};
    line.respond(0x14, 0, {0x00, 0x00}, 1, 5);
    EXPECT_EQ(loader_get_security_info_cmd(out, &value), ESP_LOADER_ERROR_INVALID_RESPONSE);
    // The digest is hex text under the ROM and binary with the stub.
    for (const Bytes& digest : {Bytes(32, '7'), Bytes(16, 0xA5)}) {
        line.respond(0x13, 0, digest);
        ASSERT_EQ(loader_md5_cmd(0, 0x1000, out), ESP_LOADER_SUCCESS);
        EXPECT_EQ(Bytes(out, out + digest.size()), digest);
        esp_stub_set_running(true);
    }
}

TEST_F(Loader, EachChipIsFoundByItsIdOrItsMagicValue) {
    // Chip, id, magic value, SPI cmd and w0, efuse base, encryption word in the flash begin.
    const std::tuple<target_chip_t, uint8_t, uint32_t, uint32_t, uint32_t, uint32_t, bool> rows[] = {
        {ESP8266_CHIP, 255, 0xFFF0C101, 0x60000200, 0x60000240, 0, false},
        {ESP32_CHIP, 0, 0x00F01D83, 0x3FF42000, 0x3FF42080, 0x3FF5A000, false},
        {ESP32S2_CHIP, 2, 0x000007C6, 0x3F402000, 0x3F402058, 0x3F41A000, true},
        {ESP32C3_CHIP, 5, 0x1B31506F, 0x60002000, 0x60002058, 0x60008800, true},
        {ESP32S3_CHIP, 9, 0x00000009, 0x60002000, 0x60002058, 0x60007000, true},
        {ESP32C2_CHIP, 12, 0x0C21E06F, 0x60002000, 0x60002058, 0x60008800, true},
        {ESP32C5_CHIP, 23, 0x5FD1406F, 0x60003000, 0x60003058, 0x600B4800, true},
        {ESP32H2_CHIP, 16, 0xD7B73E80, 0x60003000, 0x60003058, 0x600B0800, true},
        {ESP32C6_CHIP, 13, 0x2CE0806F, 0x60003000, 0x60003058, 0x600B0800, true},
        {ESP32P4_CHIP, 18, 0, 0x5008D000, 0x5008D058, 0x5012D000, true}, // by 0x500D0000, high bits aside
    };
    for (const auto& [chip, id, magic, cmd, w0, efuse, encryption] : rows) {
        // By the chip id at byte 12 of the security information; with an
        // answer of a wrong length, by the magic value.
        for (const Bytes& info :
             {Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, id, 0, 0, 0, 0, 0, 0, 0}, Bytes(16, 0)}) {
            line = FakeLine();
            line.securityInfo = info;
            line.registers = {{0x40001000, magic}, {0x500D0000, 0xF8000000 | 0x2207202}};
            target_chip_t target = ESP_UNKNOWN_CHIP;
            const target_registers_t* reg = nullptr;
            ASSERT_EQ(loader_detect_chip(&target, &reg), ESP_LOADER_SUCCESS) << int(id);
            EXPECT_EQ(target, chip) << int(id) << " from " << info.size() << " bytes";
            EXPECT_EQ(reg->cmd, cmd) << int(id);
            EXPECT_EQ(reg->w0, w0) << int(id);
        }
        EXPECT_EQ(get_esp_target_data(chip)->efuse_base, efuse) << int(id);
        EXPECT_EQ(encryption_in_begin_flash_cmd(chip), encryption) << int(id);
    }
    EXPECT_EQ(target_from_chip_id(1), ESP_UNKNOWN_CHIP);
    line.securityInfo.reset();
    line.registers = {{0x40001000, 0x12345678}, {0x500D0000, 0x2207203}};
    target_chip_t target;
    const target_registers_t* reg;
    EXPECT_EQ(loader_detect_chip(&target, &reg), ESP_LOADER_ERROR_INVALID_TARGET);
}

TEST_F(Loader, ConnectSyncsDetectsAndAttachesWithTheEsp32Pins) {
    const auto pins = [](uint32_t clk, uint32_t q, uint32_t d, uint32_t cs) {
        return clk | q << 5 | d << 10 | cs << 15;
    };
    line.registers[0x3FF5A000 + 20] = pins(6, 7, 8, 9);
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
    const std::vector<Request>& r = line.requests;
    ASSERT_EQ(r.size(), 6u);
    EXPECT_EQ((Bytes{r[0].op(), r[1].op(), r[2].op(), r[3].op(), r[4].op(), r[5].op()}),
              (Bytes{0x08, 0x14, 0x0A, 0x0A, 0x0A, 0x0D}));
    EXPECT_EQ((std::vector<uint32_t>{r[0].timerMs, r[1].timerMs, r[2].timerMs, r[5].timerMs}),
              (std::vector<uint32_t>{500, 100, 1000, 1000}));
    EXPECT_EQ(r[5].word(8), 6u | 7 << 6 | 8 << 12 | 9 << 18);

    // Pin numbers from 30 up stand two higher; colliding pins keep the defaults.
    const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {
        {0xFFFFF, 10 << 4, 0},
        {pins(6, 7, 8, 30), 31 << 4, 6 | 7 << 6 | 8 << 12 | 32 << 18 | 33u << 24},
        {pins(6, 7, 8, 6), 0, 0},
        {pins(6, 7, 7, 9), 0, 0},
        {pins(6, 7, 8, 8), 0, 6 | 7 << 6 | 8 << 12 | 8 << 18}, // cs and d aren't compared
    };
    for (const auto& [a, b, expected] : cases) {
        line.registers[0x3FF5A000 + 20] = a;
        line.registers[0x3FF5A000 + 12] = b;
        uint32_t config = 0xDEAD;
        ASSERT_EQ(spi_config_esp32(0x3FF5A000, &config), ESP_LOADER_SUCCESS);
        EXPECT_EQ(config, expected) << std::hex << a;
    }

    // Only time-outs are tried again, 100 ms apart.
    const std::tuple<int, int, esp_loader_error_t, size_t> syncs[] = {
        {1000, 0, ESP_LOADER_ERROR_TIMEOUT, 20},
        {3, 0, ESP_LOADER_SUCCESS, 4},
        {0, 1, ESP_LOADER_ERROR_INVALID_RESPONSE, 1}};
    for (const auto& [silent, refused, result, count] : syncs) {
        line = FakeLine();
        line.silent[0x08] = silent;
        line.refused[0x08] = refused;
        EXPECT_EQ(loader_initialize_conn(&args), result);
        EXPECT_EQ(line.requests.size(), count);
        if (result == ESP_LOADER_ERROR_TIMEOUT) {
            EXPECT_EQ(line.nowMs, count * 500 + (count - 1) * 100);
        }
    }
}

TEST_F(Loader, FlashSizeFromTheControllerRegistersAndBlocksTriedThreeTimes) {
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
    line.registers[0x3FF4201C] = 0x11111111; // usr
    line.registers[0x3FF42024] = 0x22222222; // usr2
    uint32_t size = 0;
    ASSERT_EQ(esp_loader_flash_detect_size(&size), ESP_LOADER_SUCCESS);
    EXPECT_EQ(size, 4 * kMiB);
    std::vector<uint32_t> writes; // address and value of each register write
    for (const Request& w : sent(0x09)) {
        writes.insert(writes.end(), {w.word(8), w.word(12)});
    }
    EXPECT_EQ(writes, (std::vector<uint32_t>{0x3FF4202C, 23, 0x3FF4201C, 0x90000000, 0x3FF42024, 0x7000009F,
                                             0x3FF42080, 0, 0x3FF42000, 0x40000, 0x3FF4201C, 0x11111111,
                                             0x3FF42024, 0x22222222}));

    // Bit 18 of cmd, polled ten times: clear only at the tenth reading is a
    // time-out, never clear is taken as done.
    for (auto [busy, result] :
         {std::pair{8, ESP_LOADER_SUCCESS}, {9, ESP_LOADER_ERROR_TIMEOUT}, {10, ESP_LOADER_SUCCESS}}) {
        line.busyLeft = busy;
        EXPECT_EQ(esp_loader_flash_detect_size(&size), result) << busy;
    }
    const std::pair<uint8_t, uint32_t> codes[] = {{0x12, 256 * 1024}, {0x1C, 256 * kMiB}, {0x20, 64 * kMiB},
                                                  {0x3A, 64 * kMiB},  {0x11, 0},          {0x3B, 0}};
    for (const auto& [code, bytes] : codes) {
        line.flashId = static_cast<uint32_t>(code) << 16 | 0x40EF;
        size = 0;
        EXPECT_EQ(esp_loader_flash_detect_size(&size),
                  bytes != 0 ? ESP_LOADER_SUCCESS : ESP_LOADER_ERROR_UNSUPPORTED_CHIP);
        EXPECT_EQ(size, bytes) << int(code);
    }
    // An unknown size code counts as 2 MiB for a write.
    ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
    ASSERT_EQ(esp_loader_flash_start(0, kMiB, 1024), ESP_LOADER_SUCCESS);
    EXPECT_EQ(line.prints.back(), "Flash size detection failed, falling back to default");
    EXPECT_EQ(sent(0x0B).back().word(12), 2 * kMiB);
    EXPECT_EQ(esp_loader_flash_start(0, 3 * kMiB, 1024), ESP_LOADER_ERROR_IMAGE_SIZE);

    // Each block is tried three times, always under its own number, which
    // moves on only once the block is taken.
    Bytes block(1025, 0x5A);
    EXPECT_EQ(esp_loader_flash_write(block.data(), 1025), ESP_LOADER_ERROR_INVALID_PARAM);
    line.refused[0x03] = 2;
    ASSERT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_SUCCESS);
    line.refused[0x03] = 3;
    EXPECT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_ERROR_INVALID_RESPONSE);
    EXPECT_EQ(line.prints.back(), "Error: BAD_DATA_CHECKSUM");
    EXPECT_EQ(loader_sequence_number(), 1u);
    const auto data = sent(0x03);
    ASSERT_EQ(data.size(), 6u);
    for (uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(data[i].word(12), i / 3);
        EXPECT_EQ(data[i].timerMs, 1000u);
    }
}

// Late and missing answers to a data block, on the virtual clock: a late
// refusal does not stand for the next copy's answer, and a block that is
// never answered fails after its three tries. (Single lost or late messages
// are flashed end to end in merid-flash's tests.)
TEST_F(Loader, LostOrLateAnswersKeepTheBlocksInStep) {
    struct Case {
        const char* what;
        std::map<uint8_t, int> silent, refused, late;
        uint64_t lateMs;
        esp_loader_error_t result;
        size_t requests;
        uint64_t elapsedMs;
        const char* lastPrint;
    };
    const Case cases[] = {
        // A late refusal that comes while the line is drained is not taken
        // for the second copy's answer.
        {"refusal 1505 ms late",
         {},
         {{0x03, 1}},
         {{0x03, 1}},
         1505,
         ESP_LOADER_SUCCESS,
         2,
         1505 + 10,
         "Data block 0: no answer, sent again"},
        // Neither a request nor an answer ever comes through.
        {"no answer at all",
         {{0x03, 3}},
         {},
         {},
         0,
         ESP_LOADER_ERROR_TIMEOUT,
         3,
         3 * 1500 + 2 * 10,
         "Data block 0: no answer, sent again"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        line = FakeLine();
        ASSERT_EQ(esp_loader_connect(&args), ESP_LOADER_SUCCESS);
        ASSERT_EQ(esp_loader_flash_start(0, 2048, 1024), ESP_LOADER_SUCCESS);
        line.silent = c.silent;
        line.refused = c.refused;
        line.refusal = 0xC0; // what the ROM answers a block it already has
        line.late = c.late;
        line.lateMs = c.lateMs;
        line.prints.clear();
        Bytes block(1024, 0x3C);
        const uint64_t start = line.nowMs;
        EXPECT_EQ(esp_loader_flash_write(block.data(), 1024), c.result);
        EXPECT_EQ(line.nowMs - start, c.elapsedMs);
        EXPECT_EQ(sent(0x03).size(), c.requests);
        ASSERT_FALSE(line.prints.empty());
        EXPECT_EQ(line.prints.back(), c.lastPrint);
        for (const Request& r : sent(0x03)) {
            EXPECT_EQ(r.word(12), 0u);
        }
        if (c.result != ESP_LOADER_SUCCESS) {
            continue;
        }
        // The next block goes out under the next number and takes its own answer.
        EXPECT_TRUE(line.input.empty());
        EXPECT_TRUE(line.pending.empty());
        ASSERT_EQ(esp_loader_flash_write(block.data(), 1024), ESP_LOADER_SUCCESS);
        EXPECT_EQ(sent(0x03).back().word(12), 1u);
        EXPECT_EQ(loader_sequence_number(), 2u);
    }
}

TEST_F(Loader, FlashBeginBlockMath) {
    // Chip, stub, offset, size, block, result; the begin's erase size, blocks, size field and time limit.
    const std::tuple<target_chip_t, bool, uint32_t, uint32_t, uint32_t, esp_loader_error_t, uint32_t,
                     uint32_t, uint32_t, uint32_t>
        cases[] = {
            {ESP32_CHIP, false, 0, 1000, 1024, ESP_LOADER_SUCCESS, 1000, 1, 16, 3000},
            {ESP32_CHIP, false, 0, 301000, 4096, ESP_LOADER_SUCCESS, 301000, 74, 16, 3010},
            {ESP32_CHIP, false, 0, 2000000, 1024, ESP_LOADER_SUCCESS, 2000000, 1954, 16, 20000},
            {ESP32_CHIP, false, 0, 1001, 1024, ESP_LOADER_ERROR_INVALID_PARAM, 0, 0, 0, 0},
            {ESP32_CHIP, false, 2, 1000, 1024, ESP_LOADER_ERROR_INVALID_PARAM, 0, 0, 0, 0},
            {ESP32_CHIP, false, 4096, 4 * kMiB, 1024, ESP_LOADER_ERROR_IMAGE_SIZE, 0, 0, 0, 0},
            {ESP32C3_CHIP, false, 0x10000, 4096, 1024, ESP_LOADER_SUCCESS, 4096, 4, 20, 3000},
            {ESP32C3_CHIP, true, 0x10000, 4096, 1024, ESP_LOADER_SUCCESS, 4096, 4, 16, 3000},
            // The ESP8266's ROM erases by its own rule.
            {ESP8266_CHIP, false, 0, 20 * 4096, 4096, ESP_LOADER_SUCCESS, 4 * 4096, 20, 16, 3000},
            {ESP8266_CHIP, false, 0x1000, 16 * 4096, 4096, ESP_LOADER_SUCCESS, 4096, 16, 16, 3000},
            {ESP8266_CHIP, false, 0, 3 * 4096, 4096, ESP_LOADER_SUCCESS, 2 * 4096, 3, 16, 3000},
        };
    for (const auto& [chip, stub, offset, size, block, result, erase, blocks, sizeField, limit] : cases) {
        line = FakeLine();
        ASSERT_EQ(esp_loader_connect_secure_download_mode(&args, 4 * kMiB, chip), ESP_LOADER_SUCCESS);
        esp_stub_set_running(stub);
        const size_t before = line.requests.size();
        ASSERT_EQ(esp_loader_flash_start(offset, size, block), result) << size;
        if (result != ESP_LOADER_SUCCESS) {
            // Alignment is checked before any command, the size after the SPI parameters.
            EXPECT_EQ(line.requests.size(), before + (result == ESP_LOADER_ERROR_IMAGE_SIZE));
            continue;
        }
        Bytes expected = packet(0x02, sizeField, 0, {erase, blocks, block, offset});
        if (sizeField == 20) {
            putWord(expected, 0);
        }
        EXPECT_EQ(line.requests.back().bytes, expected) << chip << " " << size;
        EXPECT_EQ(line.requests.back().timerMs, limit) << size;
    }
}
