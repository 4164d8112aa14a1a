#pragma once

#include "SerialPort.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

// A serial port behind UsbCommunication whose reads a test scripts: each
// entry of `incoming` is what one read returns, an empty one being a read
// that times out.
class ScriptedSerialPort : public SerialPort {
public:
    std::vector<std::string> getAvailablePorts() override { return {}; }

    UsbTypes::Status openPort(std::string&) override {
        ++openCalls;
        open = openResult == UsbTypes::Ok;
        events.push_back(open ? "open" : "open failed");
        return openResult;
    }

    UsbTypes::Status closePort() override {
        open = false;
        events.push_back("close");
        return UsbTypes::Ok;
    }

    bool isOpen() const override { return open; }
    bool serialPortConfig(UsbTypes::Baudrate) override { return true; }
    void verifyPortSettings() override {}
    void speedConfig(UsbTypes::Baudrate) override {}

    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override {
        written.emplace_back(data, data + size);
        events.push_back("write");
        return {UsbTypes::Ok, size};
    }

    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override {
        ++readCalls;
        readTimeouts.push_back(timeoutMs);
        if (incoming.empty() || incoming.front().empty()) {
            if (!incoming.empty()) {
                incoming.pop_front();
            }
            return {readFailure, 0};
        }
        std::vector<unsigned char>& next = incoming.front();
        const size_t n = std::min<size_t>(next.size(), static_cast<size_t>(size));
        std::copy_n(next.begin(), n, data);
        next.erase(next.begin(), next.begin() + static_cast<std::ptrdiff_t>(n));
        if (next.empty()) {
            incoming.pop_front();
        }
        return {UsbTypes::Ok, n};
    }

    UsbTypes::Status openResult = UsbTypes::Ok;
    // What a read returns when nothing is scripted.
    UsbTypes::Status readFailure = UsbTypes::Timeout;
    std::deque<std::vector<unsigned char>> incoming;

    bool open = false;
    int openCalls = 0;
    int readCalls = 0;
    std::vector<int> readTimeouts;
    std::vector<std::vector<unsigned char>> written;
    std::vector<std::string> events;
};
