#include "SelectFirmwareBox.h"

#include "Platform.h"
#include "PlatformPaths.h"
#include "WidgetChildren.h"

#include <gio/gio.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace MeridKestalWidgets {

namespace {

// The box's routine lines carry the file dialog's tag; the write-out of the
// images carries its own.
const char* const kTag = "OpenFileDialog: ";
const char* const kWriteTag = "SelectFirmwareBox: ";

const char* const kEsp32File = "merid_firmware.bin";
const char* const kEsp32Resource = "/meridkestalutility/firmware/merid_firmware.bin";
const char* const kStm32File = "Tovik_2.13.319.f75a0c3_aes.bin";
const char* const kStm32Resource = "/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin";

// The window's thread and a load on the listener's may both write an image
// out; one at a time.
std::mutex gWriteMutex;

void logWrite(const std::string& message) {
    LoggerManager::getInstance().log(message, BaseLogger::ERROR, kWriteTag);
}

// True when `target` is a plain file holding exactly the `size` bytes at
// `data`: an older image, or one put there by someone else, is never used.
bool holdsExactly(const std::filesystem::path& target, const char* data, std::size_t size) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(target, error)) ||
        std::filesystem::file_size(target, error) != size || error) {
        return false;
    }
    std::ifstream in(target, std::ios::binary);
    std::vector<char> block(64 * 1024);
    for (std::size_t offset = 0; offset < size;) {
        const std::size_t count = std::min(block.size(), size - offset);
        if (!in.read(block.data(), static_cast<std::streamsize>(count)) ||
            std::memcmp(block.data(), data + offset, count) != 0) {
            return false;
        }
        offset += count;
    }
    return true;
}

// The images' folders live in the shared temporary folder: both levels must
// be this user's alone, so that nothing can be planted in them.
void makeFolderPrivate(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    for (const auto& level : {folder.parent_path(), folder}) {
        if (!Platform::ensurePrivateDirectory(Platform::pathToUtf8(level))) {
            throw std::runtime_error("the folder " + Platform::pathToUtf8(level) +
                                     " is a link or can be changed by other users");
        }
    }
}

// The resource's bytes at `target`, written unless the file there holds
// them already. The path as UTF-8, or empty on failure.
std::string writeResourceToFileIfNeeded(const char* resourcePath, const std::filesystem::path& target) {
    GError* error = nullptr;
    GBytes* bytes = g_resources_lookup_data(resourcePath, G_RESOURCE_LOOKUP_FLAGS_NONE, &error);
    if (bytes == nullptr) {
        std::string message = std::string("Can't lookup resource ") + resourcePath;
        if (error != nullptr && error->message != nullptr) {
            message += std::string(": ") + error->message;
        }
        if (error != nullptr) {
            g_error_free(error);
        }
        logWrite(message);
        return {};
    }
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string result;
    try {
        std::lock_guard<std::mutex> lock(gWriteMutex);
        makeFolderPrivate(target.parent_path());
        if (holdsExactly(target, data, size)) {
            result = Platform::pathToUtf8(target);
        } else {
            // Whatever is in the way goes, a link itself rather than its target.
            std::filesystem::remove(target);
            std::ofstream out(target, std::ios::binary | std::ios::trunc);
            if (!out.is_open()) {
                logWrite("Can't open file for preinstalled firmware: " + Platform::pathToUtf8(target));
            } else {
                out.write(data, static_cast<std::streamsize>(size));
                out.flush();
                out.close();
                result = Platform::pathToUtf8(target);
            }
        }
    } catch (const std::exception& exception) {
        logWrite(std::string("Failed to write preinstalled firmware: ") + exception.what());
        result.clear();
    }
    g_bytes_unref(bytes);
    return result;
}

template <typename Widget> void setSensitive(const Glib::RefPtr<Widget>& widget, bool sensitive) {
    if (widget) {
        widget->set_sensitive(sensitive);
    }
}

} // namespace

