#include "MainWindow.h"

#include "Platform.h"
#include "PlatformPaths.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kUiPath = "UI/UserInterface.glade";
constexpr const char* kUiResource = "/meridkestalutility/ui/UserInterface.glade";
constexpr int kDefaultWidth = 500;
constexpr int kDefaultHeight = 550;
constexpr const char* kTag = "MainWindow: ";
constexpr const char* kSenderTag = "SerialSender: ";
constexpr const char* kFlashedText = "Устройство прошито успешно";

using Platform::pathExists;
using Platform::pathFromUtf8;
using Platform::pathToUtf8;

std::vector<std::filesystem::path> gladeCandidates() {
    const std::filesystem::path uiPath = kUiPath;
    std::vector<std::filesystem::path> candidates{uiPath, std::filesystem::path("bin") / uiPath};
    const std::string executable = Platform::executablePath();
    if (!executable.empty()) {
        const std::filesystem::path base = pathFromUtf8(executable).parent_path();
        candidates.push_back(base / uiPath);
        candidates.push_back(base / "UI" / "UserInterface.glade");
        candidates.push_back(base / ".." / "UI" / "UserInterface.glade");
        candidates.push_back(base / ".." / "Sources" / "UserInterface.glade");
        candidates.push_back(base / ".." / "share" / "meridkestal" / "UI" / "UserInterface.glade");
    }
#ifdef MERID_SOURCE_ROOT
    // The source tree the program was built from, for runs out of a build
    // directory.
    const std::filesystem::path sourceRoot = pathFromUtf8(MERID_SOURCE_ROOT);
    candidates.push_back(sourceRoot / "UI" / "UserInterface.glade");
    candidates.push_back(sourceRoot / "Sources" / "UserInterface.glade");
#endif
    return candidates;
}

// The first interface file that exists, as UTF-8; kUiPath when none does.
std::string resolveGladePath() {
    for (const auto& candidate : gladeCandidates()) {
        if (pathExists(candidate)) {
            return pathToUtf8(candidate);
        }
    }
    return kUiPath;
}

std::optional<std::string> gladeOverride() {
    const auto value = Platform::getEnv("MERID_UI_GLADE");
    if (!value || value->empty() || !pathExists(pathFromUtf8(*value))) {
        return std::nullopt;
    }
    return value;
}

// Load errors other than a missing resource are the caller's: they end the
// start.
Glib::RefPtr<Gtk::Builder> loadInterface() {
    if (const auto path = gladeOverride()) {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from file override: %s", path->c_str());
        return Gtk::Builder::create_from_file(*path);
    }
    try {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from GResource %s", kUiResource);
        return Gtk::Builder::create_from_resource(kUiResource);
    } catch (const Glib::Error&) {
        g_log(nullptr, G_LOG_LEVEL_MESSAGE, "MainWindow: loading UI from file fallback: %s",
              resolveGladePath().c_str());
        return Gtk::Builder::create_from_file(resolveGladePath());
    }
}

} // namespace

