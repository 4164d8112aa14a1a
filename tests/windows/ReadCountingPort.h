#pragma once

#include "SerialPort.h"

#include <memory>
#include <mutex>

// A port that passes every call to the real one and counts the reads that
// brought bytes between one write (a request) and the next (its answer).
class ReadCountingPort : public SerialPort {
public:
    explicit ReadCountingPort(std::unique_ptr<SerialPort> inner) : port(std::move(inner)) {}

    std::vector<std::string> getAvailablePorts() override { return port->getAvailablePorts(); }
    UsbTypes::Status openPort(std::string& name) override { return port->openPort(name); }
    UsbTypes::Status closePort() override { return port->closePort(); }
    bool isOpen() const override { return port->isOpen(); }
    bool serialPortConfig(UsbTypes::Baudrate speed) override { return port->serialPortConfig(speed); }
    void verifyPortSettings() override { port->verifyPortSettings(); }
    void speedConfig(UsbTypes::Baudrate speed) override { port->speedConfig(speed); }

    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override {
        const UsbTypes::IoResult result = port->writeDataImpl(data, size);
        std::lock_guard<std::mutex> lock(mutex);
        if (result.status == UsbTypes::Ok && result.bytes > 0) {
            answering = true;
            readsOfAnswer = 0;
        }
        return result;
    }
    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override {
        const UsbTypes::IoResult result = port->readDataImpl(data, size, timeoutMs);
        std::lock_guard<std::mutex> lock(mutex);
        if (result.status == UsbTypes::Ok && result.bytes > 0 && answering) {
            answers += readsOfAnswer++ == 0 ? 1 : 0;
            ++reads;
        }
        return result;
    }

    // Reads that brought bytes per answered request; 0 without answers.
    double readsPerAnswer() const {
        std::lock_guard<std::mutex> lock(mutex);
        return answers == 0 ? 0 : static_cast<double>(reads) / static_cast<double>(answers);
    }

private:
    std::unique_ptr<SerialPort> port;
    mutable std::mutex mutex;
    bool answering = false;
    unsigned readsOfAnswer = 0;
    unsigned answers = 0;
    unsigned reads = 0;
};
