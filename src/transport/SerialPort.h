#pragma once

#include "LoggerManager.h"
#include "UsbTypes.h"

#include <string>
#include <vector>

// The abstract serial port: list the machine's ports, open one by name,
// configure it at 8N1, read with a time-out, write, close. Failures are
// logged by the implementation under the tag "SerialPort: " and reported as
// a status.
class SerialPort {
public:
    SerialPort();
    virtual ~SerialPort();

    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    virtual std::vector<std::string> getAvailablePorts() = 0;
    virtual UsbTypes::Status openPort(std::string& name) = 0;
    virtual UsbTypes::Status closePort() = 0;
    virtual bool isOpen() const = 0;
    virtual bool serialPortConfig(UsbTypes::Baudrate speed) = 0;
    virtual void verifyPortSettings() = 0;
    virtual UsbTypes::IoResult writeDataImpl(unsigned char* data, unsigned long long size) = 0;
    // Returns what is there (possibly less than `size`) as soon as anything
    // is, or Timeout when nothing came within `timeoutMs`.
    virtual UsbTypes::IoResult readDataImpl(unsigned char* data, unsigned long long size, int timeoutMs) = 0;
    virtual void speedConfig(UsbTypes::Baudrate speed) = 0;

protected:
    LoggerManager* logger;
};
