// The widgets that other threads reach: the device list's filler and the
// image path asked for by a load on the listener's thread.
#include "DeviceListBox.h"
#include "SelectFirmwareBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <cstring>
#include <thread>

using MeridKestalWidgets::DeviceListBox;
using MeridKestalWidgets::SelectFirmwareBox;
using testsupport::CapturingLogger;
using testsupport::ToolkitLoop;

namespace {

DeviceInfo deviceInfo(std::uint8_t address, const std::string& name) {
    DeviceInfo info;
    info.address = address;
    info.nameLength = static_cast<std::uint8_t>(name.size());
    std::memcpy(info.name, name.data(), name.size());
    return info;
}

class DeviceListBoxTest : public widgettest::DerivedWidgetTest<DeviceListBox> {
protected:
    DeviceListBoxTest() : DerivedWidgetTest("ListDeviceFrame") {
        widget->deviceHandler = &model;
        GlobalHandlerEvents::getInstance().addHandler(SEARCH_DEVICES,
                                                      [] { return GlobalHandlerEvents::Success; });
    }
    // The filler reads the model until the widget is gone.
    ~DeviceListBoxTest() override { widget.reset(); }

    std::vector<std::string> rows() {
        std::vector<std::string> texts;
        for (Gtk::Widget* row : child<Gtk::ListBox>("ListDeviceListBox").get_children()) {
            auto* label = dynamic_cast<Gtk::Label*>(dynamic_cast<Gtk::ListBoxRow*>(row)->get_child());
            texts.push_back(label != nullptr ? std::string(label->get_text()) : "<no label>");
        }
        return texts;
    }

    void press() { child<Gtk::Button>("SearchDeviceButton").clicked(); }
    bool ended(std::size_t passes) { return captured.count("DeviceListBox: Thread is terminated") >= passes; }

    DeviceHandler model;
    CapturingLogger captured;
};

struct SelectFirmwareBoxThreads : widgettest::DerivedWidgetTest<SelectFirmwareBox> {
    SelectFirmwareBoxThreads() : DerivedWidgetTest("SelectFirmwareBox") {}
};

} // namespace

TEST_F(DeviceListBoxTest, EachPressGivesOnePassAfter200MillisecondsInAddressOrder) {
    // An empty pass adds no row.
    press();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return ended(1); }));
    ToolkitLoop::runFor(std::chrono::milliseconds(50));
    EXPECT_TRUE(rows().empty());

    model.addDevice(deviceInfo(3, "Old"));
    widget->addToList("Old");
    const auto pressed = std::chrono::steady_clock::now();
    press();
    // The press cleared the list and the model; answers arrive while the
    // filler waits, two of them with one name.
    EXPECT_TRUE(rows().empty());
    model.addDevice(deviceInfo(9, "Radio"));
    model.addDevice(deviceInfo(2, "Motor"));
    model.addDevice(deviceInfo(5, "Radio"));
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return !rows().empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - pressed, std::chrono::milliseconds(200));
    EXPECT_EQ(rows(), (std::vector<std::string>{"Motor", "Radio", "Radio"}));
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return ended(2); }));

    // A later answer waits for the next press, which starts a new pass.
    model.addDevice(deviceInfo(1, "Late"));
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(rows().size(), 3u);
    press();
    model.addDevice(deviceInfo(4, "Pump"));
    ASSERT_TRUE(
        ToolkitLoop::runUntil([&] { return ended(3) && rows() == std::vector<std::string>{"Pump"}; }));

    // The widget's end waits for a pass in flight.
    press();
    widget.reset();
    EXPECT_TRUE(ended(4));
}

TEST_F(SelectFirmwareBoxThreads, ThePathIsAskedForWhileTheWindowChangesTheChoice) {
    std::string user = "/images/app.bin";
    HandlersFuncKeys key = SEARCH_FILE_STM32;
    widget->setFilePath(user, key);
    const std::string image = widget->ensurePreinstalledFirmwareOnDisk(SelectFirmwareBox::Stm32);

    std::vector<std::string> seen;
    std::thread listener([&] {
        for (int i = 0; i < 200; ++i) {
            seen.push_back(widget->getFilePath());
        }
    });
    for (int i = 0; i < 20; ++i) {
        child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(i % 2 == 0);
    }
    listener.join();
    for (const auto& path : seen) {
        EXPECT_TRUE(path == user || path == image) << path;
    }
}
