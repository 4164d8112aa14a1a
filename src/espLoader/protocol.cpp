#include "protocol.h"

#include "loader_port.h"
#include "slip.h"

#include <algorithm>
#include <cstring>
#include <string>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

uint32_t s_sequence_number = 0;
bool stub_running = false;
// The error code of the refusal the last wait for an answer ended with, else 0.
uint8_t s_last_error = 0;

constexpr uint8_t kRequestDirection = 0x00;
constexpr uint8_t kResponseDirection = 0x01;
constexpr uint32_t kDefaultTimeoutMs = 1000;
constexpr uint32_t kSyncAnswers = 8;
// Flash read by the ROM: always 64 bytes a command.
constexpr uint32_t kRomReadSize = 64;
constexpr uint32_t kFullMask = 0xFFFFFFFF;
constexpr uint32_t kMd5HexSize = 32;
constexpr uint32_t kMd5BinarySize = 16;
constexpr uint32_t kSecurityInfoSize = 20;
constexpr uint32_t kDataAttempts = 3;
// What the ROM answers a block number it has already taken.
constexpr uint8_t kBlockAlreadyTaken = 0xC0;
// Waiting input is dropped until the line has been quiet this long, and for
// no longer than the limit, whatever a noisy line sends.
constexpr uint32_t kQuietMs = 10;
constexpr uint32_t kDrainLimitMs = 500;

struct loader_error_text_t {
    uint8_t code;
    const char* text;
};

// The words for the error codes of a refused command. Code 5 shares its
// word with 0xC3.
const loader_error_text_t kLoaderErrorTexts[] = {
    {5, "Error: INVALID_COMMAND"},      {6, "Error: COMMAND_FAILED"},
    {7, "Error: INVALID_CRC"},          {8, "Error: FLASH_WRITE_ERR"},
    {9, "Error: FLASH_READ_ERR"},       {10, "Error: READ_LENGTH_ERR"},
    {11, "Error: DEFLATE_ERROR"},       {0xC0, "Error: BAD_DATA_LEN"},
    {0xC1, "Error: BAD_DATA_CHECKSUM"}, {0xC2, "Error: BAD_BLOCKSIZE"},
    {0xC3, "Error: INVALID_COMMAND"},   {0xC4, "Error: FAILED_SPI_OP"},
    {0xC5, "Error: FAILED_SPI_UNLOCK"}, {0xC6, "Error: NOT_IN_FLASH_MODE"},
    {0xC7, "Error: INFLATE_ERROR"},     {0xC8, "Error: NOT_ENOUGH_DATA"},
    {0xC9, "Error: TOO_MUCH_DATA"},     {0xFF, "Error: CMD_NOT_IMPLEMENTED"},
};

void putWord(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
    at[2] = static_cast<uint8_t>(value >> 16);
    at[3] = static_cast<uint8_t>(value >> 24);
}

uint32_t getWord(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 |
           static_cast<uint32_t>(at[2]) << 16 | static_cast<uint32_t>(at[3]) << 24;
}

// One request as it stands between the delimiters, before escaping. The
// largest body is the sync's 36 bytes.
class Request {
public:
    Request(command_t opcode, uint16_t sizeField, uint32_t checksum = 0) {
        bytes[0] = kRequestDirection;
        bytes[1] = opcode;
        bytes[2] = static_cast<uint8_t>(sizeField);
        bytes[3] = static_cast<uint8_t>(sizeField >> 8);
        putWord(bytes + 4, checksum);
    }

    Request& word(uint32_t value) {
        putWord(bytes + used, value);
        used += 4;
        return *this;
    }

    Request& raw(const uint8_t* data, size_t size) {
        std::memcpy(bytes + used, data, size);
        used += size;
        return *this;
    }

    const uint8_t* data() const { return bytes; }
    size_t size() const { return used; }

private:
    uint8_t bytes[kCommandHeaderSize + 36] = {};
    size_t used = kCommandHeaderSize;
};

esp_loader_error_t sendRequest(const Request& request) {
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    return send_cmd(&config);
}

