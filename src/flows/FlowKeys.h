#pragma once

#include "DeviceSearch.h"
#include "Stm32LoadFlow.h"

// The protocol's keys bound to the flows, for a program without a window
// (the window binds them to its own handlers, which also log): a device
// found is asked for its fields, the confirmed erase starts the transfer,
// progress is read by whoever waits. Clears every handler at its end.
class FlowKeys {
public:
    FlowKeys(DeviceSearch& search, Stm32LoadFlow& load);
    ~FlowKeys();
    FlowKeys(const FlowKeys&) = delete;
    FlowKeys& operator=(const FlowKeys&) = delete;
};
