// Feeds arbitrary bytes to PayloadHandler::update. The first byte picks what
// the handler is waiting for (nothing, a search, field information, a field
// set or get, a file transfer), so that accepted answers reach every branch
// of process; the second byte cuts the rest into blocks as a serial read would.

#include "DefaultMaxLen.h"
#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

std::string gImagePath;

void discover(PayloadHandler& handler, std::uint8_t fieldCount) {
    handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
    handler.generateResponse(SEARCH_DEVICES_MSG);
    unsigned char answer[76] = {1, 2, 0, 1, 0, 0, 0, fieldCount, 0, 0, 0, 0, 5, 'F', 'u', 'z', 'z', 'y'};
    handler.process(answer, sizeof(answer));
}

void addField(PayloadHandler& handler, std::uint8_t index, std::uint8_t type, const char* name) {
    FieldInfo info;
    info.type = type;
    info.nameLength = static_cast<std::uint8_t>(std::strlen(name));
    std::memcpy(info.name, name, info.nameLength);
    handler.getDeviceHandler().addDeviceField(2, index, info);
}

// Brings the handler to a state in which it waits for one answer: pack 1 for
// the search, pack 2 for everything else.
void prepare(PayloadHandler& handler, std::uint8_t scenario) {
    MessageArgs args;
    args.device = 2;
    switch (scenario % 6) {
    case 1:
        handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
        handler.generateResponse(SEARCH_DEVICES_MSG);
        break;
    case 2:
        discover(handler, 3);
        handler.onMessage(FIELD_INFO_MSG, &args);
        handler.generateResponse(FIELD_INFO_MSG);
        break;
    case 3: {
        discover(handler, 2);
        addField(handler, 0, 8, "erase");
        addField(handler, 1, 3, "speed");
        const std::uint32_t command = 1;
        handler.getDeviceHandler().getDevice(2)->getField(0)->setData(true, &command);
        handler.onMessage(SET_FIELD_MSG, &args);
        handler.generateResponse(SET_FIELD_MSG);
        break;
    }
    case 4:
        discover(handler, 3);
        addField(handler, 0, 5, "a");
        addField(handler, 1, 8, "b");
        addField(handler, 2, 0, "c");
        handler.onMessage(GET_FIELD_MSG, &args);
        handler.generateResponse(GET_FIELD_MSG);
        break;
    case 5:
        discover(handler, 0);
        args.field = 1;
        args.path = gImagePath;
        handler.onMessage(FILE_START_MSG, &args);
        handler.generateResponse(FILE_WRITE_MSG);
        break;
    default:
        break;
    }
    handler.clearQueue(true);
}

} // namespace

// A frame is at most 258 bytes and the answers of a whole transfer of the
// test image are a few dozen bytes each: 512 bytes hold the longest frame
// with noise around it, or every answer of the transfer, so longer inputs
// only make the parser read more of the same.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    setDefaultMaxLen(argc, argv, 512);
    const char* dir = std::getenv("TMPDIR");
    gImagePath =
        std::string(dir != nullptr ? dir : "/tmp") + "/merid-fuzz-image-" + std::to_string(getpid()) + ".bin";
    std::ofstream image(gImagePath, std::ios::binary);
    for (int i = 0; i < 100; ++i) {
        image.put(static_cast<char>(i * 7));
    }
    std::atexit([] { std::remove(gImagePath.c_str()); });
    auto& events = GlobalHandlerEvents::getInstance();
    events.addHandler(SET_CURRENT_DEVICE_ADDR, [] { return GlobalHandlerEvents::Success; });
    events.addHandler(UPDATE_LOADING_STATUS, [] { return GlobalHandlerEvents::Success; });
    events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE,
                                         [](LoadStage) { return GlobalHandlerEvents::Success; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    PayloadHandler handler;
    prepare(handler, data[0]);
    const std::size_t block = data[1] == 0 ? size : data[1];
    unsigned long long frames = 0;
    for (std::size_t at = 2; at < size; at += block) {
        const std::size_t n = std::min(block, size - at);
        frames += handler.update(data + at, n);
        // Every answer may queue the next request; a device would answer it.
        handler.clearQueue(true);
    }
    // A frame is at least four bytes on the wire.
    if (frames > size / 4) {
        __builtin_trap();
    }
    return 0;
}
