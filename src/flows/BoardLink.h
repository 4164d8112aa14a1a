#pragma once

#include "FastCrc8.h"
#include "PayloadHandler.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "UsbCommunication.h"

#include <atomic>
#include <cstdint>
#include <memory>

// The program's side of one serial link: the port, the payload handler and
// the listener and sender threads over them. The threads start with the
// first search or load and run until the link closes; a close shuts the port
// first, so that no thread waits out a time-out.
class BoardLink {
public:
    using Listener = PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler>;
    using Sender = PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8>;

    // Registers the listener's time-out key; opens nothing.
    BoardLink();
    // The same over a port of the caller's, for example one that watches the link.
    explicit BoardLink(std::unique_ptr<SerialPort> serial);
    ~BoardLink();
    BoardLink(const BoardLink&) = delete;
    BoardLink& operator=(const BoardLink&) = delete;

    UsbCommunication& usb() { return port; }
    PayloadHandler& protocol() { return handler; }
    DeviceHandler& devices() { return handler.getDeviceHandler(); }
    Listener& listener() { return listenerThread; }
    Sender& sender() { return senderThread; }

    // The device every request goes to: the one found last.
    std::uint8_t currentDevice() const { return static_cast<std::uint8_t>(current.load() & 0xFF); }
    // Takes the device the model added last as the current one.
    void takeCurrentDevice();

    // Starts both threads, or resumes them; running ones go on.
    void startThreads();
    // A new link under the same objects: the answers awaited on the old one
    // will never come, so the protocol starts afresh, and threads that were
    // started run again over the new link.
    void restartProtocol();
    // The device leaves the link for a while (a reboot): the threads end,
    // the protocol starts afresh, the port closes.
    void suspend();
    // The port first, then the threads.
    void close();

private:
    UsbCommunication port;
    PayloadHandler handler;
    Listener listenerThread{port, handler, PayloadHandler::getDefaultTimeout()};
    Sender senderThread{port, handler};
    std::atomic<std::uint64_t> current{0};
    std::atomic<bool> threadsWanted{false};
};