// Waits for the response that belongs to `opcode`, dropping every other frame.
esp_loader_error_t receiveResponse(uint8_t opcode, const send_cmd_config* config) {
    uint8_t buffer[kMaxResponseData + kResponseOverhead];
    const size_t dataRoom = std::min(config->resp_data_size, kMaxResponseData);
    const uint32_t capacity = static_cast<uint32_t>(dataRoom + kResponseOverhead);
    const uint32_t minimum = config->resp_data_recv_size != nullptr ? kResponseOverhead : capacity;
    uint32_t received = 0;
    s_last_error = 0;
    for (;;) {
        LOADER_TRY(SLIP_receive_packet(buffer, capacity, &received));
        if (received >= minimum && buffer[0] == kResponseDirection && buffer[1] == opcode) {
            break;
        }
    }

    const uint8_t status = buffer[received - 2];
    if (status != 0) {
        s_last_error = buffer[received - 1];
        log_loader_internal_error(s_last_error);
        return ESP_LOADER_ERROR_INVALID_RESPONSE;
    }
    if (config->reg_value != nullptr) {
        *config->reg_value = getWord(buffer + 4);
    }
    if (config->resp_data != nullptr) {
        const uint32_t dataSize = received - static_cast<uint32_t>(kResponseOverhead);
        std::memcpy(config->resp_data, buffer + 8, dataSize);
        if (config->resp_data_recv_size != nullptr) {
            *config->resp_data_recv_size = dataSize;
        }
    }
    return ESP_LOADER_SUCCESS;
}

// FLASH_DATA, MEM_DATA and FLASH_DEFL_DATA share one form: the block goes out
// behind the header straight from the caller's buffer, under the number of
// the block the chip waits for.
esp_loader_error_t dataCommand(command_t opcode, const uint8_t* data, uint32_t size) {
    Request request(opcode, static_cast<uint16_t>(size + 16), compute_checksum(data, size));
    request.word(size).word(s_sequence_number).word(0).word(0);
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    config.data = data;
    config.data_size = size;
    return send_cmd(&config);
}

esp_loader_error_t beginCommand(command_t opcode, uint32_t offset, uint32_t erase_size, uint32_t block_size,
                                uint32_t blocks_to_write, bool encryption) {
    s_sequence_number = 0;
    Request request(opcode, encryption ? 20 : 16);
    request.word(erase_size).word(blocks_to_write).word(block_size).word(offset);
    if (encryption) {
        request.word(0);
    }
    return sendRequest(request);
}

// Drops whatever waits on the line, so that a command sent again cannot take
// an answer meant for the one before.
void drainInput() {
    loader_port_start_timer(kDrainLimitMs);
    uint8_t byte = 0;
    while (loader_port_remaining_time() > 0 && loader_port_read(&byte, 1, kQuietMs) == ESP_LOADER_SUCCESS) {
    }
}

void logBlock(const char* what) {
    const std::string text = "Data block " + std::to_string(s_sequence_number) + ": " + what;
    loader_port_debug_print(text.c_str());
}

// One attempt at a block. An answer that misses the time limit may still be
// on its way: one that comes within half the limit more is this block's.
esp_loader_error_t blockAttempt(command_t opcode, const uint8_t* data, uint32_t size, uint32_t limit_ms) {
    loader_port_start_timer(limit_ms);
    const esp_loader_error_t result = dataCommand(opcode, data, size);
    if (result != ESP_LOADER_ERROR_TIMEOUT) {
        return result;
    }
    loader_port_start_timer(limit_ms / 2);
    const send_cmd_config statusOnly;
    const esp_loader_error_t late = receiveResponse(opcode, &statusOnly);
    if (late == ESP_LOADER_SUCCESS) {
        logBlock("the answer came late and is taken as this block's");
    }
    return late;
}

} // namespace

bool esp_stub_get_running() {
    return stub_running;
}

void esp_stub_set_running(bool running) {
    stub_running = running;
}

uint32_t loader_sequence_number() {
    return s_sequence_number;
}

