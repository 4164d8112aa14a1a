#pragma once

#include "DeviceHandler.h"
#include "LoggerManager.h"
#include "Thread.h"

#include <gtkmm.h>

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace MeridKestalWidgets {

// The frame that shows which devices answered. A press on its button clears
// the list, raises SEARCH_DEVICES and starts a short-lived thread that,
// 200 ms later, lists the names of all devices then known, in address
// order: one press, one pass.
//
// The thread only takes the names; the rows are made on the window's
// thread, which the thread wakes through a dispatcher.
class DeviceListBox : public Gtk::Frame, public Thread {
public:
    enum DeviceListText { DEVICE_LIST = 0, SEARCH_DEVICE = 1 };

    DeviceListBox(_GtkFrame* cobject, const Glib::RefPtr<Gtk::Builder>& builder);
    ~DeviceListBox() override;

    // A new row with `text` at the end of the list.
    void addToList(const std::string& text);
    // Meant to keep a name from showing twice; nothing filters yet.
    bool isFoundSame(const std::string& text);
    // Empties the list and the device model.
    void toClearList();
    void redefinitionLabeles();
    void definitionDefaultValues();

    // Not owned; written by the window right after construction.
    DeviceHandler* deviceHandler = nullptr;

protected:
    void run() override;

private:
    void log(const std::string& message, BaseLogger::MessageType type);
    void searchStep();
    // On the window's thread: the rows of the oldest pass handed over.
    void fillList();

    std::map<DeviceListText, std::string> labelsRu;
    std::map<DeviceListText, std::string> labelsEn;
    const std::map<DeviceListText, std::string>* currentLabels = nullptr;
    Glib::RefPtr<Gtk::Builder> builder;
    Glib::RefPtr<Gtk::Label> deviceListLabel;
    Glib::RefPtr<Gtk::Button> searchDeviceButton;
    Glib::RefPtr<Gtk::ListBox> deviceList;

    // The names of each finished pass, waiting for the window's thread.
    std::mutex passesMutex;
    std::deque<std::vector<std::string>> passes;
    Glib::Dispatcher passDispatcher;
};

} // namespace MeridKestalWidgets
