#include "MainWindow.h"

#include "InterfaceLoader.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kDefaultWidth = 500;
constexpr int kDefaultHeight = 550;
constexpr const char* kTag = "MainWindow: ";
constexpr const char* kSenderTag = "SerialSender: ";
constexpr const char* kFlashedText = "Устройство прошито успешно";

} // namespace

MainWindow* MainWindow::getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application) {
    Glib::RefPtr<Gtk::Builder> builder = InterfaceLoader::load();

    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: resolving derived widget MainWindow...");
    MainWindow* window = nullptr;
    builder->get_widget_derived("MainWindow", window);
    if (window == nullptr) {
        // The toolkit has said why; without a window there is nothing to run.
        throw std::runtime_error("MainWindow: the interface definition has no usable object \"MainWindow\"");
    }

    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: widget resolved, initializing...");
    window->initWidgets(builder, application);
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: initWidgets done.");

    window->set_title(title);
    window->set_default_size(kDefaultWidth, kDefaultHeight);
    return window;
}

MainWindow::MainWindow(BaseObjectType* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Gtk::Window(cobject), builder(builder), logger(&LoggerManager::getInstance()),
      uiThreadId(std::this_thread::get_id()) {
    setUpLogging();
    espFlashDispatcher.connect(sigc::mem_fun(*this, &MainWindow::onEspFlashUiUpdate));
    payloadProgressDispatcher.connect(sigc::mem_fun(*this, &MainWindow::onPayloadProgressUiUpdate));
    initPayloadProtocol();
}

MainWindow::~MainWindow() {
    tearDown();
    firmwareMethodBox.reset();
    menuBar.reset();
    selectFirmwareBox.reset();
    connectionDialog.reset();
    openFileDialog.reset();
    deviceListBox.reset();
    loadStatusBar.reset();
}

void MainWindow::log(const std::string& message, BaseLogger::MessageType type) {
    logger->log(message, type, kTag);
}

// The file sink is served first; MERID_LOG_LEVEL may lower the level or
// silence both.
void MainWindow::setUpLogging() {
    logger->addLogger(LoggerManager::FILE);
    logger->addLogger(LoggerManager::CONSOLE);
    logger->setGlobalLevel(LoggerManager::FULL);
    logger->applyLevelFromEnvironment();
}

// The link and the flows over it. Neither protocol thread starts before the
// first search or load.
void MainWindow::initPayloadProtocol() {
    log("Init Payload protocol", BaseLogger::DEBUG);
    link = std::make_unique<BoardLink>();
    deviceSearch = std::make_unique<DeviceSearch>(*link);
    stm32Load = std::make_unique<Stm32LoadFlow>(*link, stm32Events());
    espFlash = std::make_unique<Esp32Flash>(link->usb(), [this] { espFlashDispatcher.emit(); });
    rebootReconnect = std::make_unique<RebootReconnect>(*link);
}

void MainWindow::initWidgets(Glib::RefPtr<Gtk::Builder>& builder,
                             Glib::RefPtr<Gtk::Application>& application) {
    log("Init Widgets", BaseLogger::INFO);
    this->builder = builder;
    this->application = application;
    // The widgets raise keys from their constructors on: the handlers come
    // first.
    initGlobalHandlersEvents();

    MeridKestalWidgets::FirmwareMethodBox* methodBox = nullptr;
    builder->get_widget_derived("FirmwareMethodBox", methodBox);
    firmwareMethodBox.reset(methodBox);
    MeridKestalWidgets::MenuBar* menu = nullptr;
    builder->get_widget_derived("MenuBar", menu);
    menuBar.reset(menu);
    MeridKestalWidgets::SelectFirmwareBox* firmwareBox = nullptr;
    builder->get_widget_derived("SelectFirmwareBox", firmwareBox);
    selectFirmwareBox.reset(firmwareBox);
    MeridKestalWidgets::ConnectionDialog* connection = nullptr;
    builder->get_widget_derived("ConnectionDialog", connection);
    connectionDialog.reset(connection);
    MeridKestalWidgets::OpenFileDialog* fileDialog = nullptr;
    builder->get_widget_derived("OpenFileDialog", fileDialog);
    openFileDialog.reset(fileDialog);
    MeridKestalWidgets::DeviceListBox* deviceList = nullptr;
    builder->get_widget_derived("ListDeviceFrame", deviceList);
    deviceListBox.reset(deviceList);

    getPlainWidgets();
    if (appStatusbar != nullptr) {
        statusContextId = appStatusbar->get_context_id("flash");
    }
    // The STM32 is the target at start.
    GlobalHandlerEvents::getInstance()._executeHandler(SELECT_STM32);
    if (deviceListBox) {
        deviceListBox->deviceHandler = &link->devices();
    }
    if (connectionDialog) {
        connectionDialog->signalConnected().connect(sigc::mem_fun(*this, &MainWindow::restartProtocol));
    }
    if (application) {
        // The program leaves the window to the toolkit at its end; the
        // workers must not outlive the event loop.
        application->signal_shutdown().connect(sigc::mem_fun(*this, &MainWindow::tearDown));
    }
    if (!openFileDialog) {
        return;
    }
    openFileDialog->setOwner(this);
    std::vector<std::string> filters{"Binar", "*.bin", "Hex", "*.hex", "All", "*.*"};
    openFileDialog->init(filters);
}

void MainWindow::getPlainWidgets() {
    Gtk::LevelBar* bar = nullptr;
    builder->get_widget("LoadStatusBar", bar);
    loadStatusBar.reset(bar);
    builder->get_widget("LoadStatusOverlayLabel", loadStatusLabel);
    builder->get_widget("AppStatusbar", appStatusbar);
}

// The one end of the window's work, from the toolkit's shutdown or the
// destructor, whichever comes first. The link closes first, so that every
// worker's read or write fails at once and nothing waits out a time-out;
// then the workers are joined, before the objects they use go.
// The one end of the window's work, from the toolkit's shutdown or the
// destructor, whichever comes first. The link closes first, so that every
// worker's read or write fails at once and nothing waits out a time-out;
// then the workers are joined, before the objects they use go.
void MainWindow::tearDown() {
    eraseTimer.disconnect();
    rebootReconnect->quit();
    espFlash->stop([this] { closeLink(); });
    rebootReconnect->join();
    // The flash worker may have opened the port again just before it saw
    // the cancel.
    closeLink();
    if (deviceListBox) {
        deviceListBox->terminate();
    }
    link->close();
}

void MainWindow::closeLink() {
    if (link->usb().isConnected()) {
        link->usb().disconnect();
    }
}

void MainWindow::initGlobalHandlersEvents() {
    auto& events = GlobalHandlerEvents::getInstance();
    events.addHandler(SWITCH_LANG, [this] { return changeLanguageHandler(); });
    events.addHandler(QUIT_APP, [this] { return quitAppHandler(); });
    events.addHandler(CONNECT_DIALOG_OPEN, [this] { return connectHandler(); });
    events.addHandler(DISCONNECT, [this] { return disconnectHandler(); });
    events.addHandler(SELECT_STM32, [this] { return selectStm32Handler(); });
    events.addHandler(SELECT_ESP32, [this] { return selectEsp32Handler(); });
    events.addHandler(SEARCH_FILE_STM32, [this] {
        HandlersFuncKeys key = SEARCH_FILE_STM32;
        return searchFileHandler(key);
    });
    events.addHandler(SEARCH_FILE_ESP32, [this] {
        HandlersFuncKeys key = SEARCH_FILE_ESP32;
        return searchFileHandler(key);
    });
    events.addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE,
                                         [this](LoadStage stage) { return uploadFirmwareHandler(stage); });
    events.addHandler(SEARCH_DEVICES, [this] { return searchDevicesHandler(); });
    events.addHandler(GET_INFO_FIELDS_RESPOND, [this] { return getInfoFieldsHandler(); });
    events.addHandler(SET_CURRENT_DEVICE_ADDR, [this] { return setCurrentDeviceAddrHandler(); });
    events.addHandler(UPDATE_LOADING_STATUS, [this] { return updateLoadStatusHandler(); });
}