esp_loader_error_t loader_send_data_block(command_t opcode, const uint8_t* data, uint32_t size,
                                          uint32_t limit_ms) {
    esp_loader_error_t result = blockAttempt(opcode, data, size, limit_ms);
    for (uint32_t attempt = 1; attempt < kDataAttempts && result != ESP_LOADER_SUCCESS; ++attempt) {
        logBlock(result == ESP_LOADER_ERROR_TIMEOUT            ? "no answer, sent again"
                 : result == ESP_LOADER_ERROR_INVALID_RESPONSE ? "refused, sent again"
                                                               : "the line failed, sent again");
        drainInput();
        result = blockAttempt(opcode, data, size, limit_ms);
        // Its first request arrived, only the answer was lost.
        if (result == ESP_LOADER_ERROR_INVALID_RESPONSE && s_last_error == kBlockAlreadyTaken) {
            logBlock("the chip has it already; its answer was lost");
            result = ESP_LOADER_SUCCESS;
        }
    }
    if (result == ESP_LOADER_SUCCESS) {
        ++s_sequence_number;
    }
    return result;
}

uint8_t compute_checksum(const uint8_t* data, uint32_t size) {
    uint8_t checksum = kChecksumSeed;
    for (uint32_t i = 0; i < size; ++i) {
        checksum ^= data[i];
    }
    return checksum;
}

esp_loader_error_t send_cmd(const send_cmd_config* config) {
    const uint8_t* request = static_cast<const uint8_t*>(config->cmd);
    const uint8_t opcode = request[1];

    LOADER_TRY(SLIP_send_delimiter());
    LOADER_TRY(SLIP_send(request, static_cast<uint32_t>(config->cmd_size)));
    if (config->data != nullptr && config->data_size != 0) {
        LOADER_TRY(
            SLIP_send(static_cast<const uint8_t*>(config->data), static_cast<uint32_t>(config->data_size)));
    }
    LOADER_TRY(SLIP_send_delimiter());

    // The ROM answers a sync eight times; all of them are taken here so the
    // next command starts on a clean line.
    const uint32_t expected = opcode == SYNC ? kSyncAnswers : 1;
    for (uint32_t i = 0; i < expected; ++i) {
        LOADER_TRY(receiveResponse(opcode, config));
    }
    return ESP_LOADER_SUCCESS;
}

void log_loader_internal_error(uint8_t error) {
    for (const loader_error_text_t& entry : kLoaderErrorTexts) {
        if (entry.code == error) {
            loader_port_debug_print(entry.text);
            return;
        }
    }
    loader_port_debug_print("Error: UNKNOWN ERROR");
}

esp_loader_error_t loader_flash_begin_cmd(uint32_t offset, uint32_t erase_size, uint32_t block_size,
                                          uint32_t blocks_to_write, bool encryption) {
    return beginCommand(FLASH_BEGIN, offset, erase_size, block_size, blocks_to_write, encryption);
}

esp_loader_error_t loader_flash_data_cmd(const uint8_t* data, uint32_t size) {
    return dataCommand(FLASH_DATA, data, size);
}

esp_loader_error_t loader_flash_end_cmd(bool stay_in_loader) {
    return sendRequest(Request(FLASH_END, 4).word(stay_in_loader ? 1 : 0));
}

esp_loader_error_t loader_mem_begin_cmd(uint32_t offset, uint32_t size, uint32_t blocks_to_write,
                                        uint32_t block_size) {
    s_sequence_number = 0;
    return sendRequest(Request(MEM_BEGIN, 16).word(size).word(blocks_to_write).word(block_size).word(offset));
}

esp_loader_error_t loader_mem_data_cmd(const uint8_t* data, uint32_t size) {
    return dataCommand(MEM_DATA, data, size);
}

esp_loader_error_t loader_mem_end_cmd(uint32_t entrypoint) {
    return sendRequest(Request(MEM_END, 8).word(entrypoint == 0 ? 1 : 0).word(entrypoint));
}

esp_loader_error_t loader_sync_cmd() {
    static const uint8_t kSyncBody[36] = {0x07, 0x07, 0x12, 0x20, 0x55, 0x55, 0x55, 0x55, 0x55,
                                          0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55,
                                          0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55,
                                          0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55};
    return sendRequest(Request(SYNC, sizeof(kSyncBody)).raw(kSyncBody, sizeof(kSyncBody)));
}

esp_loader_error_t loader_write_reg_cmd(uint32_t address, uint32_t value, uint32_t mask, uint32_t delay_us) {
    return sendRequest(Request(WRITE_REG, 16).word(address).word(value).word(mask).word(delay_us));
}

