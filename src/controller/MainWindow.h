#pragma once

#include "ConnectionDialog.h"
#include "DeviceListBox.h"
#include "EraseCmd.h"
#include "FastCrc8.h"
#include "FirmwareMethodBox.h"
#include "GlobalHandlerEvents.h"
#include "LoggerManager.h"
#include "MenuBar.h"
#include "OpenFileDialog.h"
#include "PayloadHandler.h"
#include "SelectFirmwareBox.h"
#include "SerialListener.h"
#include "SerialSender.h"
#include "UsbCommunication.h"

#include <gtkmm.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// The top-level window and the controller of the program. The builder makes
// it on the interface definition's "MainWindow" object; it owns the link,
// the protocol objects and the widgets, registers the handlers the widgets
// raise, and runs the flows.
class MainWindow : public Gtk::Window {
public:
    using Listener = PayloadProtocol::SerialListener<UsbCommunication&, PayloadHandler>;
    using Sender = PayloadProtocol::SerialSender<256, UsbCommunication&, PayloadHandler, FastCrc8>;
    using HandlerStatus = GlobalHandlerEvents::HandlerEventsStatus;

    // Loads the interface definition (the file in MERID_UI_GLADE when it
    // names something, else the embedded one, else a file found beside the
    // program or in the source tree), builds the window on it and gives it
    // its title and size. Each call builds a new window.
    static MainWindow* getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application);

    ~MainWindow() override;

    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    // Part of the window's interface, for callers outside the flows.
    void searchPayloadDevices();
    void getInfoFieldsRespond();
    void startPayloadListener();
    void startPayloadSender();
    void stopPayloadListener();
    void stopPayloadSender();
    void terminatePayloadListener();
    void terminatePayloadSender();
    // Sets a field of the current device to `value` and sends it.
    void setFieldValue(const void* value, unsigned long long index);
    // Asks the current device to enter its update mode.
    void setDeviceDfuMode();
    // Sets the current device's "reboot" field and restores the link after
    // the reboot.
    void rebootDevice();

private:
    // Only the builder constructs the window, through get_widget_derived.
    friend class Gtk::Builder;
    // The load benchmark times a load by the model and the link behind the window.
    friend class MainWindowTestAccess;
    MainWindow(BaseObjectType* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    void setUpLogging();
    void initPayloadProtocol();
    void initWidgets(Glib::RefPtr<Gtk::Builder>& builder, Glib::RefPtr<Gtk::Application>& application);
    void initGlobalHandlersEvents();
    void getPlainWidgets();
    void tearDown();
    void closeLink();
    void log(const std::string& message, BaseLogger::MessageType type);

    // Handlers of the keys the widgets and the protocol raise.
    HandlerStatus changeLanguageHandler();
    HandlerStatus quitAppHandler();
    HandlerStatus connectHandler();
    HandlerStatus disconnectHandler();
    void restartProtocol();
    HandlerStatus selectStm32Handler();
    HandlerStatus selectEsp32Handler();
    HandlerStatus searchFileHandler(HandlersFuncKeys& key);
    HandlerStatus uploadFirmwareHandler(LoadStage stage);
    HandlerStatus searchDevicesHandler();
    HandlerStatus getInfoFieldsHandler();
    HandlerStatus setCurrentDeviceAddrHandler();
    HandlerStatus updateLoadStatusHandler();

    // The STM32 load: the erase poll, the erase command and the transfer.
    bool probeStm32EraseReady();
    bool continueEraseWait(const std::function<void()>& request, const char* timeoutLine);
    void eraseMemorySector(EraseCmd cmd, const std::string& path);
    bool writeFirmware();
    void replaceFileRequest(std::uint8_t device, std::uint8_t field, const std::string& path);

    // The ESP32 flash on a worker of its own.
    bool flashEsp32Firmware();
    void runEspFlash(const std::string& path);
    void onEspFlashProgress(unsigned char percent);

    // The link's return after a reboot of the device.
    void scheduleSerialReconnectAfterReboot();
    void runSerialReconnect();
    bool reconnectSerialPort();
    // Sleeps for `pause`; false when the window quits meanwhile.
    bool pauseUnlessQuitting(std::chrono::milliseconds pause);

    // The load's progress display.
    void resetLoadStatus();
    void onPayloadProgressUiUpdate();
    void updateLoadStatusUi();
    void onEspFlashUiUpdate();
    void endEspFlash();
    void showProgress(unsigned value, bool done);

    UsbCommunication usb;
    Glib::RefPtr<Gtk::Application> application;
    Glib::RefPtr<Gtk::Builder> builder;
    LoggerManager* logger = nullptr;
    // The latest request handed to the protocol. Written on the window's
    // thread (erase) and the listener's (write), always under the device
    // model's lock, which the protocol holds while it uses the request.
    std::unique_ptr<MessageArgs> fileRequest;
    // The device all requests go to; the listener's discovery chain sets it.
    std::atomic<std::uint64_t> currentDeviceAddress{0};
    // 0 is the STM32, 1 the ESP32.
    std::atomic<std::int32_t> firmwareTarget{0};
    std::uint8_t waitingForErase = 0;
    EraseCmd pendingEraseCmd = EraseFile0;
    std::int32_t eraseWaitTicks = 0;
    sigc::connection eraseTimer;
    std::unique_ptr<PayloadHandler> payloadHandler;
    std::unique_ptr<Listener> serialListener;
    std::unique_ptr<Sender> serialSender;
    DeviceHandler* deviceHandler = nullptr;
    std::unique_ptr<MeridKestalWidgets::OpenFileDialog> openFileDialog;
    std::unique_ptr<MeridKestalWidgets::ConnectionDialog> connectionDialog;
    std::unique_ptr<MeridKestalWidgets::MenuBar> menuBar;
    std::unique_ptr<MeridKestalWidgets::FirmwareMethodBox> firmwareMethodBox;
    std::unique_ptr<MeridKestalWidgets::SelectFirmwareBox> selectFirmwareBox;
    std::unique_ptr<MeridKestalWidgets::DeviceListBox> deviceListBox;
    std::unique_ptr<Gtk::LevelBar> loadStatusBar;
    Gtk::Label* loadStatusLabel = nullptr;
    Gtk::Statusbar* appStatusbar = nullptr;
    std::uint32_t statusContextId = 0;
    Glib::Dispatcher espFlashDispatcher;
    Glib::Dispatcher payloadProgressDispatcher;
    // At most one progress wake-up in flight.
    std::atomic<std::uint8_t> payloadProgressPending{0};
    std::thread::id uiThreadId;
    std::thread espFlashThread;
    std::atomic<bool> espFlashRunning{false};
    std::atomic<std::uint8_t> espFlashProgress{0};
    std::atomic<bool> espFlashDone{false};
    std::mutex espFlashMutex;
    std::string espFlashError;
    std::thread reconnectThread;
    std::atomic<bool> reconnectScheduled{false};
    // Set once by the teardown; the reconnect worker's pauses end on it.
    std::mutex quitMutex;
    std::condition_variable quitCondition;
    bool quitting = false;
};