// --- Handlers of the user's actions -------------------------------------

MainWindow::HandlerStatus MainWindow::changeLanguageHandler() {
    log("ChangeLanguage", BaseLogger::DEBUG);
    if (firmwareMethodBox) {
        firmwareMethodBox->redefinitionLabeles();
    }
    if (menuBar) {
        menuBar->redefinitionLabeles();
    }
    if (selectFirmwareBox) {
        selectFirmwareBox->redefinitionLabeles();
    }
    if (connectionDialog) {
        connectionDialog->redefinitionLabeles();
    }
    if (openFileDialog) {
        openFileDialog->redefinitionLabeles();
    }
    if (deviceListBox) {
        deviceListBox->redefinitionLabeles();
    }
    return GlobalHandlerEvents::Success;
}

MainWindow::HandlerStatus MainWindow::quitAppHandler() {
    log("QuitApp", BaseLogger::DEBUG);
    if (application) {
        application->quit();
    }
    return GlobalHandlerEvents::Success;
}

MainWindow::HandlerStatus MainWindow::connectHandler() {
    log("Connect USB Device", BaseLogger::INFO);
    if (!connectionDialog) {
        log("Could not open Connection window", BaseLogger::WARNING);
        return GlobalHandlerEvents::Failure;
    }
    // The port list is read anew at each opening; the dialog gives the
    // window its sensitivity back however it is closed.
    connectionDialog->setUsbConnetctionPtr(link->usb());
    connectionDialog->setOwner(this);
    connectionDialog->show();
    set_sensitive(false);
    return GlobalHandlerEvents::Success;
}

