#include "FirmwareMethodBox.h"

#include "GlobalHandlerEvents.h"
#include "WidgetChildren.h"

namespace MeridKestalWidgets {

namespace {
const char* const kTag = "FirmwareMethodBox: ";
}

FirmwareMethodBox::FirmwareMethodBox(_GtkBox* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("FMBoxMK"), Gtk::Box(cobject), builder(builder),
      logger(&LoggerManager::getInstance()) {
    labelsRu = {{FIRMWARE_METHOD, "Устройство для прошивки"}, {UPLOAD, "Загрузить"}};
    labelsEn = {{FIRMWARE_METHOD, "Device for flashing"}, {UPLOAD, "Upload"}};
    currentLabels = nullptr;
    log("Constructor", BaseLogger::DEBUG);
    methodList = fetchChild<Gtk::ComboBoxText>(builder, "FirmwareMethodComboBoxText");
    methodLabel = fetchChild<Gtk::Label>(builder, "FirmwareMethodLable");
    uploadButton = fetchChild<Gtk::Button>(builder, "UploadButton");
    definitionDefaultValues();
}

void FirmwareMethodBox::log(const std::string& message, BaseLogger::MessageType type) {
    logger->log(message, type, kTag);
}

void FirmwareMethodBox::setActiveMethod() {
    if (!methodList) {
        return;
    }
    const std::string active = methodList->get_active_text();
    auto& events = GlobalHandlerEvents::getInstance();
    if (active == methods[0]) {
        events._executeHandler(SELECT_STM32);
    } else if (active == methods[1]) {
        events._executeHandler(SELECT_ESP32);
    }
}

void FirmwareMethodBox::upload() {
    GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase);
}

void FirmwareMethodBox::redefinitionLabeles() {
    log("Redefinition labeles", BaseLogger::DEBUG);
    currentLabels = nextLanguage(currentLabels, labelsRu, labelsEn);
    if (methodLabel) {
        methodLabel->set_text(currentLabels->at(FIRMWARE_METHOD));
    }
    if (uploadButton) {
        uploadButton->set_label(currentLabels->at(UPLOAD));
    }
}

void FirmwareMethodBox::definitionDefaultValues() {
    log("Definition default values", BaseLogger::DEBUG);
    redefinitionLabeles();
    if (!methodList) {
        return;
    }
    // Selected before the signal is connected, so that the start raises no
    // key from here: the window chooses the first target itself.
    for (const auto& method : methods) {
        methodList->append(method);
    }
    methodList->set_active(0);
    methodList->signal_changed().connect([this] { setActiveMethod(); });
    if (uploadButton) {
        uploadButton->signal_clicked().connect([] {
            GlobalHandlerEvents::getInstance()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase);
        });
    }
}

} // namespace MeridKestalWidgets
