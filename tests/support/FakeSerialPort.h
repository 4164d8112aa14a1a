#pragma once

#include "SerialPort.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <vector>

// A port whose answers a test chooses and whose calls it can check afterwards.
class FakeSerialPort : public SerialPort {
public:
    std::vector<std::string> getAvailablePorts() override { return ports; }

    UsbTypes::Status openPort(std::string& name) override {
        ++openCalls;
        openedName = name;
        open = openResult == UsbTypes::Ok;
        return openResult;
    }

    UsbTypes::Status closePort() override {
        ++closeCalls;
        open = false; // the handle is given up even when closing fails
        return closeResult;
    }

    bool isOpen() const override { return open; }

    bool serialPortConfig(UsbTypes::Baudrate speed) override {
        configuredSpeed = speed;
        return configResult;
    }

    void verifyPortSettings() override {}

    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override {
        written.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
        if (duringWrite) {
            duringWrite();
        }
        UsbTypes::IoResult result;
        result.status = writeStatus;
        result.bytes = writeShortBy < size ? size - writeShortBy : 0;
        return result;
    }

    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override {
        lastReadTimeout = timeoutMs;
        UsbTypes::IoResult result;
        if (!open || incoming.empty()) {
            result.status = open ? UsbTypes::Timeout : UsbTypes::ReceiveError;
            return result;
        }
        std::string& next = incoming.front();
        const std::size_t count = std::min<std::size_t>(next.size(), static_cast<std::size_t>(size));
        next.copy(reinterpret_cast<char*>(data), count);
        next.erase(0, count);
        if (next.empty()) {
            incoming.pop_front();
        }
        result.bytes = count;
        return result;
    }

    void speedConfig(UsbTypes::Baudrate speed) override { configuredSpeed = speed; }

    std::vector<std::string> ports;
    UsbTypes::Status openResult = UsbTypes::Ok;
    UsbTypes::Status closeResult = UsbTypes::Ok;
    bool configResult = true;
    UsbTypes::Status writeStatus = UsbTypes::Ok;
    unsigned long long writeShortBy = 0;
    std::deque<std::string> incoming;
    // Runs inside the write, as another thread would at that moment.
    std::function<void()> duringWrite;

    bool open = false;
    int openCalls = 0;
    int closeCalls = 0;
    std::string openedName;
    UsbTypes::Baudrate configuredSpeed = UsbTypes::Baudrate(0);
    std::string written;
    int lastReadTimeout = -1;
};