SelectFirmwareBox::SelectFirmwareBox(_GtkBox* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("SFBoxMK"), Gtk::Box(cobject), builder(builder),
      logger(&LoggerManager::getInstance()) {
    labelsRu = {{FIRMWARE_SOURCE_MODE, "Использовать предустановленную прошивку"},
                {ESP32_PATH, "Путь для прошивки ESP32"},
                {STM32_PATH, "Путь для прошивки STM32"},
                {SEARCH, "Поиск"},
                {FIRMWARE_UPLOAD, "Загрузка прошивки"}};
    labelsEn = {{FIRMWARE_SOURCE_MODE, "Use preinstalled firmware"},
                {ESP32_PATH, "Firmware path for ESP32"},
                {STM32_PATH, "Firmware path for STM32"},
                {SEARCH, "Search"},
                {FIRMWARE_UPLOAD, "Upload firmware"}};
    currentLabels = nullptr;
    log("Constructor", BaseLogger::DEBUG);
    sourceModeSwitch = fetchChild<Gtk::Switch>(builder, "FirmwareSourceModeSwitch");
    sourceModeSwitchLabel = fetchChild<Gtk::Label>(builder, "FirmwareSourceModeSwitchLabel");
    esp32Box = fetchChild<Gtk::Box>(builder, "SelectFirmwareBoxEsp32");
    stm32Box = fetchChild<Gtk::Box>(builder, "SelectFirmwareBoxStm32");
    esp32Label = fetchChild<Gtk::Label>(builder, "SelectFirmwareBoxEsp32Label");
    esp32Button = fetchChild<Gtk::Button>(builder, "SelectFirmwareEsp32Button");
    esp32Entry = fetchChild<Gtk::SearchEntry>(builder, "SelectFirmwareSearchEntryEsp32");
    stm32Label = fetchChild<Gtk::Label>(builder, "SelectFirmwareBoxStm32Label");
    stm32Button = fetchChild<Gtk::Button>(builder, "SelectFirmwareStm32Button");
    stm32Entry = fetchChild<Gtk::SearchEntry>(builder, "SelectFirmwareSearchEntryStm32");
    firmwareLabel = fetchChild<Gtk::Label>(builder, "SelectFirmwareLabel");
    uploadButton = fetchChild<Gtk::Button>(builder, "UploadButton");
    definitionDefaultValues();
}

void SelectFirmwareBox::log(const std::string& message, BaseLogger::MessageType type) {
    logger->log(message, type, kTag);
}

void SelectFirmwareBox::setTargetSensitive(FirmwareTarget target, bool sensitive) {
    if (target == Esp32) {
        setSensitive(esp32Button, sensitive);
        setSensitive(esp32Entry, sensitive);
    } else {
        setSensitive(stm32Button, sensitive);
        setSensitive(stm32Entry, sensitive);
    }
}

void SelectFirmwareBox::esp32Active() {
    bool preinstalled = false;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        firmwareTarget = Esp32;
        esp32Enabled = true;
        preinstalled = usePreinstalled;
    }
    if (!preinstalled) {
        setTargetSensitive(Esp32, true);
    }
    updateFirmwareSourceModeUi();
}

void SelectFirmwareBox::stm32Active() {
    bool preinstalled = false;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        firmwareTarget = Stm32;
        stm32Enabled = true;
        preinstalled = usePreinstalled;
    }
    if (!preinstalled) {
        setTargetSensitive(Stm32, true);
    }
    updateFirmwareSourceModeUi();
}

void SelectFirmwareBox::esp32Inactive() {
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        esp32Enabled = false;
    }
    setTargetSensitive(Esp32, false);
}

void SelectFirmwareBox::stm32Inactive() {
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        stm32Enabled = false;
    }
    setTargetSensitive(Stm32, false);
}

void SelectFirmwareBox::setFilePath(std::string& path, HandlersFuncKeys& key) {
    if (key != SEARCH_FILE_ESP32 && key != SEARCH_FILE_STM32) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        if (usePreinstalled) {
            return;
        }
        (key == SEARCH_FILE_ESP32 ? esp32UserPath : stm32UserPath) = path;
    }
    updateDisplayedPath(path, key);
    std::lock_guard<std::mutex> lock(pathMutex);
    if (key == SEARCH_FILE_ESP32 && firmwareTarget == Esp32) {
        filePath = esp32UserPath;
    } else if (key == SEARCH_FILE_STM32 && firmwareTarget == Stm32) {
        filePath = stm32UserPath;
    }
}

std::string SelectFirmwareBox::getFilePath() {
    FirmwareTarget target = Stm32;
    std::string preinstalled;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        target = firmwareTarget;
        if (!usePreinstalled) {
            filePath = target == Esp32 ? esp32UserPath : stm32UserPath;
            return filePath;
        }
        preinstalled = target == Esp32 ? esp32PreinstalledPath : stm32PreinstalledPath;
    }
    if (preinstalled.empty()) {
        preinstalled = ensurePreinstalledFirmwareOnDisk(target);
    }
    std::lock_guard<std::mutex> lock(pathMutex);
    std::string& cached = target == Esp32 ? esp32PreinstalledPath : stm32PreinstalledPath;
    if (cached.empty()) {
        cached = preinstalled;
    }
    filePath = preinstalled;
    return filePath;
}

void SelectFirmwareBox::updateFirmwareSourceModeUi() {
    bool preinstalled = false;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        preinstalled = usePreinstalled;
    }
    if (preinstalled) {
        showPreinstalledPaths();
    } else {
        showUserPaths();
    }
}

void SelectFirmwareBox::showUserPaths() {
    if (esp32Entry) {
        esp32Entry->set_tooltip_text("");
    }
    if (stm32Entry) {
        stm32Entry->set_tooltip_text("");
    }
    std::string esp32Path;
    std::string stm32Path;
    bool esp32 = true;
    bool stm32 = true;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        esp32Path = esp32UserPath;
        stm32Path = stm32UserPath;
        esp32 = esp32Enabled;
        stm32 = stm32Enabled;
    }
    updateDisplayedPath(esp32Path, SEARCH_FILE_ESP32);
    updateDisplayedPath(stm32Path, SEARCH_FILE_STM32);
    setTargetSensitive(Esp32, esp32);
    setTargetSensitive(Stm32, stm32);
    // A load without a file is refused later, by the load itself.
    setSensitive(uploadButton, true);
    std::lock_guard<std::mutex> lock(pathMutex);
    filePath = firmwareTarget == Esp32 ? esp32UserPath : stm32UserPath;
}

