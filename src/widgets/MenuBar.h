#pragma once

#include "LoggerManager.h"

#include <gtkmm.h>

#include <map>
#include <string>

namespace MeridKestalWidgets {

// The window's one menu, "Connection": connect, disconnect, quit. Each item
// raises its key and logs the outcome; the menu itself does nothing else.
class MenuBar : public Gtk::MenuBar {
public:
    enum ItemsText { CONNECTION_ITEM = 0 };
    enum ImageItemsText { CONNECT_ITEM = 0, DISCONNECT_ITEM = 1, QUIT_ITEM = 2 };

    MenuBar(_GtkMenuBar* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    void redefinitionLabeles();
    void definitionDefaultValues();

private:
    void log(const std::string& message, BaseLogger::MessageType type);
    void connectItem();
    void disconnectItem();
    void quitItem();

    std::map<ItemsText, std::string> itemsRu;
    std::map<ImageItemsText, std::string> imageItemsRu;
    std::map<ItemsText, std::string> itemsEn;
    std::map<ImageItemsText, std::string> imageItemsEn;
    // Always flipped together.
    const std::map<ItemsText, std::string>* currentItems = nullptr;
    const std::map<ImageItemsText, std::string>* currentImageItems = nullptr;
    Glib::RefPtr<Gtk::MenuItem> connectionItem;
    Glib::RefPtr<Gtk::ImageMenuItem> connectImageItem;
    Glib::RefPtr<Gtk::ImageMenuItem> disconnectImageItem;
    Glib::RefPtr<Gtk::ImageMenuItem> quitImageItem;
    Glib::RefPtr<Gtk::Builder> builder;
    LoggerManager* logger;
};

} // namespace MeridKestalWidgets