// A link opened through the dialog: the answers the protocol waited for on
// the old one will never come, so the next load starts with the search and
// the erase, not with the step that was cut off. A wait for the erase goes
// on over the new link.
void MainWindow::restartProtocol() {
    log("New link: the protocol starts afresh", BaseLogger::INFO);
    link->restartProtocol();
}

MainWindow::HandlerStatus MainWindow::disconnectHandler() {
    log("Disconnect USB Device", BaseLogger::INFO);
    if (!connectionDialog) {
        return GlobalHandlerEvents::Failure;
    }
    return connectionDialog->disconnect() == 0 ? GlobalHandlerEvents::Success : GlobalHandlerEvents::Failure;
}

MainWindow::HandlerStatus MainWindow::selectStm32Handler() {
    firmwareTarget = 0;
    log("Off sensitive for search/download ESP32 and On for STM32", BaseLogger::DEBUG);
    if (!selectFirmwareBox) {
        return GlobalHandlerEvents::Failure;
    }
    selectFirmwareBox->esp32Inactive();
    selectFirmwareBox->stm32Active();
    return GlobalHandlerEvents::Success;
}

MainWindow::HandlerStatus MainWindow::selectEsp32Handler() {
    firmwareTarget = 1;
    log("Off sensitive for search/download STM32 and On for ESP32", BaseLogger::DEBUG);
    if (!selectFirmwareBox) {
        return GlobalHandlerEvents::Failure;
    }
    selectFirmwareBox->stm32Inactive();
    selectFirmwareBox->esp32Active();
    return GlobalHandlerEvents::Success;
}