void SelectFirmwareBox::showPreinstalledPaths() {
    std::string esp32Path;
    std::string stm32Path;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        esp32Path = esp32PreinstalledPath;
        stm32Path = stm32PreinstalledPath;
    }
    // Both images go to disk at the first move of the switch; a failed
    // write-out is tried again at the next.
    if (esp32Path.empty()) {
        esp32Path = ensurePreinstalledFirmwareOnDisk(Esp32);
    }
    if (stm32Path.empty()) {
        stm32Path = ensurePreinstalledFirmwareOnDisk(Stm32);
    }
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        if (esp32PreinstalledPath.empty()) {
            esp32PreinstalledPath = esp32Path;
        }
        if (stm32PreinstalledPath.empty()) {
            stm32PreinstalledPath = stm32Path;
        }
    }
    updateDisplayedPath(esp32Path, SEARCH_FILE_ESP32);
    updateDisplayedPath(stm32Path, SEARCH_FILE_STM32);
    setTargetSensitive(Esp32, false);
    setTargetSensitive(Stm32, false);
    std::string path;
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        filePath = firmwareTarget == Esp32 ? esp32PreinstalledPath : stm32PreinstalledPath;
        path = filePath;
    }
    // A failed write-out blocks the load.
    setSensitive(uploadButton, !path.empty());
}

void SelectFirmwareBox::updateDisplayedPath(const std::string& path, HandlersFuncKeys key) {
    std::string baseName = Glib::path_get_basename(path);
    if (baseName.empty()) {
        baseName = path;
    }
    const Glib::RefPtr<Gtk::SearchEntry>* entry = nullptr;
    if (key == SEARCH_FILE_ESP32) {
        entry = &esp32Entry;
    } else if (key == SEARCH_FILE_STM32) {
        entry = &stm32Entry;
    }
    if (entry == nullptr || !*entry) {
        return;
    }
    (*entry)->set_text(baseName);
    (*entry)->set_tooltip_text(path);
}

std::string SelectFirmwareBox::ensurePreinstalledFirmwareOnDisk(FirmwareTarget target) {
    const std::filesystem::path directory =
        Platform::pathFromUtf8(Glib::filename_to_utf8(Glib::get_tmp_dir())) / "MeridKestalUtility" /
        "firmware";
    if (target == Esp32) {
        return writeResourceToFileIfNeeded(kEsp32Resource, directory / kEsp32File);
    }
    return writeResourceToFileIfNeeded(kStm32Resource, directory / kStm32File);
}

void SelectFirmwareBox::redefinitionLabeles() {
    log("Redefinition labeles", BaseLogger::DEBUG);
    currentLabels = nextLanguage(currentLabels, labelsRu, labelsEn);
    const auto& labels = *currentLabels;
    if (sourceModeSwitchLabel) {
        sourceModeSwitchLabel->set_label(labels.at(FIRMWARE_SOURCE_MODE));
    }
    if (esp32Label) {
        esp32Label->set_label(labels.at(ESP32_PATH));
    }
    if (stm32Label) {
        stm32Label->set_label(labels.at(STM32_PATH));
    }
    if (esp32Button) {
        esp32Button->set_label(labels.at(SEARCH));
    }
    if (stm32Button) {
        stm32Button->set_label(labels.at(SEARCH));
    }
    if (firmwareLabel) {
        firmwareLabel->set_label(labels.at(FIRMWARE_UPLOAD));
    }
}

void SelectFirmwareBox::searchFile(HandlersFuncKeys key, const char* target) {
    if (GlobalHandlerEvents::getInstance()._executeHandler(key) == GlobalHandlerEvents::Failure) {
        log(std::string("Error with Open File for ") + target + "!", BaseLogger::ERROR);
    } else {
        log(std::string("Open File for ") + target + " is success!", BaseLogger::INFO);
    }
}

void SelectFirmwareBox::definitionDefaultValues() {
    log("Definition default values", BaseLogger::DEBUG);
    redefinitionLabeles();
    if (sourceModeSwitch) {
        sourceModeSwitch->property_active().signal_changed().connect([this] {
            {
                std::lock_guard<std::mutex> lock(pathMutex);
                usePreinstalled = sourceModeSwitch->get_active();
            }
            updateFirmwareSourceModeUi();
        });
    }
    if (stm32Button) {
        stm32Button->signal_clicked().connect([this] { searchFile(SEARCH_FILE_STM32, "STM32"); });
    }
    if (esp32Button) {
        esp32Button->signal_clicked().connect([this] { searchFile(SEARCH_FILE_ESP32, "ESP32"); });
    }
    updateFirmwareSourceModeUi();
}

} // namespace MeridKestalWidgets
