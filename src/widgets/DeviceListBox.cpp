#include "DeviceListBox.h"

#include "GlobalHandlerEvents.h"
#include "WidgetChildren.h"

#include <chrono>

namespace MeridKestalWidgets {

namespace {
const char* const kTag = "DeviceListBox: ";
constexpr std::chrono::milliseconds kPassDelay(200);
} // namespace

DeviceListBox::DeviceListBox(_GtkFrame* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("DLFrame"), Gtk::Frame(cobject), Thread(kTag), builder(builder) {
    labelsRu = {{DEVICE_LIST, "Список устройств"}, {SEARCH_DEVICE, "Поиск устройств"}};
    labelsEn = {{DEVICE_LIST, "Device list"}, {SEARCH_DEVICE, "Search devices"}};
    currentLabels = nullptr;
    log("Constructor", BaseLogger::DEBUG);
    deviceListLabel = fetchChild<Gtk::Label>(builder, "DeviceListLable");
    searchDeviceButton = fetchChild<Gtk::Button>(builder, "SearchDeviceButton");
    deviceList = fetchChild<Gtk::ListBox>(builder, "ListDeviceListBox");
    passDispatcher.connect([this] { fillList(); });
    definitionDefaultValues();
}

DeviceListBox::~DeviceListBox() {
    // A pass in flight uses the dispatcher and the device model: wait for
    // it before they go.
    shutdown();
}

void DeviceListBox::log(const std::string& message, BaseLogger::MessageType type) {
    logger.log(message, type, kTag);
}

void DeviceListBox::addToList(const std::string& text) {
    if (!deviceList) {
        return;
    }
    auto* label = Gtk::manage(new Gtk::Label(text));
    auto* row = Gtk::manage(new Gtk::ListBoxRow());
    row->add(*label);
    deviceList->append(*row);
    deviceList->show_all_children();
}

bool DeviceListBox::isFoundSame(const std::string&) {
    return false;
}

void DeviceListBox::toClearList() {
    if (deviceList) {
        // The rows belong to the list box and go with their removal.
        for (Gtk::Widget* row : deviceList->get_children()) {
            deviceList->remove(*row);
        }
    }
    if (deviceHandler != nullptr) {
        deviceHandler->clearDeviceList();
    }
    if (deviceList) {
        deviceList->show_all_children();
    }
}

void DeviceListBox::redefinitionLabeles() {
    log("Redefinition labeles", BaseLogger::DEBUG);
    currentLabels = nextLanguage(currentLabels, labelsRu, labelsEn);
    if (deviceListLabel) {
        deviceListLabel->set_label(currentLabels->at(DEVICE_LIST));
    }
    if (searchDeviceButton) {
        searchDeviceButton->set_label(currentLabels->at(SEARCH_DEVICE));
    }
}

void DeviceListBox::definitionDefaultValues() {
    log("Definition default values", BaseLogger::DEBUG);
    redefinitionLabeles();
    if (searchDeviceButton) {
        searchDeviceButton->signal_clicked().connect([this] { searchStep(); });
    }
}

void DeviceListBox::searchStep() {
    toClearList();
    if (GlobalHandlerEvents::getInstance()._executeHandler(SEARCH_DEVICES) != GlobalHandlerEvents::Success) {
        log("Device search request transmitted with error (no active connection?)", BaseLogger::ERROR);
        return;
    }
    log("Device search request transmitted successfully!", BaseLogger::INFO);
    // Joined, not detached, so that the widget's end waits for a pass in
    // flight. A thread already at work keeps its own start time.
    start(false);
}

void DeviceListBox::run() {
    const auto startTime = std::chrono::steady_clock::now();
    while (running.load()) {
        // A short spin on purpose: the thread ends right after it.
        if (std::chrono::steady_clock::now() - startTime < kPassDelay) {
            continue;
        }
        std::vector<std::string> names;
        if (deviceHandler != nullptr) {
            for (const auto& entry : deviceHandler->getDeviceListCopy()) {
                names.push_back(entry.second->getDeviceName());
            }
        }
        {
            std::lock_guard<std::mutex> lock(passesMutex);
            passes.push_back(std::move(names));
        }
        passDispatcher.emit();
        terminate();
    }
}

void DeviceListBox::fillList() {
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(passesMutex);
        if (passes.empty()) {
            return;
        }
        names = std::move(passes.front());
        passes.pop_front();
    }
    for (const auto& name : names) {
        addToList(name);
    }
}

} // namespace MeridKestalWidgets
