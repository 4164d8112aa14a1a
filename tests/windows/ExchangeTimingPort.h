#pragma once

#include "SerialPort.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

// A port that passes every call to the real one and times the link's
// exchanges: from each write (a request) to the last read that brought bytes
// before the next write (its answer, read in full), with the number of reads
// that took the answer.
class ExchangeTimingPort : public SerialPort {
public:
    using Clock = std::chrono::steady_clock;

    struct Exchange {
        double startMs = 0;  // the write, from the first write on
        double answerMs = 0; // write to the answer's last byte read; 0 without an answer
        std::size_t reads = 0;
    };

    explicit ExchangeTimingPort(std::unique_ptr<SerialPort> inner);

    std::vector<std::string> getAvailablePorts() override { return port->getAvailablePorts(); }
    UsbTypes::Status openPort(std::string& name) override { return port->openPort(name); }
    UsbTypes::Status closePort() override { return port->closePort(); }
    bool isOpen() const override { return port->isOpen(); }
    bool serialPortConfig(UsbTypes::Baudrate speed) override { return port->serialPortConfig(speed); }
    void verifyPortSettings() override { port->verifyPortSettings(); }
    void speedConfig(UsbTypes::Baudrate speed) override { port->speedConfig(speed); }
    UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) override;
    UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) override;

    // The exchanges so far, the last one included.
    std::vector<Exchange> exchanges() const;
    // Reads that brought bytes per answered exchange; 0 without answers.
    double readsPerAnswer() const;
    // One line: how many exchanges were answered, the median, 90th percentile
    // and longest time in milliseconds, and the reads per answer.
    std::string summary() const;
    // One line per exchange: start, answer time, reads.
    void writeTrace(std::ostream& out) const;

private:
    double sinceFirstWriteMs(Clock::time_point when) const;

    std::unique_ptr<SerialPort> port;
    mutable std::mutex mutex;
    Clock::time_point firstWrite;
    Clock::time_point lastWrite;
    std::vector<Exchange> done;
    bool writing = false;
};
