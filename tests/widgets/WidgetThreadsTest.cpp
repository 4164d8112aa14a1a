// The widgets that other threads reach: the device list's filler and the
// image path asked for by a load on the listener's thread.
#include "DeviceListBox.h"
#include "SelectFirmwareBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <thread>

using MeridKestalWidgets::DeviceListBox;
using MeridKestalWidgets::SelectFirmwareBox;
using testsupport::CapturingLogger;
using testsupport::ToolkitLoop;

namespace {

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
            texts.push_back(
                dynamic_cast<Gtk::Label&>(*dynamic_cast<Gtk::ListBoxRow&>(*row).get_child()).get_text());
        }
        return texts;
    }

    void press() { child<Gtk::Button>("SearchDeviceButton").clicked(); }
    bool ended(std::size_t passes) { return captured.count("DeviceListBox: Thread is terminated") >= passes; }

    DeviceHandler model;
    CapturingLogger captured;
};

} // namespace

TEST_F(DeviceListBoxTest, EachPressGivesOnePassAfter200MillisecondsInAddressOrder) {
    // Answers arrive while the filler waits, two of them with one name.
    const auto pressed = std::chrono::steady_clock::now();
    press();
    model.addDevice({.address = 9, .nameLength = 5, .name = "Radio"});
    model.addDevice({.address = 2, .nameLength = 5, .name = "Motor"});
    model.addDevice({.address = 5, .nameLength = 5, .name = "Radio"});
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return !rows().empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - pressed, std::chrono::milliseconds(200));
    EXPECT_EQ(rows(), (std::vector<std::string>{"Motor", "Radio", "Radio"}));
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return ended(1); }));

    // A later answer waits for the next press, which clears the list and
    // the model and starts a new pass.
    model.addDevice({.address = 1, .nameLength = 4, .name = "Late"});
    ToolkitLoop::runFor(std::chrono::milliseconds(300));
    EXPECT_EQ(rows().size(), 3u);
    press();
    EXPECT_TRUE(rows().empty());
    model.addDevice({.address = 4, .nameLength = 4, .name = "Pump"});
    ASSERT_TRUE(
        ToolkitLoop::runUntil([&] { return ended(2) && rows() == std::vector<std::string>{"Pump"}; }));
    // An empty pass adds no row.
    press();
    ASSERT_TRUE(ToolkitLoop::runUntil([&] { return ended(3); }));
    ToolkitLoop::runFor(std::chrono::milliseconds(50));
    EXPECT_TRUE(rows().empty());

    // The widget's end waits for a pass in flight.
    press();
    widget.reset();
    EXPECT_TRUE(ended(4));
}

// The path is asked for on the listener's thread while the window changes
// the choice: each answer is one of the two whole paths.
struct SelectFirmwareBoxThreads : widgettest::DerivedWidgetTest<SelectFirmwareBox> {
    SelectFirmwareBoxThreads() : DerivedWidgetTest("SelectFirmwareBox") {}
};

TEST_F(SelectFirmwareBoxThreads, ThePathIsAskedForWhileTheWindowChangesTheChoice) {
    std::string user = "/images/app.bin";
    HandlersFuncKeys key = SEARCH_FILE_STM32;
    widget->setFilePath(user, key);
    const std::string image = widget->ensurePreinstalledFirmwareOnDisk(SelectFirmwareBox::Stm32);
    std::thread listener([&] {
        for (int i = 0; i < 200; ++i) {
            const std::string path = widget->getFilePath();
            EXPECT_TRUE(path == user || path == image) << path;
        }
    });
    for (int i = 0; i < 20; ++i) {
        child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(i % 2 == 0);
    }
    listener.join();
}
