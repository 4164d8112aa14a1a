#pragma once

#include "SerialPort.h"

#include <algorithm>
#include <deque>
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
    void speedConfig(UsbTypes::Baudrate speed) override { configuredSpeed = speed; }

    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override {
        written.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
        return {writeStatus, size};
    }

    // Hands out `incoming` one entry at a time, an entry longer than the read
    // over several reads.
    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int) override {
        if (!open || incoming.empty()) {
            return {open ? UsbTypes::Timeout : UsbTypes::ReceiveError, 0};
        }
        std::string& next = incoming.front();
        const std::size_t count = std::min<std::size_t>(next.size(), static_cast<std::size_t>(size));
        next.copy(reinterpret_cast<char*>(data), count);
        next.erase(0, count);
        if (next.empty()) {
            incoming.pop_front();
        }
        return {UsbTypes::Ok, count};
    }

    std::vector<std::string> ports;
    UsbTypes::Status openResult = UsbTypes::Ok;
    UsbTypes::Status closeResult = UsbTypes::Ok;
    bool configResult = true;
    UsbTypes::Status writeStatus = UsbTypes::Ok;
    std::deque<std::string> incoming;

    bool open = false;
    int openCalls = 0;
    int closeCalls = 0;
    std::string openedName;
    UsbTypes::Baudrate configuredSpeed = UsbTypes::Baudrate(0);
    std::string written;
};
