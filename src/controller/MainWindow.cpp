#include "MainWindow.h"

#include "EspSerialFlasherPort.h"
#include "MeridEspSerialFlasher.h"
#include "Platform.h"
#include "PlatformPaths.h"

#include <chrono>
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
// The erase poll: its period, how often it asks again, and its whole budget.
constexpr unsigned kErasePollMs = 200;
constexpr std::int32_t kEraseRetryTicks = 5;
constexpr std::int32_t kEraseWaitTicks = 51;
// The type code of a 4-byte integer field.
constexpr std::uint8_t kEraseFieldType = 8;
constexpr std::uint32_t kEspBlockSize = 1024;
constexpr int kReconnectAttempts = 30;

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

// The file index the erase command word selects for the load that follows.
std::uint8_t eraseFileIndex(EraseCmd cmd) {
    switch (cmd) {
    case EraseFile1:
        return 1;
    case EraseFile2:
        return 2;
    default:
        return 0;
    }
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
void MainWindow::tearDown() {
    eraseTimer.disconnect();
    {
        std::lock_guard<std::mutex> lock(quitMutex);
        quitting = true;
    }
    quitCondition.notify_all();
    meridEspSerialFlasherPortSetCancelled(true);
    closeLink();
    if (espFlashThread.joinable()) {
        espFlashThread.join();
    }
    meridEspSerialFlasherPortSetCancelled(false);
    if (reconnectThread.joinable()) {
        reconnectThread.join();
    }
    // The flash worker may have opened the port again just before it saw
    // the cancel.
    closeLink();
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

void MainWindow::closeLink() {
    if (usb.isConnected()) {
        usb.disconnect();
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

// A link opened through the dialog: the answers the protocol waited for on
// the old one will never come, so the next load starts with the search and
// the erase, not with the step that was cut off.
void MainWindow::restartProtocol() {
    log("New link: the protocol starts afresh", BaseLogger::INFO);
    // The queue must not be cleared under a sender that writes from it; the
    // next search or load starts it again.
    serialSender->terminate();
    payloadHandler->resetState();
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
    if (stage == Erase) {
        resetLoadStatus();
        if (firmwareTarget == 1) {
            return flashEsp32Firmware() ? GlobalHandlerEvents::Success : GlobalHandlerEvents::Failure;
        }
        log("Start upload", BaseLogger::INFO);
        log("Erase firmware", BaseLogger::INFO);
        serialListener->start(false);
        serialSender->start(false);
        waitingForErase = 1;
        pendingEraseCmd = EraseFile0;
        eraseWaitTicks = 0;
        serialSender->search();
        // A press during the wait only resets the counter: the running poll
        // goes on.
        if (!eraseTimer.connected()) {
            eraseTimer = Glib::signal_timeout().connect(
                sigc::mem_fun(*this, &MainWindow::probeStm32EraseReady), kErasePollMs);
        }
        return GlobalHandlerEvents::Success;
    }
    // On the listener's thread: the device has confirmed the erase.
    if (stage == Write && firmwareTarget != 1) {
        log("Load firmware", BaseLogger::INFO);
        writeFirmware();
        return GlobalHandlerEvents::Success;
    }
    return GlobalHandlerEvents::Success;
}

// Each tick of the erase poll; true keeps the timer. Searches and field
// requests go out again every fifth tick, and both waits share one budget.
bool MainWindow::probeStm32EraseReady() {
    if (waitingForErase == 0) {
        return false;
    }
    if (!usb.isConnected()) {
        log("USB connection lost while waiting to start STM32 erase", BaseLogger::ERROR);
        waitingForErase = 0;
        return false;
    }
    if (deviceHandler == nullptr) {
        log("deviceHandler doesn't exist while waiting to start STM32 erase", BaseLogger::ERROR);
        waitingForErase = 0;
        return false;
    }
    const std::uint64_t address = currentDeviceAddress.load();
    bool deviceKnown = false;
    bool eraseKnown = false;
    {
        std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
        App::Device* device = deviceHandler->getDevice(address);
        deviceKnown = device != nullptr;
        eraseKnown = deviceKnown && device->getFieldByName("erase") != nullptr;
    }
    if (!deviceKnown) {
        return continueEraseWait([this] { serialSender->search(); },
                                 "Timeout waiting for device discovery before STM32 erase");
    }
    if (!eraseKnown) {
        const auto device = static_cast<unsigned char>(address & 0xFF);
        return continueEraseWait([this, device] { serialSender->getInfoFields(device, 0); },
                                 "Timeout waiting for device field info before STM32 erase");
    }
    waitingForErase = 0;
    eraseWaitTicks = 0;
    eraseMemorySector(pendingEraseCmd, "");
    return false;
}

bool MainWindow::continueEraseWait(const std::function<void()>& request, const char* timeoutLine) {
    if (eraseWaitTicks % kEraseRetryTicks == 0) {
        request();
    }
    ++eraseWaitTicks;
    if (eraseWaitTicks < kEraseWaitTicks) {
        return true;
    }
    log(timeoutLine, BaseLogger::ERROR);
    waitingForErase = 0;
    return false;
}

// Writes `cmd` into the current device's "erase" field. Each failure ends
// the load with its line only.
void MainWindow::eraseMemorySector(EraseCmd cmd, const std::string& path) {
    const std::uint64_t address = currentDeviceAddress.load();
    const auto device = static_cast<std::uint8_t>(address & 0xFF);
    if (deviceHandler == nullptr) {
        log("device didn't exist for erase request", BaseLogger::ERROR);
        return;
    }
    // The listener fills the same model; the request goes out before it
    // can answer.
    std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
    replaceFileRequest(device, eraseFileIndex(cmd), path);
    App::Device* target = deviceHandler->getDevice(address);
    if (target == nullptr) {
        log("device didn't exist for erase request", BaseLogger::ERROR);
        return;
    }
    Field* field = target->getFieldByName("erase");
    if (field == nullptr) {
        log("erase field didn't exist", BaseLogger::ERROR);
        return;
    }
    FieldInfo* info = field->getInfo();
    if (info == nullptr) {
        log("erase field info didn't exist", BaseLogger::ERROR);
        return;
    }
    // The command word always goes as a 4-byte integer, whatever type
    // the device described.
    FieldInfo forced = *info;
    forced.type = kEraseFieldType;
    field->setInfo(forced);
    const std::uint32_t word = cmd;
    field->setData(true, &word);
    const long long index = target->getFieldIndexByName("erase");
    if (index < 0) {
        log("erase field didn't exist", BaseLogger::ERROR);
        return;
    }
    serialSender->setFieldValue(device, static_cast<unsigned char>(index));
}

// On the listener's thread, inside the receive path that holds the model's
// lock: hands the chosen file to the protocol, which sends its first step.
bool MainWindow::writeFirmware() {
    if (!selectFirmwareBox) {
        log("selectFirmwareBox don't exist!!!", BaseLogger::ERROR);
        return false;
    }
    // Puts a preinstalled image on disk when that is the source.
    const std::string path = selectFirmwareBox->getFilePath();
    if (path.empty()) {
        log("File path is empty or did't exist", BaseLogger::WARNING);
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
    const auto device = static_cast<std::uint8_t>(currentDeviceAddress.load() & 0xFF);
    replaceFileRequest(device, firmwareTarget == 1 ? 2 : 0, path);
    logger->log("load device firmware", BaseLogger::INFO, kSenderTag);
    payloadHandler->onMessage(FILE_START_MSG, fileRequest.get());
    payloadHandler->generateResponse(FILE_WRITE_MSG);
    return true;
}

// The protocol copies what it keeps, so the previous request may go.
void MainWindow::replaceFileRequest(std::uint8_t device, std::uint8_t field, const std::string& path) {
    auto request = std::make_unique<MessageArgs>();
    request->device = device;
    request->field = field;
    request->path = path;
    fileRequest = std::move(request);
}

void MainWindow::setFieldValue(const void* value, unsigned long long index) {
    if (deviceHandler == nullptr || value == nullptr) {
        log("device didn't exist for set field value", BaseLogger::ERROR);
        return;
    }
    const std::uint64_t address = currentDeviceAddress.load();
    std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
    App::Device* device = deviceHandler->getDevice(address);
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
    serialSender->setFieldValue(static_cast<unsigned char>(address & 0xFF),
                                static_cast<unsigned char>(index));
}

void MainWindow::setDeviceDfuMode() {
    logger->log("set device to DFU mode", BaseLogger::INFO, kSenderTag);
    std::uint8_t device = static_cast<std::uint8_t>(currentDeviceAddress.load() & 0xFF);
    payloadHandler->onMessage(DFU_MSG, &device);
    payloadHandler->generateResponse(DFU_MSG);
}

// --- The ESP32 flash --------------------------------------------------------

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
    if (espFlashRunning.exchange(true)) {
        log("ESP32 flashing already in progress", BaseLogger::WARNING);
        return false;
    }
    // The finished worker of an earlier flash.
    if (espFlashThread.joinable()) {
        espFlashThread.join();
    }
    espFlashDone.exchange(false);
    espFlashProgress.exchange(0);
    {
        std::lock_guard<std::mutex> lock(espFlashMutex);
        espFlashError.clear();
    }
    // The worker has the link to itself until the window comes back.
    loadStatusBar->set_value(0);
    set_sensitive(false);
    espFlashThread = std::thread([this, path] { runEspFlash(path); });
    return true;
}

// The worker: never touches a widget; the dispatcher carries each change to
// the window's thread.
void MainWindow::runEspFlash(const std::string& path) {
    const MeridEspSerialFlasher::FlashOptions options{0, kEspBlockSize, false};
    std::string error;
    const std::function<void(unsigned char)> progress = [this](unsigned char percent) {
        onEspFlashProgress(percent);
    };
    const bool flashed = MeridEspSerialFlasher::flashBinary(usb, path, options, progress, &error);
    // A failure must never read as success, even one without words.
    if (!flashed) {
        std::lock_guard<std::mutex> lock(espFlashMutex);
        espFlashError = error.empty() ? std::string("the loader gave no reason") : error;
    }
    // Done before not running, both before the wake-up, so that the last
    // refresh sees the result.
    espFlashDone.exchange(true);
    espFlashRunning.exchange(false);
    espFlashDispatcher.emit();
}

void MainWindow::onEspFlashProgress(unsigned char percent) {
    espFlashProgress.exchange(percent);
    espFlashDispatcher.emit();
}

// --- The link after a reboot ------------------------------------------------

void MainWindow::rebootDevice() {
    if (deviceHandler == nullptr) {
        log("device didn't exist for reboot", BaseLogger::ERROR);
        return;
    }
    const std::uint64_t address = currentDeviceAddress.load();
    {
        std::lock_guard<std::recursive_mutex> lock(deviceHandler->getMutex());
        App::Device* device = deviceHandler->getDevice(address);
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
        serialSender->setFieldValue(static_cast<unsigned char>(address & 0xFF),
                                    static_cast<unsigned char>(device->getFieldIndexByName("reboot")));
    }
    scheduleSerialReconnectAfterReboot();
}

void MainWindow::scheduleSerialReconnectAfterReboot() {
    if (usb.getConnectionMethod() != UsbCommunication::MethodCom) {
        return;
    }
    if (reconnectScheduled.exchange(true)) {
        return;
    }
    if (reconnectThread.joinable()) {
        reconnectThread.join();
    }
    reconnectThread = std::thread([this] { runSerialReconnect(); });
}

// The reconnect worker: the device drops off the link while it reboots and
// comes back on the same port. Each pause ends early when the window quits,
// and the worker then ends too.
void MainWindow::runSerialReconnect() {
    // Lets the reboot request leave.
    if (pauseUnlessQuitting(std::chrono::milliseconds(300))) {
        serialSender->terminate();
        serialListener->terminate();
        if (payloadHandler) {
            payloadHandler->resetState();
        }
        usb.disconnect();
        // The workers stay stopped when the port does not come back.
        if (pauseUnlessQuitting(std::chrono::milliseconds(150)) && reconnectSerialPort() &&
            pauseUnlessQuitting(std::chrono::milliseconds(150)) &&
            pauseUnlessQuitting(std::chrono::milliseconds(500))) {
            serialListener->start(false);
            serialSender->start(false);
            serialSender->search();
        }
    }
    reconnectScheduled.exchange(false);
}

bool MainWindow::reconnectSerialPort() {
    for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
        {
            // Under the quit lock: the port is never opened after the
            // teardown has closed it.
            std::lock_guard<std::mutex> lock(quitMutex);
            if (quitting) {
                return false;
            }
            if (usb.connect(UsbCommunication::MethodCom) == UsbTypes::Ok) {
                return true;
            }
        }
        if (!pauseUnlessQuitting(std::chrono::milliseconds(200))) {
            return false;
        }
    }
    return false;
}

bool MainWindow::pauseUnlessQuitting(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(quitMutex);
    return !quitCondition.wait_for(lock, pause, [this] { return quitting; });
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
    if (payloadHandler->finishUnconfirmed.exchange(false)) {
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
    if (espFlashDone.exchange(false)) {
        endEspFlash();
    } else if (espFlashRunning.load()) {
        showProgress(espFlashProgress.load(), false);
    }
}

void MainWindow::endEspFlash() {
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
        // Every block may have gone (100 %) and the check failed after them:
        // the percentage stays, never the success text.
        showProgress(espFlashProgress.load(), false);
        log("ESP32 flashing failed: " + error, BaseLogger::ERROR);
        return;
    }
    showProgress(100, true);
    log("ESP32 flashing completed", BaseLogger::INFO);
}
