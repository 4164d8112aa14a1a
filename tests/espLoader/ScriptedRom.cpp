#include "ScriptedRom.h"

#include "md5_hash.h"
#include "protocol.h"

#include <algorithm>

using fakeport::Bytes;
using fakeport::FakePort;
using fakeport::Request;

ScriptedRom::ScriptedRom(target_chip_t chip) : regs(&get_esp_target_data(chip)->regs) {
    FakePort::instance().onRequest = [this](const Request& request) { answer(request); };
}

ScriptedRom::~ScriptedRom() {
    FakePort::instance().onRequest = nullptr;
}

uint32_t ScriptedRom::readRegister(uint32_t address) {
    registerReads.push_back(address);
    if (address == kChipMagicRegister) {
        return magic;
    }
    if (address == regs->cmd && busyLeft > 0) {
        --busyLeft;
        return 1u << 18;
    }
    auto found = registers.find(address);
    return found == registers.end() ? 0 : found->second;
}

void ScriptedRom::writeRegister(uint32_t address, uint32_t value) {
    registerWrites.emplace_back(address, value);
    registers[address] = value;
    if (address == regs->cmd && value == (1u << 18)) {
        registers[regs->w0] = flashId;
        registers[regs->cmd] = 0;
        busyLeft = busyReadings;
    }
}

// Sends the next frame of a stub read, or its digest once all is out.
void ScriptedRom::streamNext() {
    FakePort& port = FakePort::instance();
    if (streamLeft == 0) {
        uint8_t digest[16];
        MD5Context md5;
        MD5Init(&md5);
        MD5Update(&md5, streamed.data(), static_cast<uint32_t>(streamed.size()));
        MD5Final(digest, &md5);
        if (wrongDigest) {
            digest[0] ^= 1;
        }
        port.pushFrame(Bytes(digest, digest + 16));
        streaming = false;
        return;
    }
    const uint32_t n = std::min(streamLeft, streamBlock);
    Bytes chunk(flash.begin() + streamAddress, flash.begin() + streamAddress + n);
    streamed.insert(streamed.end(), chunk.begin(), chunk.end());
    port.pushFrame(chunk);
    streamAddress += n;
    streamLeft -= n;
}

void ScriptedRom::answer(const Request& request) {
    FakePort& port = FakePort::instance();
    if (streaming && request.bytes.size() == 4) {
        streamNext(); // an acknowledgement of the last frame
        return;
    }
    const uint8_t op = request.opcode();
    if (silentOpcodes.count(op) != 0) {
        return;
    }
    if (op == SYNC && silentSyncs > 0) {
        --silentSyncs;
        return;
    }
    auto fail = failing.find(op);
    if (fail != failing.end()) {
        port.pushResponse(op, 0, {}, fail->second.first, fail->second.second);
        return;
    }
    switch (op) {
    case SYNC:
        for (int i = 0; i < 8; ++i) {
            port.pushResponse(op);
        }
        break;
    case READ_REG:
        port.pushResponse(op, readRegister(request.word(8)));
        break;
    case WRITE_REG:
        writeRegister(request.word(8), request.word(12));
        port.pushResponse(op);
        break;
    case GET_SECURITY_INFO:
        if (securityInfo) {
            port.pushResponse(op, 0, *securityInfo);
        } else {
            port.pushResponse(op, 0, {}, 1, 5);
        }
        break;
    case FLASH_DATA:
        if (failDataBlocks > 0) {
            --failDataBlocks;
            port.pushResponse(op, 0, {}, 1, 0xC1);
        } else {
            port.pushResponse(op);
        }
        break;
    case MEM_END:
        port.pushResponse(op);
        if (request.word(12) != 0) {
            port.pushFrame(greeting);
        }
        break;
    case READ_FLASH_ROM: {
        const uint32_t address = request.word(8);
        port.pushResponse(op, 0, Bytes(flash.begin() + address, flash.begin() + address + 64));
        break;
    }
    case READ_FLASH_STUB:
        port.pushResponse(op);
        streaming = true;
        streamAddress = request.word(8);
        streamLeft = request.word(12);
        streamBlock = request.word(16);
        streamed.clear();
        streamNext();
        break;
    default:
        port.pushResponse(op);
        break;
    }
}