MainWindow* MainWindow::getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application) {
    Glib::RefPtr<Gtk::Builder> builder = loadInterface();

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
    // Workers first: they use what goes next.
    if (espFlashThread.joinable()) {
        espFlashThread.join();
    }
    if (reconnectThread.joinable()) {
        reconnectThread.join();
    }
    if (serialListener) {
        serialListener->terminate();
    }
    if (serialSender) {
        serialSender->terminate();
    }
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

void MainWindow::initPayloadProtocol() {
    log("Init Payload protocol", BaseLogger::DEBUG);
    payloadHandler = std::make_unique<PayloadHandler>();
    // Registers SET_LISTENER_TIMEOUT. Neither thread starts before the first
    // search or load.
    serialListener = std::make_unique<Listener>(usb, *payloadHandler, PayloadHandler::getDefaultTimeout());
    serialSender = std::make_unique<Sender>(usb, *payloadHandler);
    deviceHandler = &payloadHandler->getDeviceHandler();
    currentDeviceAddress = deviceHandler->currentAddress.load();
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
    if (deviceListBox && deviceHandler != nullptr) {
        deviceListBox->deviceHandler = deviceHandler;
    }
    if (application) {
        // The program leaves the window to the toolkit at its end; the
        // workers must not outlive the event loop.
        application->signal_shutdown().connect(sigc::mem_fun(*this, &MainWindow::stopWorkers));
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

void MainWindow::stopWorkers() {
    if (deviceListBox) {
        deviceListBox->terminate();
    }
    if (serialListener) {
        serialListener->terminate();
    }
    if (serialSender) {
        serialSender->terminate();
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
    connectionDialog->setUsbConnetctionPtr(usb);
    connectionDialog->setOwner(this);
    connectionDialog->show();
    set_sensitive(false);
    return GlobalHandlerEvents::Success;
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
    if (!usb.isConnected()) {
        log("Search devices requested, but there is no active COM/USB connection. Open the Connection dialog "
            "and connect first.",
            BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    log("Searching devices...", BaseLogger::INFO);
    // Starting a running thread does nothing.
    serialListener->start(false);
    serialSender->start(false);
    serialSender->search();
    return GlobalHandlerEvents::Success;
}

// On the listener's thread, from the device model's addDevice: the device
// found last becomes the current one and is asked for its fields.
MainWindow::HandlerStatus MainWindow::setCurrentDeviceAddrHandler() {
    if (deviceHandler == nullptr) {
        log("deviceHandler doesn't exist!!!", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
        if (deviceHandler->getDeviceList().empty()) {
            return GlobalHandlerEvents::Failure;
        }
    }
    currentDeviceAddress = deviceHandler->currentAddress.load();
    log("Current device address was set", BaseLogger::DEBUG);
    GlobalHandlerEvents::getInstance()._executeHandler(GET_INFO_FIELDS_RESPOND);
    return GlobalHandlerEvents::Success;
}

// On the listener's thread, right after a device was added.
MainWindow::HandlerStatus MainWindow::getInfoFieldsHandler() {
    if (deviceHandler == nullptr) {
        log("deviceHandler doesn't exist!!!", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    log("Trying get device field info", BaseLogger::INFO);
    if (!usb.isConnected()) {
        return GlobalHandlerEvents::Failure;
    }
    const std::uint64_t address = currentDeviceAddress.load();
    if (deviceHandler->getDevice(address) == nullptr) {
        log("Device list didn't contain choosed device", BaseLogger::ERROR);
        return GlobalHandlerEvents::Failure;
    }
    serialSender->getInfoFields(static_cast<unsigned char>(address & 0xFF), 0);
    return GlobalHandlerEvents::Success;
}

void MainWindow::searchPayloadDevices() {
    logger->log("device info request. Search device...", BaseLogger::INFO, kSenderTag);
    payloadHandler->onMessage(SEARCH_DEVICES_MSG, nullptr);
    payloadHandler->generateResponse(SEARCH_DEVICES_MSG);
}

void MainWindow::getInfoFieldsRespond() {
    logger->log("fields info request. Get fields...", BaseLogger::INFO, kSenderTag);
    MessageArgs args;
    args.device = static_cast<std::uint8_t>(currentDeviceAddress.load() & 0xFF);
    payloadHandler->onMessage(FIELD_INFO_MSG, &args);
    payloadHandler->generateResponse(FIELD_INFO_MSG);
}

void MainWindow::startPayloadListener() {
    serialListener->start(false);
}

void MainWindow::startPayloadSender() {
    serialSender->start(false);
}

void MainWindow::stopPayloadListener() {
    serialListener->stop();
}

void MainWindow::stopPayloadSender() {
    serialSender->stop();
}

void MainWindow::terminatePayloadListener() {
    serialListener->terminate();
}

void MainWindow::terminatePayloadSender() {
    serialSender->terminate();
}

// --- Loads ----------------------------------------------------------------

MainWindow::HandlerStatus MainWindow::uploadFirmwareHandler(LoadStage stage) {
    if (!usb.isConnected()) {
        return GlobalHandlerEvents::Failure;
    }
    if (stage != Erase) {
        return GlobalHandlerEvents::Success;
    }
    resetLoadStatus();
    // The transfers themselves (payload chunks for the STM32, the ROM loader
    // for the ESP32) are not part of this build yet.
    log("Firmware upload is not available in this build", BaseLogger::ERROR);
    return GlobalHandlerEvents::Failure;
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
    if (!loadStatusBar || !payloadHandler) {
        return;
    }
    const unsigned progress = payloadHandler->loadProgress.load();
    showProgress(progress, true);
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

void MainWindow::onEspFlashUiUpdate() {
    const bool done = espFlashDone.load();
    showProgress(espFlashProgress.load(), done);
    if (!done) {
        return;
    }
    if (espFlashThread.joinable()) {
        espFlashThread.join();
    }
    set_sensitive(true);
    std::string error;
    {
        std::lock_guard<std::mutex> lock(espFlashMutex);
        error = espFlashError;
    }
    if (!error.empty()) {
        log("ESP32 flashing failed: " + error, BaseLogger::ERROR);
        return;
    }
    if (loadStatusBar) {
        loadStatusBar->set_value(100);
    }
    if (loadStatusLabel != nullptr) {
        loadStatusLabel->set_text(kFlashedText);
    }
    log("ESP32 flashing completed", BaseLogger::INFO);
}