esp_loader_error_t loader_read_reg_cmd(uint32_t address, uint32_t* reg) {
    Request request(READ_REG, 4);
    request.word(address);
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    config.reg_value = reg;
    return send_cmd(&config);
}

esp_loader_error_t loader_spi_parameters(uint32_t total_size) {
    Request request(SPI_SET_PARAMS, 24);
    // id, total size, block, sector, page, status mask
    request.word(0).word(total_size).word(0x10000).word(0x1000).word(0x100).word(0xFFFF);
    return sendRequest(request);
}

esp_loader_error_t loader_spi_attach_cmd(uint32_t config) {
    // The size field says 8 either way; the stub takes the configuration
    // word alone, the ROM a second word as well.
    Request request(SPI_ATTACH, 8);
    request.word(config);
    if (!esp_stub_get_running()) {
        request.word(0);
    }
    return sendRequest(request);
}

esp_loader_error_t loader_flash_read_rom_cmd(uint32_t address, uint8_t* data) {
    Request request(READ_FLASH_ROM, 8);
    request.word(address).word(kRomReadSize);
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    config.resp_data = data;
    config.resp_data_size = kRomReadSize;
    return send_cmd(&config);
}

esp_loader_error_t loader_change_baudrate_cmd(uint32_t new_baudrate, uint32_t old_baudrate) {
    return sendRequest(Request(CHANGE_BAUDRATE, 8).word(new_baudrate).word(old_baudrate));
}

esp_loader_error_t loader_flash_deflate_begin_cmd(uint32_t offset, uint32_t erase_size, uint32_t block_size,
                                                  uint32_t blocks_to_write, bool encryption) {
    return beginCommand(FLASH_DEFL_BEGIN, offset, erase_size, block_size, blocks_to_write, encryption);
}

esp_loader_error_t loader_flash_deflate_data_cmd(const uint8_t* data, uint32_t size) {
    return dataCommand(FLASH_DEFL_DATA, data, size);
}

esp_loader_error_t loader_flash_deflate_end_cmd(bool stay_in_loader) {
    return sendRequest(Request(FLASH_DEFL_END, 4).word(stay_in_loader ? 1 : 0));
}

esp_loader_error_t loader_md5_cmd(uint32_t address, uint32_t size, uint8_t* md5_out) {
    Request request(SPI_FLASH_MD5, 16);
    request.word(address).word(size).word(0).word(0);
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    config.resp_data = md5_out;
    // The ROM answers in hexadecimal text, the stub in raw bytes.
    config.resp_data_size = esp_stub_get_running() ? kMd5BinarySize : kMd5HexSize;
    return send_cmd(&config);
}

esp_loader_error_t loader_get_security_info_cmd(uint8_t* response, uint32_t* response_recv_size) {
    Request request(GET_SECURITY_INFO, 0);
    send_cmd_config config;
    config.cmd = request.data();
    config.cmd_size = request.size();
    config.resp_data = response;
    config.resp_data_size = kSecurityInfoSize;
    config.resp_data_recv_size = response_recv_size;
    return send_cmd(&config);
}

esp_loader_error_t loader_flash_erase_cmd() {
    return sendRequest(Request(ERASE_FLASH, 0));
}

esp_loader_error_t loader_flash_erase_region_cmd(uint32_t address, uint32_t size) {
    return sendRequest(Request(ERASE_REGION, 8).word(address).word(size));
}

esp_loader_error_t loader_flash_read_stub_cmd(uint32_t address, uint32_t size, uint32_t block_size) {
    // The last word is the number of blocks in flight.
    return sendRequest(Request(READ_FLASH_STUB, 16).word(address).word(size).word(block_size).word(1));
}

esp_loader_error_t esp_loader_read_register(uint32_t address, uint32_t* reg_value) {
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_read_reg_cmd(address, reg_value);
}

esp_loader_error_t esp_loader_write_register(uint32_t address, uint32_t reg_value) {
    loader_port_start_timer(kDefaultTimeoutMs);
    return loader_write_reg_cmd(address, reg_value, kFullMask, 0);
}

ESP_LOADER_NAMESPACE_END
