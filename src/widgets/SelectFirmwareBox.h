#pragma once

#include "GlobalHandlerEvents.h"
#include "LoggerManager.h"

#include <gtkmm.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace MeridKestalWidgets {

// Decides which image a load uses: for the target (ESP32 or STM32, set from
// outside) either the file the user picked or the preinstalled image that
// the program carries and writes out to the temporary directory.
//
// The STM32 load asks for the path from the payload listener's thread, so
// the paths and the two choices are kept under a lock; the controls are
// only touched on the window's thread.
class SelectFirmwareBox : public Gtk::Box {
public:
    enum FirmwareTarget : std::int32_t { Stm32 = 0, Esp32 = 1 };
    enum SelectFirmwareText {
        FIRMWARE_SOURCE_MODE = 0,
        ESP32_PATH = 1,
        STM32_PATH = 2,
        SEARCH = 3,
        FIRMWARE_UPLOAD = 4,
    };

    SelectFirmwareBox(_GtkBox* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    void esp32Active();
    void stm32Active();
    void esp32Inactive();
    void stm32Inactive();

    // The file the user picked for the target of `key` (SEARCH_FILE_ESP32 or
    // SEARCH_FILE_STM32); ignored while the preinstalled images are in use.
    void setFilePath(std::string& path, HandlersFuncKeys& key);
    // The path a load uses now, recomputed first; empty when there is none.
    // A copy, as another thread may change the choice meanwhile.
    std::string getFilePath();
    void updateFirmwareSourceModeUi();
    // Shows the base name of `path` in the entry of `key`, the full path as
    // its tooltip.
    void updateDisplayedPath(const std::string& path, HandlersFuncKeys key);
    // Writes the target's preinstalled image to the temporary firmware
    // directory unless a file of its size is there; the path, or empty on
    // failure.
    std::string ensurePreinstalledFirmwareOnDisk(FirmwareTarget target);

    void redefinitionLabeles();
    void definitionDefaultValues();

private:
    void log(const std::string& message, BaseLogger::MessageType type);
    void searchFile(HandlersFuncKeys key, const char* target);
    void setTargetSensitive(FirmwareTarget target, bool sensitive);
    void showUserPaths();
    void showPreinstalledPaths();

    std::map<SelectFirmwareText, std::string> labelsRu;
    std::map<SelectFirmwareText, std::string> labelsEn;
    const std::map<SelectFirmwareText, std::string>* currentLabels = nullptr;
    Glib::RefPtr<Gtk::Builder> builder;
    Glib::RefPtr<Gtk::Switch> sourceModeSwitch;
    Glib::RefPtr<Gtk::Label> sourceModeSwitchLabel;
    Glib::RefPtr<Gtk::Box> esp32Box;
    Glib::RefPtr<Gtk::Box> stm32Box;
    Glib::RefPtr<Gtk::Label> esp32Label;
    Glib::RefPtr<Gtk::Button> esp32Button;
    Glib::RefPtr<Gtk::SearchEntry> esp32Entry;
    Glib::RefPtr<Gtk::Label> stm32Label;
    Glib::RefPtr<Gtk::Button> stm32Button;
    Glib::RefPtr<Gtk::SearchEntry> stm32Entry;
    Glib::RefPtr<Gtk::Label> firmwareLabel;
    Glib::RefPtr<Gtk::Button> uploadButton;

    // Guards everything below up to the logger.
    std::mutex pathMutex;
    std::string filePath;
    std::string esp32UserPath;
    std::string stm32UserPath;
    std::string esp32PreinstalledPath;
    std::string stm32PreinstalledPath;
    FirmwareTarget firmwareTarget = Stm32;
    bool usePreinstalled = false;
    bool esp32Enabled = true;
    bool stm32Enabled = true;
    LoggerManager* logger;
};

} // namespace MeridKestalWidgets
