#pragma once

#include "BoardLink.h"
#include "ConnectionDialog.h"
#include "DeviceListBox.h"
#include "DeviceSearch.h"
#include "Esp32Flash.h"
#include "FirmwareMethodBox.h"
#include "GlobalHandlerEvents.h"
#include "LoggerManager.h"
#include "MenuBar.h"
#include "OpenFileDialog.h"
#include "RebootReconnect.h"
#include "SelectFirmwareBox.h"
#include "Stm32LoadFlow.h"

#include <gtkmm.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

// The top-level window: the widgets and the board flows behind them. The
// builder makes it on the interface definition's "MainWindow" object; it
// owns the link and the flows, registers the handlers the widgets and the
// protocol raise, and turns what the flows report into the bar, the texts
// and the log.
class MainWindow : public Gtk::Window {
public:
    using HandlerStatus = GlobalHandlerEvents::HandlerEventsStatus;

    // Loads the interface definition (InterfaceLoader), builds the window on
    // it and gives it its title and size. Each call builds a new window.
    static MainWindow* getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application);

    ~MainWindow() override;

    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    // Part of the window's interface, for callers outside the flows.
    void searchPayloadDevices() { link->sender().search(); }
    void getInfoFieldsRespond() { link->sender().getInfoFields(link->currentDevice(), 0); }
    void startPayloadListener() { link->listener().start(false); }
    void startPayloadSender() { link->sender().start(false); }
    void stopPayloadListener() { link->listener().stop(); }
    void stopPayloadSender() { link->sender().stop(); }
    void terminatePayloadListener() { link->listener().terminate(); }
    void terminatePayloadSender() { link->sender().terminate(); }
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

    // What the STM32 load reports.
    Stm32LoadFlow::Events stm32Events();
    void onEraseWaitEnded(Stm32LoadFlow::WaitEnd end);
    void onEraseFault(Stm32LoadFlow::EraseFault fault);
    std::string firmwarePath();

    bool flashEsp32Firmware();

    // The load's progress display.
    void resetLoadStatus();
    void onPayloadProgressUiUpdate();
    void updateLoadStatusUi();
    void onEspFlashUiUpdate();
    void endEspFlash(const std::string& error);
    void showProgress(unsigned value, bool done);

    Glib::RefPtr<Gtk::Application> application;
    Glib::RefPtr<Gtk::Builder> builder;
    LoggerManager* logger = nullptr;
    // 0 is the STM32, 1 the ESP32.
    std::atomic<std::int32_t> firmwareTarget{0};
    // The 200 ms clock of the STM32 load's wait for its erase.
    sigc::connection eraseTimer;
    std::unique_ptr<BoardLink> link;
    std::unique_ptr<DeviceSearch> deviceSearch;
    std::unique_ptr<Stm32LoadFlow> stm32Load;
    std::unique_ptr<Esp32Flash> espFlash;
    std::unique_ptr<RebootReconnect> rebootReconnect;
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
};