MainWindow::HandlerStatus MainWindow::searchFileHandler(HandlersFuncKeys& key) {
    log("Start searching file", BaseLogger::INFO);
    if (!openFileDialog) {
        log("openFileDialog doesn't exist!!!", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    // Blocks the raising widget's callback until the dialog answers.
    if (openFileDialog->run() == Gtk::RESPONSE_OK) {
        log("Open File Dialog is open!", BaseLogger::DEBUG);
    }
    // Read whatever the answer: a cancelled dialog with a selection carries
    // on as if accepted.
    std::string fileName = openFileDialog->get_filename();
    if (fileName.empty()) {
        log("File not found or path is not set!", BaseLogger::WARNING);
        log("Close file dialog window!", BaseLogger::INFO);
        openFileDialog->hide();
        return GlobalHandlerEvents::Failure;
    }
    if (!selectFirmwareBox) {
        log("selectFirmwareBox doesn't exist!!!", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    log("File path was set", BaseLogger::DEBUG);
    selectFirmwareBox->setFilePath(fileName, key);
    log("Close file dialog window!", BaseLogger::INFO);
    openFileDialog->hide();
    return GlobalHandlerEvents::Success;
}

// --- Discovery ------------------------------------------------------------

MainWindow::HandlerStatus MainWindow::searchDevicesHandler() {
    if (!link->usb().isConnected()) {
        log("Search devices requested, but there is no active COM/USB connection. Open the Connection dialog "
            "and connect first.",
            BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    log("Searching devices...", BaseLogger::INFO);
    deviceSearch->start();
    return GlobalHandlerEvents::Success;
}

// On the listener's thread, from the device model's addDevice: the device
// found last becomes the current one and is asked for its fields.
MainWindow::HandlerStatus MainWindow::setCurrentDeviceAddrHandler() {
    {
        std::lock_guard<std::recursive_mutex> lock(link->devices().getMutex());
        if (link->devices().getDeviceList().empty()) {
            return GlobalHandlerEvents::Failure;
        }
    }
    link->takeCurrentDevice();
    log("Current device address was set", BaseLogger::DEBUG);
    GlobalHandlerEvents::getInstance()._executeHandler(GET_INFO_FIELDS_RESPOND);
    return GlobalHandlerEvents::Success;
}

// On the listener's thread, right after a device was added.
MainWindow::HandlerStatus MainWindow::getInfoFieldsHandler() {
    log("Trying get device field info", BaseLogger::INFO);
    if (!link->usb().isConnected()) {
        return GlobalHandlerEvents::Failure;
    }
    if (link->devices().getDevice(link->currentDevice()) == nullptr) {
        log("Device list didn't contain choosed device", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    link->sender().getInfoFields(link->currentDevice(), 0);
    return GlobalHandlerEvents::Success;
}

// --- Loads ----------------------------------------------------------------

MainWindow::HandlerStatus MainWindow::uploadFirmwareHandler(LoadStage stage) {
    if (!link->usb().isConnected()) {
        return GlobalHandlerEvents::Failure;
    }
    if (stage == Erase) {
        resetLoadStatus();
        if (firmwareTarget == 1) {
            return flashEsp32Firmware() ? GlobalHandlerEvents::Success : GlobalHandlerEvents::Failure;
        }
        log("Start upload", BaseLogger::INFO);
        log("Erase firmware", BaseLogger::INFO);
        stm32Load->start();
        // A press during the wait only begins its budget again: the running
        // clock goes on.
        if (!eraseTimer.connected()) {
            eraseTimer = Glib::signal_timeout().connect([this] { return stm32Load->tick(); },
                                                        static_cast<unsigned>(Stm32LoadFlow::kTick.count()));
        }
        return GlobalHandlerEvents::Success;
    }
    // On the listener's thread: the device has confirmed the erase.
    if (stage == Write && firmwareTarget != 1) {
        log("Load firmware", BaseLogger::INFO);
        stm32Load->onEraseConfirmed();
    }
    return GlobalHandlerEvents::Success;
}

Stm32LoadFlow::Events MainWindow::stm32Events() {
    Stm32LoadFlow::Events events;
    events.waitEnded = [this](Stm32LoadFlow::WaitEnd end) { onEraseWaitEnded(end); };
    events.eraseFailed = [this](Stm32LoadFlow::EraseFault fault) { onEraseFault(fault); };
    events.imagePath = [this] { return firmwarePath(); };
    return events;
}

// The lines in the order of the enumerators.
void MainWindow::onEraseWaitEnded(Stm32LoadFlow::WaitEnd end) {
    static const char* const kLines[] = {"USB connection lost while waiting to start STM32 erase",
                                         "Timeout waiting for device discovery before STM32 erase",
                                         "Timeout waiting for device field info before STM32 erase"};
    log(kLines[static_cast<int>(end)], BaseLogger::ERROR);
}

void MainWindow::onEraseFault(Stm32LoadFlow::EraseFault fault) {
    static const char* const kLines[] = {"device didn't exist for erase request", "erase field didn't exist",
                                         "erase field info didn't exist"};
    log(kLines[static_cast<int>(fault)], BaseLogger::ERROR);
}

// On the listener's thread, inside the receive path: the chosen file, read
// at this moment. A preinstalled image is put on disk when that is the source.
std::string MainWindow::firmwarePath() {
    if (!selectFirmwareBox) {
        log("selectFirmwareBox don't exist!!!", BaseLogger::ERROR);
        return {};
    }
    const std::string path = selectFirmwareBox->getFilePath();
    if (path.empty()) {
        log("File path is empty or did't exist", BaseLogger::WARNING);
    }
    return path;
}

void MainWindow::setFieldValue(const void* value, unsigned long long index) {
    if (value == nullptr) {
        log("device didn't exist for set field value", BaseLogger::ERROR);
        return;
    }
    const std::uint8_t address = link->currentDevice();
    std::lock_guard<std::recursive_mutex> lock(link->devices().getMutex());
    App::Device* device = link->devices().getDevice(address);
    if (device == nullptr) {
        log("device didn't exist for set field value", BaseLogger::ERROR);
        return;
    }
    Field* field = device->getField(static_cast<unsigned char>(index & 0xFF));
    if (field == nullptr) {
        log("field didn't exist for set field value", BaseLogger::ERROR);
        return;
    }
    field->setData(true, value);
    link->sender().setFieldValue(address, static_cast<unsigned char>(index));
}

void MainWindow::setDeviceDfuMode() {
    logger->log("set device to DFU mode", BaseLogger::INFO, kSenderTag);
    std::uint8_t device = link->currentDevice();
    link->protocol().onMessage(DFU_MSG, &device);
    link->protocol().generateResponse(DFU_MSG);
}

// --- The ESP32 flash --------------------------------------------------------

// The flash has the link to itself until the window comes back.
bool MainWindow::flashEsp32Firmware() {
    if (!selectFirmwareBox) {
        log("selectFirmwareBox don't exist!!!", BaseLogger::ERROR);
        return false;
    }
    if (!loadStatusBar) {
        log("loadStatusBar doesn't exist!!!", BaseLogger::ERROR);
        return false;
    }
    const std::string path = selectFirmwareBox->getFilePath();
    if (path.empty()) {
        log("File path is empty or did't exist", BaseLogger::WARNING);
        return false;
    }
    if (!espFlash->start(path, Esp32Flash::defaults())) {
        log("ESP32 flashing already in progress", BaseLogger::WARNING);
        return false;
    }
    loadStatusBar->set_value(0);
    set_sensitive(false);
    return true;
}

// --- The link after a reboot ------------------------------------------------

void MainWindow::rebootDevice() {
    const std::uint8_t address = link->currentDevice();
    {
        std::lock_guard<std::recursive_mutex> lock(link->devices().getMutex());
        App::Device* device = link->devices().getDevice(address);
        if (device == nullptr) {
            log("device didn't exist for reboot", BaseLogger::ERROR);
            return;
        }
        Field* field = device->getFieldByName("reboot");
        if (field == nullptr) {
            log("choose field didn't exist", BaseLogger::WARNING);
            return;
        }
        // Wide enough for any field type; the low bytes carry the 1.
        const std::uint64_t one = 1;
        field->setData(true, &one);
        link->sender().setFieldValue(address,
                                     static_cast<unsigned char>(device->getFieldIndexByName("reboot")));
    }
    rebootReconnect->schedule();
}

void MainWindow::resetLoadStatus() {
    if (loadStatusBar) {
        loadStatusBar->set_value(0);
    }
    if (loadStatusLabel != nullptr) {
        loadStatusLabel->set_text("0%");
    }
    if (appStatusbar != nullptr && statusContextId != 0) {
        appStatusbar->remove_all_messages(statusContextId);
    }
}

// From any thread: the UI thread refreshes at once, a worker wakes it, at
// most one wake-up at a time.
MainWindow::HandlerStatus MainWindow::updateLoadStatusHandler() {
    if (!loadStatusBar) {
        log("loadStatusBar doesn't exist!!!", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    if (std::this_thread::get_id() == uiThreadId) {
        updateLoadStatusUi();
    } else {
        std::uint8_t idle = 0;
        if (payloadProgressPending.compare_exchange_strong(idle, 1)) {
            payloadProgressDispatcher.emit();
        }
    }
    return GlobalHandlerEvents::Success;
}

void MainWindow::onPayloadProgressUiUpdate() {
    // Cleared first, so that a change during the refresh wakes again.
    payloadProgressPending.exchange(0);
    updateLoadStatusUi();
}

void MainWindow::updateLoadStatusUi() {
    if (!loadStatusBar) {
        return;
    }
    showProgress(stm32Load->percent(), true);
    if (stm32Load->takeUnconfirmed()) {
        log("The device did not confirm the firmware: the load is not complete", BaseLogger::ERROR);
    }
}

// The bar at `value` and the label as the number and "%", or the success
// text at 100 when `done`.
void MainWindow::showProgress(unsigned value, bool done) {
    if (loadStatusBar) {
        loadStatusBar->set_value(value);
    }
    if (loadStatusLabel == nullptr) {
        return;
    }
    if (value >= 100 && done) {
        loadStatusLabel->set_text(kFlashedText);
    } else {
        loadStatusLabel->set_text(std::to_string(value) + "%");
    }
}

// Wake-ups queue up: the end is taken by the first that sees it, and those
// still queued behind it change nothing.
void MainWindow::onEspFlashUiUpdate() {
    if (const auto end = espFlash->takeEnd()) {
        endEspFlash(*end);
    } else if (espFlash->running()) {
        showProgress(espFlash->percent(), false);
    }
}

void MainWindow::endEspFlash(const std::string& error) {
    set_sensitive(true);
    if (!error.empty()) {
        // Every block may have gone (100 %) and the check failed after them:
        // the percentage stays, never the success text.
        showProgress(espFlash->percent(), false);
        log("ESP32 flashing failed: " + error, BaseLogger::ERROR);
        return;
    }
    showProgress(100, true);
    log("ESP32 flashing completed", BaseLogger::INFO);
}
