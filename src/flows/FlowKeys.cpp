#include "FlowKeys.h"

#include "GlobalHandlerEvents.h"

FlowKeys::FlowKeys(DeviceSearch& search, Stm32LoadFlow& load) {
    auto& events = GlobalHandlerEvents::getInstance();
    events.addHandler(SET_CURRENT_DEVICE_ADDR, [&search] {
        search.describeCurrent();
        return GlobalHandlerEvents::Success;
    });
    events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&load](LoadStage stage) {
        if (stage == Write) {
            load.onEraseConfirmed();
        }
        return GlobalHandlerEvents::Success;
    });
    events.addHandler(UPDATE_LOADING_STATUS, [] { return GlobalHandlerEvents::Success; });
}

FlowKeys::~FlowKeys() {
    GlobalHandlerEvents::getInstance().clearAllHandlers();
}
