#include "MenuBar.h"

#include "GlobalHandlerEvents.h"
#include "WidgetChildren.h"

namespace MeridKestalWidgets {

namespace {
const char* const kTag = "MenuBar: ";
}

MenuBar::MenuBar(_GtkMenuBar* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("MenuBarMK"), Gtk::MenuBar(cobject), builder(builder),
      logger(&LoggerManager::getInstance()) {
    itemsRu = {{CONNECTION_ITEM, "Подключение"}};
    imageItemsRu = {{CONNECT_ITEM, "Подключиться"}, {DISCONNECT_ITEM, "Отключиться"}, {QUIT_ITEM, "Выход"}};
    itemsEn = {{CONNECTION_ITEM, "Connection"}};
    imageItemsEn = {{CONNECT_ITEM, "Connect"}, {DISCONNECT_ITEM, "Disconnect"}, {QUIT_ITEM, "Quit"}};
    currentItems = nullptr;
    currentImageItems = nullptr;
    log("Constructor", BaseLogger::DEBUG);
    connectionItem = fetchChild<Gtk::MenuItem>(builder, "ConnectionMenuItem");
    connectImageItem = fetchChild<Gtk::ImageMenuItem>(builder, "ConnectImageMenuItem");
    disconnectImageItem = fetchChild<Gtk::ImageMenuItem>(builder, "DisconnectImageMenuItem");
    quitImageItem = fetchChild<Gtk::ImageMenuItem>(builder, "QuitImageMenuItem");
    definitionDefaultValues();
}

void MenuBar::log(const std::string& message, BaseLogger::MessageType type) {
    logger->log(message, type, kTag);
}

void MenuBar::redefinitionLabeles() {
    log("Redefinition labeles ", BaseLogger::DEBUG);
    currentItems = nextLanguage(currentItems, itemsRu, itemsEn);
    currentImageItems = nextLanguage(currentImageItems, imageItemsRu, imageItemsEn);
    if (connectionItem) {
        connectionItem->set_label(currentItems->at(CONNECTION_ITEM));
    }
    if (connectImageItem) {
        connectImageItem->set_label(currentImageItems->at(CONNECT_ITEM));
    }
    if (disconnectImageItem) {
        disconnectImageItem->set_label(currentImageItems->at(DISCONNECT_ITEM));
    }
    if (quitImageItem) {
        quitImageItem->set_label(currentImageItems->at(QUIT_ITEM));
    }
}

void MenuBar::definitionDefaultValues() {
    log("Definition default values", BaseLogger::DEBUG);
    redefinitionLabeles();
    if (connectImageItem) {
        connectImageItem->set_use_underline(true);
        connectImageItem->signal_activate().connect([this] { connectItem(); });
    }
    if (disconnectImageItem) {
        disconnectImageItem->set_use_underline(true);
        disconnectImageItem->signal_activate().connect([this] { disconnectItem(); });
    }
    if (quitImageItem) {
        quitImageItem->set_use_underline(true);
        quitImageItem->signal_activate().connect([this] { quitItem(); });
    }
}

void MenuBar::connectItem() {
    log("Connection/Connect", BaseLogger::DEBUG);
    if (GlobalHandlerEvents::getInstance()._executeHandler(CONNECT_DIALOG_OPEN) ==
        GlobalHandlerEvents::Failure) {
        log("Error with USB connection window!", BaseLogger::ERROR);
    } else {
        log("USB connection window open!", BaseLogger::DEBUG);
    }
}

void MenuBar::disconnectItem() {
    log("Connection/Disconnect", BaseLogger::DEBUG);
    if (GlobalHandlerEvents::getInstance()._executeHandler(DISCONNECT) == GlobalHandlerEvents::Failure) {
        log("Error with USB disconnection!", BaseLogger::ERROR);
    } else {
        log("USB disconnection success!", BaseLogger::DEBUG);
    }
}

void MenuBar::quitItem() {
    log("Connection/Quit", BaseLogger::DEBUG);
    if (GlobalHandlerEvents::getInstance()._executeHandler(QUIT_APP) == GlobalHandlerEvents::Failure) {
        log("Error with closing", BaseLogger::ERROR);
    }
}

} // namespace MeridKestalWidgets
