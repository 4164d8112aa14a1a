#pragma once

#include "FastCrc8.h"
#include "PayloadHandler.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "UsbCommunication.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// The program's side of the serial link as the window puts it together: one
// UsbCommunication on the named port with the platform's serial port, the
// PayloadHandler, and the listener and sender threads over them. The steps
// below are those of the window's flows, without the window.
class LinkSession {
public:
    using Sender = PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8>;
    using Listener = PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler>;

    // The erase command word that selects file 0, the one the window sends.
    static constexpr std::uint32_t kEraseCommand = 0x6A1D42C7;

    explicit LinkSession(std::string port);
    ~LinkSession();
    LinkSession(const LinkSession&) = delete;
    LinkSession& operator=(const LinkSession&) = delete;

    UsbCommunication& link() { return usb; }
    PayloadHandler& protocol() { return *handler; }

    // Opens the port at the window's default speed.
    UsbTypes::Status connect();

    // A search as the upload button starts it: both threads, a broadcast
    // search, and each device found asked for its fields. True once a device
    // has answered and described all the fields it announced.
    bool discover(std::chrono::milliseconds timeout);

    // The device found by the last search, 0 before.
    std::uint8_t deviceAddress() const { return address.load(); }

    // Names of the device's fields by index; empty when it is unknown.
    std::vector<std::string> fieldNames();
    std::string deviceName();

    // The STM32 load after the search: the erase command into the "erase"
    // field, and on the device's confirmation the file moved in chunks from
    // `path`. True once the transfer has reported 100 percent.
    bool loadStm32(const std::string& path, std::chrono::milliseconds timeout);

    // How often the transfer reported progress.
    int progressReports() const { return progressCount.load(); }

private:
    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    std::size_t announcedFields();
    std::size_t knownFields();
    bool sendEraseCommand();
    void startTransfer();

    std::string portName;
    std::string firmwarePath;
    UsbCommunication usb;
    std::unique_ptr<PayloadHandler> handler;
    std::unique_ptr<Listener> listener;
    std::unique_ptr<Sender> sender;
    bool threadsStarted = false;
    std::atomic<std::uint8_t> address{0};
    std::atomic<int> progressCount{0};
    std::atomic<bool> transferStarted{false};
};
