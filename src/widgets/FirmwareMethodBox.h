#pragma once

#include "LoggerManager.h"

#include <gtkmm.h>

#include <map>
#include <string>
#include <vector>

namespace MeridKestalWidgets {

// The processor to flash and the button that starts a load. The choice is
// passed on as SELECT_STM32 or SELECT_ESP32, the press as UPLOAD_FIRMWARE.
class FirmwareMethodBox : public Gtk::Box {
public:
    enum FirmwareMethodText { FIRMWARE_METHOD = 0, UPLOAD = 1 };

    FirmwareMethodBox(_GtkBox* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    // Raises the key that matches the list's active text.
    void setActiveMethod();
    // Raises UPLOAD_FIRMWARE with the erase stage, which starts a load.
    void upload();
    void redefinitionLabeles();
    void definitionDefaultValues();

private:
    void log(const std::string& message, BaseLogger::MessageType type);

    std::map<FirmwareMethodText, std::string> labelsRu;
    std::map<FirmwareMethodText, std::string> labelsEn;
    const std::map<FirmwareMethodText, std::string>* currentLabels = nullptr;
    // The same texts in both languages; index 0 is the default.
    std::vector<std::string> methods{"STM32", "ESP32"};
    Glib::RefPtr<Gtk::Builder> builder;
    Glib::RefPtr<Gtk::ComboBoxText> methodList;
    Glib::RefPtr<Gtk::Label> methodLabel;
    Glib::RefPtr<Gtk::Button> uploadButton;
    LoggerManager* logger;
};

} // namespace MeridKestalWidgets
